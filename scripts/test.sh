#!/usr/bin/env bash
# The project's test command, as CI runs it (.ci/run): installs what is missing, then builds and tests
# every configuration and runs the static analysis.
#   bash scripts/test.sh            default, asan, tsan and armhf (under qemu) builds with their
#                                   tests (fuzz corpus replay included; the default build also runs
#                                   scripts/bad-input.sh and short soak rounds of kills and a full
#                                   disk, the tsan build the soak's load), the Debian package, then
#                                   clang-tidy
#   bash scripts/test.sh --quick    the default build and its tests only
#   bash scripts/test.sh --only STAGE[,STAGE...]   stages: deps default package asan tsan armhf tidy
# deps also installs the OPC UA server's npm packages (npm ci), whose end-to-end tests run in ctest.
# Exits non-zero when any stage fails; every stage runs and a summary with timings closes the output.
set -uo pipefail
cd "$(dirname "$0")/.."

stages=(deps default package asan tsan armhf tidy)
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) stages=(deps default) ;;
    --only) IFS=, read -r -a stages <<<"${2:?--only needs a list of stages}"; shift ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "test.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done

jobs=2
export CTEST_OUTPUT_ON_FAILURE=1
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export LSAN_OPTIONS="report_objects=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# Warnings fail the CI builds; a developer's own preset builds only report them.
strict=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)

declare -a summary=()
failed=0
log_dir=build/ci-logs
mkdir -p "$log_dir"

run_stage() {
  local name=$1; shift
  local start=$SECONDS status
  echo
  echo "=== [$name] $(date +%H:%M:%S) ==="
  "$@" 2>&1 | tee "$log_dir/$name.log"
  status=${PIPESTATUS[0]}
  local took=$(( SECONDS - start ))
  if [ "$status" -eq 0 ]; then
    summary+=("$(printf '  %-8s ok      %3dm%02ds' "$name" $((took / 60)) $((took % 60)))")
  else
    summary+=("$(printf '  %-8s FAILED  %3dm%02ds  (log: %s/%s.log)' "$name" $((took / 60)) $((took % 60)) "$log_dir" "$name")")
    failed=1
  fi
  return "$status"
}

deps() {
  local want_armhf=0 s
  for s in "${stages[@]}"; do [ "$s" = armhf ] && want_armhf=1; done
  if [ "$want_armhf" = 1 ]; then bash scripts/install-deps.sh --armhf; else bash scripts/install-deps.sh; fi
}

# configure, build and test one preset
preset() {
  local name=$1; shift
  cmake --preset "$name" "${strict[@]}" "$@" &&
    cmake --build --preset "$name" -j "$jobs" &&
    ctest --preset "$name" -j "$jobs"
}

default() {
  local extra=()
  # One build-only check that the benchmarks still compile; they are not run here.
  [ -f bench/CMakeLists.txt ] && extra+=(-DZUN_BUILD_BENCHMARKS=ON)
  preset default "${extra[@]}" &&
    # Bad input at every boundary of the running services, with a fixed seed so that CI's cases repeat.
    bash scripts/bad-input.sh --seed 20261125 --build-dir build/default &&
    # Short fixed-seed soak rounds: kill -9 cycles (a seed whose 36 cycles hold every kind of fault and
    # victim), then a full disk (skipped where a tmpfs cannot be mounted).
    bash scripts/soak.sh --part kills --cycles 36 --seed 20261142 --build-dir build/default &&
    bash scripts/soak.sh --part disk --build-dir build/default
}

# The Debian package of the default build, checked file by file and run from its unpacked tree.
package() {
  local packages=build/default/packages deb
  [ -f build/default/build.ninja ] || cmake --preset default "${strict[@]}" >/dev/null || return 1
  cmake --build --preset default -j "$jobs" >/dev/null || return 1
  rm -rf "$packages"
  cpack --config build/default/CPackConfig.cmake -B "$packages" || return 1
  deb=$(ls "$packages"/*.deb) || return 1
  bash scripts/check-package.sh "$deb"
}

asan() { preset asan; }
tsan() { preset tsan && soak_load; }

# The soak's load against the ThreadSanitizer build's services; a report of any of its processes
# fails the round, with the reports shown.
soak_load() {
  local reports=$PWD/build/tsan/soak-reports status
  rm -rf "$reports" && mkdir -p "$reports" || return 1
  TSAN_OPTIONS="second_deadlock_stack=1:exitcode=66:log_path=$reports/tsan" \
    ZUN_TEST_TIME_SCALE=$(sed -n 's/^ZUN_TEST_TIME_SCALE:STRING=//p' build/tsan/CMakeCache.txt) \
    bash scripts/soak.sh --part load --load-requests 300 --seed 20261125 --build-dir build/tsan
  status=$?
  if compgen -G "$reports/tsan.*" >/dev/null; then
    cat "$reports"/tsan.*
    echo "tsan: $(ls "$reports" | wc -l) ThreadSanitizer report file(s) from the soak's load"
    return 1
  fi
  echo "tsan: the soak's load gave no ThreadSanitizer report"
  return "$status"
}

# The services join the armhf build only when Debian supplies their libraries for armhf and the kernel
# can run armhf programs that the tests start (binfmt_misc with qemu).
armhf_services() {
  local p
  for p in libsqlite3-dev:armhf libarchive-dev:armhf libssl-dev:armhf; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || { echo "missing $p"; return 1; }
  done
  [ -e /proc/sys/fs/binfmt_misc/qemu-arm ] || { echo "no binfmt_misc entry for qemu-arm"; return 1; }
}

# SQLite for armhf where it does not install beside the native one (its libc-dev:armhf pulls in armhf
# packages of other versions than the native ones): the native version's .deb, fetched by apt and
# unpacked into the build folder. Its static library builds the status store and its tests alone.
armhf_sqlite() {
  local version dir out
  version=$(dpkg-query -W -f='${Version}' libsqlite3-dev 2>/dev/null) || { echo "no native libsqlite3-dev"; return 1; }
  dir=$PWD/build/armhf-deps/sqlite-$version
  if [ ! -f "$dir/usr/include/sqlite3.h" ]; then
    rm -rf "$dir" && mkdir -p "$dir" || return 1
    out=$(cd "$dir" && apt-get download -q "libsqlite3-dev:armhf=$version" 2>&1) &&
      dpkg-deb -x "$dir"/libsqlite3-dev_*_armhf.deb "$dir" ||
      { echo "apt-get download libsqlite3-dev:armhf=$version: $(tail -1 <<<"$out")"; return 1; }
  fi
  echo "-DSQLite3_INCLUDE_DIR=$dir/usr/include -DSQLite3_LIBRARY=$dir/usr/lib/arm-linux-gnueabihf/libsqlite3.a"
}

armhf() {
  local services=OFF reason store=(-DZUN_BUILD_STATUS_STORE=OFF) sqlite
  if reason=$(armhf_services); then services=ON; else
    echo "armhf: services not built ($reason)"
    if sqlite=$(armhf_sqlite); then
      read -r -a store <<<"-DZUN_BUILD_STATUS_STORE=ON $sqlite"
      echo "armhf: the status store is built and tested alone, with SQLite from libsqlite3-dev:armhf's .deb"
    else
      echo "armhf: the status store is not built either ($sqlite)"
    fi
  fi
  preset armhf -DZUN_BUILD_SERVICES=$services "${store[@]}" &&
    echo "armhf: $(file -b build/armhf/lib/libZun.Services.Modules.SoftwareUpdate.SoftwareUpdater.so | cut -d, -f1-3)"
}

tidy() {
  [ -f build/default/compile_commands.json ] || cmake --preset default "${strict[@]}" >/dev/null || return 1
  # Generated sources must exist before their users can be analysed.
  cmake --build --preset default -j "$jobs" >/dev/null || return 1
  # The project's own sources; the tests are covered by the compilers' warnings and the sanitizers.
  local files="^$PWD/(Platform|Transport|ServiceContracts|ModuleInterface|SoftwareUpdater|SoftwareManagerService|UpdateService|Testing/src|fuzz)/.*\\.cpp\$"
  local out
  out=$(run-clang-tidy-14 -p build/default -quiet -j "$jobs" "$files" 2>&1)
  local status=$?
  out=$(printf '%s\n' "$out" | sed 's/\x1b\[[0-9;]*m//g')
  # run-clang-tidy prints every command; keep the diagnostics.
  echo "$out" | grep -vE '^(clang-tidy-14|Running clang-tidy|\[[0-9]+/[0-9]+\] )' | grep -vE '^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$' |
    grep -vE '^(Suppressed [0-9]+ warnings|Use -header-filter|Enabled checks)' || true
  local count
  count=$(echo "$out" | grep -cE '(warning|error): .*\[[A-Za-z0-9.,-]+\]$' || true)
  echo "clang-tidy: $count finding(s)"
  [ "$status" -eq 0 ] && [ "$count" -eq 0 ]
}

total_start=$SECONDS
for stage in "${stages[@]}"; do
  case "$stage" in
    deps|default|package|asan|tsan|armhf|tidy) run_stage "$stage" "$stage" ;;
    *) echo "test.sh: unknown stage '$stage'" >&2; exit 2 ;;
  esac
  # Without its dependencies nothing else can run.
  if [ "$stage" = deps ] && [ "$failed" = 1 ]; then break; fi
done
total=$(( SECONDS - total_start ))

echo
echo "=== summary ==="
printf '%s\n' "${summary[@]}"
printf '  %-8s %s  %3dm%02ds\n' total "$([ "$failed" = 0 ] && echo 'ok    ' || echo 'FAILED')" $((total / 60)) $((total % 60))
exit "$failed"
