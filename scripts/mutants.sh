#!/usr/bin/env bash
# Plants the faults listed in scripts/mutants.txt one at a time, rebuilds what the fault touches,
# runs the tests and tells whether they caught it. The file is always restored, also on Ctrl-C.
#
#   scripts/mutants.sh                      every fault, after a run of the unchanged suite
#   scripts/mutants.sh --only 'Queries|notification'   faults whose line matches (extended regex)
#
# Options: --only REGEX, --list FILE, --build-dir DIR (default build/default, configured with the
# default preset when missing), --timeout SECONDS (per test program, default 300), --skip-baseline,
# --check (only check that every original is found once; builds nothing).
#
# A list line is: file @@ original text @@ replacement @@ what the fault breaks. Runs of blanks in
# the original match any run of white space in the file, so an original may span lines; it must be
# found exactly once. A fault that is not found once, or does not build, is an error of the list.
# The unit tests run first and stop at their first failure; the integration tests run only when the
# unit tests pass. A fault in the OPC UA front (a .js file) runs the front's end-to-end tests instead.
# Not part of CI: the whole list takes about half an hour on 2 cores.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
list=$root/scripts/mutants.txt
build=$root/build/default
only=""
limit=300
baseline=1
check=0

usage() { sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; }
while [ $# -gt 0 ]; do
    case $1 in
        --only) only=$2; shift 2 ;;
        --list) list=$2; shift 2 ;;
        --build-dir) build=$2; shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        --skip-baseline) baseline=0; shift ;;
        --check) check=1; baseline=0; shift ;;
        -h|--help) usage; exit 0 ;;
        *) echo "mutants: unknown argument $1" >&2; usage >&2; exit 2 ;;
    esac
done
[ -f "$list" ] || { echo "mutants: no list $list" >&2; exit 2; }
# The tests run from inside the build folder.
build=$(realpath -m -- "$build")

state=$build/mutants
log=$state/last.log
mkdir -p "$state"

# The planted file's original, kept until it is back in place.
restore() {
    if [ -f "$state/path" ]; then
        local target
        target=$(cat "$state/path")
        # A plain copy gives the file a new time, so the next build compiles the original again.
        cp "$state/original" "$target" && rm -f "$state/path" "$state/original"
    fi
}
trap restore EXIT
trap 'restore; echo; echo "mutants: interrupted" >&2; exit 130' INT TERM
if [ -f "$state/path" ]; then
    echo "mutants: restoring $(cat "$state/path") left planted by an earlier run"
    restore
fi

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

build_target() {
    cmake --build "$build" --target "$1" -j2 >>"$log" 2>&1
}

# Runs one test program; fails when any test fails, crashes or outlives the time limit.
run_tests() {
    # The trailing exit keeps a program killed by a signal from being reported on the terminal.
    (cd "$build/tests" && timeout --kill-after=10 "$limit" "$build/bin/$1" --gtest_fail_fast --gtest_brief=1; exit $?) >>"$log" 2>&1
}

has_integration() { grep -q 'ZunIntegrationTests' "$build/build.ninja" 2>/dev/null; }

# The OPC UA front's end-to-end tests, through ctest, against the whole tree rebuilt (an earlier
# fault's daemon must not linger). A skip (no node, no npm packages) is an error of the run.
node_tests() {
    cmake --build "$build" -j2 >>"$log" 2>&1 || return 2
    (cd "$build" && timeout --kill-after=10 "$limit" ctest -R '^OpcUaServer$' --output-on-failure; exit $?) >>"$log" 2>&1 || return 1
    if grep -q '\*\*\*Skipped' "$log"; then return 2; fi
    return 0
}

# 0: the tests pass; 1: they fail; 2: the tree does not build (or, for the front, cannot run).
test_tree() {
    case ${1-} in *.js) node_tests; return ;; esac
    build_target ZunUnitTests || return 2
    run_tests ZunUnitTests || return 1
    if has_integration; then
        build_target ZunIntegrationTests || return 2
        run_tests ZunIntegrationTests || return 1
    fi
    return 0
}

elapsed() { local s=$(( $(date +%s) - $1 )); if [ $s -ge 60 ]; then echo "$((s / 60))m$((s % 60))s"; else echo "${s}s"; fi; }

if [ "$check" = 0 ] && [ ! -f "$build/build.ninja" ]; then
    (cd "$root" && cmake --preset default) >"$log" 2>&1 || { echo "mutants: configuring failed, see $log" >&2; exit 2; }
fi

start=$(date +%s)
if [ "$baseline" = 1 ]; then
    : >"$log"
    result=0
    test_tree || result=$?
    # The front's tests too when a chosen fault lies in it.
    if [ "$result" = 0 ] && grep -v '^#' "$list" | grep -E -- "${only:-.}" | grep -q '^[^@]*\.js '; then
        test_tree front.js || result=$?
    fi
    case $result in
        0) echo "baseline: the unchanged tree builds and passes ($(elapsed "$start"))" ;;
        *) echo "mutants: the unchanged tree fails already, see $log" >&2; exit 2 ;;
    esac
fi

caught=0
missed=0
errors=0
number=0
while IFS= read -r line || [ -n "$line" ]; do
    case $line in ''|'#'*) continue ;; esac
    [ -n "$only" ] && ! grep -Eq -- "$only" <<<"$line" && continue
    number=$((number + 1))
    IFS=$'\x1f' read -r -d '' file original replacement what < <(perl -e '
        my @f = map { s/^\s+|\s+$//gr } split(/@@/, $ARGV[0], -1);
        print join("\x1f", @f), "\0" if @f == 4;' -- "$line")
    if [ -z "${what:-}" ] || [ -z "$file" ] || [ -z "$original" ]; then
        echo "ERROR   list line is not 'file @@ original @@ replacement @@ what': $line"
        errors=$((errors + 1)); file="" original="" replacement="" what=""
        continue
    fi
    name="$file: $what"
    if [ ! -f "$root/$file" ]; then
        echo "ERROR   $name (no such file)"; errors=$((errors + 1)); continue
    fi
    found=$(edit count "$root/$file" "$original")
    if [ "$found" != 1 ]; then
        echo "ERROR   $name (original found $found times)"; errors=$((errors + 1)); continue
    fi

    if [ "$check" = 1 ]; then
        continue
    fi
    begun=$(date +%s)
    : >"$log"
    cp -p "$root/$file" "$state/original" && echo "$root/$file" >"$state/path"
    if ! edit plant "$root/$file" "$original" "$replacement"; then
        restore; echo "ERROR   $name (cannot plant)"; errors=$((errors + 1)); continue
    fi
    test_tree "$file"
    result=$?
    restore
    case $result in
        1) echo "caught  $name ($(elapsed "$begun"))"; caught=$((caught + 1)) ;;
        0) echo "MISSED  $name ($(elapsed "$begun"))"; missed=$((missed + 1)) ;;
        *) echo "ERROR   $name (does not build or cannot run)"; errors=$((errors + 1)); cp "$log" "$state/error-$number.log" ;;
    esac
    file="" original="" replacement="" what=""
done <"$list"

[ "$errors" -gt 0 ] && echo "mutants: $errors list errors"
if [ "$check" = 1 ]; then
    echo "mutants: $number faults checked, $errors list errors"
    [ "$errors" = 0 ]
    exit
fi
echo "time: $(elapsed "$start")"
echo "mutants: $caught caught, $missed missed"
[ "$missed" = 0 ] && [ "$errors" = 0 ]
