#!/usr/bin/env bash
# Plants the faults listed in scripts/mutants.txt one at a time, rebuilds what the fault touches,
# runs the tests and tells whether they caught it. Faults are planted into copies of the source tree
# (build/mutants/tree-N, one per worker, each with its own build folder), never into the tree itself.
#
#   scripts/mutants.sh                      every fault, after a run of the unchanged suite
#   scripts/mutants.sh --only 'Queries|notification'   faults whose line matches (extended regex)
#
# Options: --only REGEX, --list FILE, --jobs N (workers, default 2), --work DIR (default
# build/mutants), --timeout SECONDS (per test program, default 300), --skip-baseline, --check (only
# check that every original is found once; builds nothing), --matrix FILE (every test runs for every
# fault, and FILE gets a line per fault: what it breaks, a tab, the tests that failed).
#
# A list line is: file @@ original text @@ replacement @@ what the fault breaks. Runs of blanks in
# the original match any run of white space in the file, so an original may span lines; it must be
# found exactly once. A fault that is not found once, or does not build, is an error of the list.
# The copies build fast (-O1, no debug information, lld) and are kept between runs, so that a run
# rebuilds only what changed. The workers take the faults of one file at a time. For a fault they
# run the unit tests, then the integration tests most likely to catch a fault of its file, then the
# rest, each stopping at its first failure. A fault in the OPC UA front (a .js file) runs the front's
# end-to-end tests instead. Not part of CI: the whole list takes about a quarter of an hour on 2 cores.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
list=$root/scripts/mutants.txt
work=$root/build/mutants
jobs=2
only=""
limit=300
baseline=1
check=0
matrix=""

usage() { sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; }
while [ $# -gt 0 ]; do
    case $1 in
        --only) only=$2; shift 2 ;;
        --list) list=$2; shift 2 ;;
        --jobs) jobs=$2; shift 2 ;;
        --work) work=$2; shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        --skip-baseline) baseline=0; shift ;;
        --check) check=1; baseline=0; shift ;;
        --matrix) matrix=$(realpath -m -- "$2"); shift 2 ;;
        -h|--help) usage; exit 0 ;;
        *) echo "mutants: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[ -f "$list" ] || { echo "mutants: no list $list" >&2; exit 2; }
case $jobs in ''|*[!0-9]*|0) echo "mutants: --jobs needs a number of at least 1" >&2; exit 2 ;; esac
work=$(realpath -m -- "$work")

# The integration tests (a gtest filter) most likely to catch a fault of a file; they run before the
# rest. The first pattern that matches the file decides.
hint() {
    case $1 in
        SoftwareManagerService/*) echo '*InstallationTest*:TransportTest.*:PeerAccessTest.*' ;;
        Transport/*) echo 'TransportTest.*:PeerAccessTest.*' ;;
        UpdateService/*|SoftwareUpdater/*) echo 'CommandLineTest.*:PluginLoadTest.*' ;;
        *) echo '' ;;
    esac
}

# perl: "count FILE ORIGINAL" prints how often the original occurs; "plant FILE ORIGINAL REPLACEMENT"
# replaces its one occurrence.
edit() {
    MODE=$1 FILE=$2 ORIGINAL=$3 REPLACEMENT=${4-} perl -e '
        my $pattern = join("\\s+", map { quotemeta } split(/\s+/, $ENV{ORIGINAL}));
        open(my $in, "<", $ENV{FILE}) or die "$ENV{FILE}: $!\n";
        local $/; my $text = <$in>; close($in);
        if ($ENV{MODE} eq "count") { my $n = () = $text =~ /$pattern/g; print "$n\n"; exit 0; }
        my $replacement = $ENV{REPLACEMENT};
        $text =~ s/$pattern/$replacement/ or die "not found\n";
        open(my $out, ">", $ENV{FILE}) or die "$ENV{FILE}: $!\n";
        print $out $text; close($out);'
}

# Splits a list line into the globals file, original, replacement and what; false when it is not one.
parse() {
    file="" original="" replacement="" what=""
    IFS=$'\x1f' read -r -d '' file original replacement what < <(perl -e '
        my @f = map { s/^\s+|\s+$//gr } split(/@@/, $ARGV[0], -1);
        print join("\x1f", @f), "\0" if @f == 4;' -- "$1")
    [ -n "$file" ] && [ -n "$original" ] && [ -n "$what" ]
}

elapsed() { local s=$(( $(date +%s) - $1 )); if [ $s -ge 60 ]; then echo "$((s / 60))m$((s % 60))s"; else echo "${s}s"; fi; }

# Checks every chosen line against the tree; the valid ones go to the queue, one file per entry.
run=$work/run
if [ "$check" = 1 ]; then
    run=$(mktemp -d)
    trap 'rm -rf "$run"' EXIT
else
    rm -rf "$run"
fi
mkdir -p "$run/queue" "$run/claims"
number=0
errors=0
group=0
last=""
has_js=0
while IFS= read -r line || [ -n "$line" ]; do
    case $line in ''|'#'*) continue ;; esac
    [ -n "$only" ] && ! grep -Eq -- "$only" <<<"$line" && continue
    number=$((number + 1))
    if ! parse "$line"; then
        echo "ERROR   list line is not 'file @@ original @@ replacement @@ what': $line"
        errors=$((errors + 1)); continue
    fi
    if [ ! -f "$root/$file" ]; then
        echo "ERROR   $file: $what (no such file)"; errors=$((errors + 1)); continue
    fi
    found=$(edit count "$root/$file" "$original")
    if [ "$found" != 1 ]; then
        echo "ERROR   $file: $what (original found $found times)"; errors=$((errors + 1)); continue
    fi
    if [ "$file" != "$last" ]; then
        group=$((group + 1)); last=$file
    fi
    case $file in *.js) has_js=1 ;; esac
    printf '%s %s\n' "$number" "$line" >>"$run/queue/$(printf '%04d' "$group")"
done <"$list"

if [ "$check" = 1 ]; then
    [ "$errors" -gt 0 ] && echo "mutants: $errors list errors"
    echo "mutants: $number faults checked, $errors list errors"
    [ "$errors" = 0 ]
    exit
fi

# Makes `tree` hold exactly the files of the tree (tracked and not ignored), copying only those that
# differ: a copy gets a new time and is rebuilt, an unchanged file keeps what was built from it.
sync_tree() {
    local tree=$1 relative
    mkdir -p "$tree"
    (cd "$root" && git ls-files -co --exclude-standard | while IFS= read -r relative; do [ -f "$relative" ] && echo "$relative"; done) |
        sort -u >"$tree.files"
    while IFS= read -r relative; do
        if ! cmp -s "$root/$relative" "$tree/$relative"; then
            mkdir -p "$(dirname "$tree/$relative")" && cp "$root/$relative" "$tree/$relative" || return 1
        fi
    done <"$tree.files"
    (cd "$tree" && find . -path ./OpcUaServer/node_modules -prune -o -type f -print | sed 's|^\./||' | sort) |
        comm -23 - "$tree.files" | (cd "$tree" && xargs -r -d '\n' rm -f)
    # The front's npm packages are the tree's own.
    if [ -d "$root/OpcUaServer/node_modules" ] && [ ! -e "$tree/OpcUaServer/node_modules" ]; then
        ln -s "$root/OpcUaServer/node_modules" "$tree/OpcUaServer/node_modules"
    fi
}

# One worker: its copy of the tree, its build, then files from the queue until it is empty.
worker() {
    local id=$1
    local tree=$work/tree-$id build=$work/build-$id log=$run/worker-$id.log
    local make_jobs=$(( jobs >= 2 ? 1 : 2 )) group=""
    : >"$log"
    trap '[ -n "$group" ] && kill -KILL -- "-$group" 2>/dev/null; exit 143' TERM

    build_target() { cmake --build "$build" --target "$@" -j"$make_jobs" >>"$log" 2>&1; }

    # Runs a command under the time limit in a process group of its own, and ends what of that group
    # outlives it (the servers of a test that crashed). `group` lets an interruption end it too.
    bounded() {
        (cd "$1" && shift && exec timeout --kill-after=10 "$limit" "$@") >>"$log" 2>&1 &
        group=$!
        { wait "$group"; } 2>>"$log"
        local status=$?
        kill -KILL -- "-$group" 2>/dev/null
        group=""
        return "$status"
    }

    # Runs a test program, with a gtest filter when given; fails when a test fails, crashes or
    # outlives the time limit.
    run_tests() {
        local stop=--gtest_fail_fast
        [ -n "$matrix" ] && stop=--gtest_fail_fast=0
        bounded "$build/tests" "$build/bin/$1" "$stop" --gtest_brief=1 ${2:+"--gtest_filter=$2"} || { echo "$1 failed" >>"$log.failed"; return 1; }
    }

    # The front's end-to-end tests against the whole tree rebuilt (an earlier fault's programs must
    # not linger), as ctest runs them. Without node or the npm packages they cannot run: an error.
    node_tests() {
        command -v node >/dev/null && [ -d "$tree/OpcUaServer/node_modules/node-opcua" ] || { echo "no node or no npm packages" >>"$log"; return 2; }
        cmake --build "$build" -j"$make_jobs" >>"$log" 2>&1 || return 2
        bounded "$tree/OpcUaServer" env ZUN_BIN_DIR="$build/bin" ZUN_TEST_TIME_SCALE=1 node --test test/ || { echo "OpcUaServer failed" >>"$log.failed"; return 1; }
    }

    # 0: the tests pass; 1: they fail; 2: the tree does not build (or, for the front, cannot run).
    test_tree() {
        case ${1-} in *.js) node_tests; return ;; esac
        if [ -n "$matrix" ]; then
            local failed=0
            build_target ZunUnitTests ZunIntegrationTests || return 2
            run_tests ZunUnitTests || failed=1
            run_tests ZunIntegrationTests || failed=1
            replay_corpora || failed=$(( $? == 2 ? 2 : 1 ))
            node_tests || failed=$(( $? == 2 ? 2 : 1 ))
            return "$failed"
        fi
        local first
        first=$(hint "${1-}")
        build_target ZunUnitTests || return 2
        run_tests ZunUnitTests || return 1
        build_target ZunIntegrationTests || return 2
        if [ -n "$first" ]; then
            run_tests ZunIntegrationTests "$first" || return 1
            run_tests ZunIntegrationTests "-$first" || return 1
        else
            run_tests ZunIntegrationTests || return 1
        fi
        replay_corpora
    }

    # The fuzz targets' replays of their committed corpora, as ctest runs them (label fuzz).
    replay_corpora() {
        cmake --build "$build" -j"$make_jobs" >>"$log" 2>&1 || return 2
        bounded "$build" ctest -L fuzz --stop-on-failure --output-on-failure || { echo "fuzz replay failed" >>"$log.failed"; return 1; }
    }

    sync_tree "$tree" >>"$log" 2>&1 || { echo "fail" >"$run/baseline-$id"; echo "mutants: copying the tree to $tree failed, see $log" >&2; return; }
    # Configured at every run: a cache from an older script keeps no stale option.
    cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Mutants -DCMAKE_CXX_FLAGS_MUTANTS="-O1 -DNDEBUG" \
        -DCMAKE_EXE_LINKER_FLAGS="$linker" -DCMAKE_SHARED_LINKER_FLAGS="$linker" -DCMAKE_MODULE_LINKER_FLAGS="$linker" \
        -DCMAKE_LINK_DEPENDS_NO_SHARED=ON -DZUN_BUILD_TESTS=ON -DZUN_BUILD_SERVICES=ON -DZUN_BUILD_FUZZERS=ON >>"$log" 2>&1
    if ! cmake --build "$build" -j"$make_jobs" >>"$log" 2>&1; then
        echo "fail" >"$run/baseline-$id"; echo "mutants: the unchanged tree does not build, see $log" >&2; return
    fi

    # The unchanged suite first, shared out: the first worker runs the C++ tests, the last one the front's.
    if [ "$baseline" = 1 ]; then
        local result=0
        if [ "$id" = 1 ]; then
            test_tree || result=$?
        fi
        if [ "$result" = 0 ] && [ "$id" = "$jobs" ] && [ "$has_js" = 1 ]; then
            test_tree front.js || result=$?
        fi
        if [ "$result" = 0 ]; then
            echo "ok" >"$run/baseline-$id"
        else
            echo "fail" >"$run/baseline-$id"; echo "mutants: the unchanged tree fails already, see $log" >&2
        fi
    else
        echo "ok" >"$run/baseline-$id"
    fi
    local other
    for other in $(seq "$jobs"); do
        while [ ! -f "$run/baseline-$other" ]; do sleep 1; done
        grep -q '^ok' "$run/baseline-$other" || return
    done
    if [ "$baseline" = 1 ] && [ "$id" = 1 ]; then
        echo "baseline: the unchanged tree builds and passes ($(elapsed "$start"))"
    fi

    local entry entry_name number line begun result name
    for entry in "$run"/queue/*; do
        [ -f "$entry" ] || continue
        entry_name=$(basename "$entry")
        mkdir "$run/claims/$entry_name" 2>/dev/null || continue
        while read -r number line; do
            parse "$line"
            name="$file: $what"
            begun=$(date +%s)
            : >"$log"
            : >"$log.failed"
            cp "$tree/$file" "$run/original-$id"
            if ! edit plant "$tree/$file" "$original" "$replacement"; then
                cp "$run/original-$id" "$tree/$file"
                echo "ERROR   $name (cannot plant)"; echo error >>"$run/results-$id"; continue
            fi
            test_tree "$file"
            result=$?
            # A plain copy gives the file a new time, so the next build compiles the original again.
            cp "$run/original-$id" "$tree/$file"
            if [ -n "$matrix" ]; then
                # The failed tests by name; a program that failed without naming one crashed or hung.
                printf '%s\t%s\t%s\n' "$number" "$what" "$( { grep -ohE '^\[  FAILED  \] [A-Za-z_][^ ]*' "$log" | cut -c14-
                    grep -ohE '^ *not ok [0-9]+ - .*' "$log" | sed -E 's/^ *not ok [0-9]+ - /node: /' | grep -v '\.js$'
                    cat "$log.failed"; } | sort -u | paste -sd'|' - | sed 's/|/ | /g')" >>"$run/matrix-$id"
            fi
            case $result in
                1) echo "caught  $name ($(elapsed "$begun"))"; echo caught >>"$run/results-$id" ;;
                0) echo "MISSED  $name ($(elapsed "$begun"))"; echo missed >>"$run/results-$id" ;;
                *) echo "ERROR   $name (does not build or cannot run)"; echo error >>"$run/results-$id"
                   cp "$log" "$run/error-$number.log" ;;
            esac
        done <"$entry"
    done
}

# lld links the copies fastest; gold is the fallback.
if command -v ld.lld >/dev/null; then linker=-fuse-ld=lld; else linker=-fuse-ld=gold; fi

start=$(date +%s)
# Each worker in a process group of its own, so that an interruption ends it with all it started.
set -m
pids=()
for id in $(seq "$jobs"); do
    worker "$id" &
    pids+=("$!")
done
set +m
trap 'for pid in "${pids[@]}"; do kill -TERM -- "-$pid" 2>/dev/null; done; wait; echo; echo "mutants: interrupted" >&2; exit 130' INT TERM
wait
trap - INT TERM

for id in $(seq "$jobs"); do
    grep -q '^ok' "$run/baseline-$id" 2>/dev/null || exit 2
done
if [ -n "$matrix" ]; then
    cat "$run"/matrix-* 2>/dev/null | sort -n | cut -f2- >"$matrix"
fi
caught=$(cat "$run"/results-* 2>/dev/null | grep -c '^caught')
missed=$(cat "$run"/results-* 2>/dev/null | grep -c '^missed')
errors=$((errors + $(cat "$run"/results-* 2>/dev/null | grep -c '^error')))
[ "$errors" -gt 0 ] && echo "mutants: $errors list errors"
echo "time: $(elapsed "$start")"
echo "mutants: $caught caught, $missed missed"
[ "$missed" = 0 ] && [ "$errors" = 0 ]
