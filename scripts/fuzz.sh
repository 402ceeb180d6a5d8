#!/usr/bin/env bash
# Runs one fuzz target under libFuzzer (clang 14, AddressSanitizer and UBSan) for a number of seconds.
#   bash scripts/fuzz.sh TARGET [SECONDS] [extra libFuzzer options...]
#   TARGET: one of the list below   SECONDS: default 60, 0 for no limit (-runs=N stops after N executions)
# New interesting inputs go to build/fuzz/corpus/TARGET (not committed); crash inputs to
# build/fuzz/artifacts/. Replay one with: build/fuzz/bin/TARGET -runs=1 FILE
#   bash scripts/fuzz.sh TARGET merge
# adds to fuzz/corpus/TARGET the fewest inputs of build/fuzz/corpus/TARGET that reach the project's
# own code further than the corpus does (the fuzz-merge preset leaves fuzz/library-code.txt uncounted).
set -euo pipefail
cd "$(dirname "$0")/.."

target=${1:?usage: fuzz.sh TARGET [SECONDS] [libFuzzer options...]}
seconds=${2:-60}
shift $(( $# >= 2 ? 2 : 1 ))

targets=(FuzzComponentId FuzzRecords FuzzFrame FuzzMessageReader FuzzSignature FuzzPackage)
[[ " ${targets[*]} " == *" $target "* ]] || { echo "fuzz.sh: unknown target '$target' (${targets[*]})" >&2; exit 2; }
[[ "$seconds" =~ ^([0-9]+|merge)$ ]] || { echo "fuzz.sh: SECONDS must be a whole number or merge" >&2; exit 2; }

if ! command -v clang++-14 >/dev/null; then
  bash scripts/install-deps.sh
fi
# FuzzPackage extracts into a temporary folder: memory, not disk, where there is a tmpfs.
[ -d /dev/shm ] && export TMPDIR=${TMPDIR:-/dev/shm}
if [ "$seconds" = merge ]; then
  cmake --preset fuzz-merge >/dev/null
  cmake --build --preset fuzz-merge --target "$target"
  exec build/fuzz-merge/bin/"$target" -set_cover_merge=1 -use_counters=0 "$@" "fuzz/corpus/$target" "build/fuzz/corpus/$target"
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "$target"

work=build/fuzz/corpus/$target
artifacts=build/fuzz/artifacts/
mkdir -p "$work" "$artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
# The frame reader buffers 16 KiB: only longer streams reach its refill and the growth of a payload
# (24 KiB is enough for both; longer streams only cost time, mostly in the exceptions of many frames).
maxlen=8192
[ "$target" != FuzzFrame ] || maxlen=24576
# The first directory receives new inputs; the committed seeds are only read.
exec "build/fuzz/bin/$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts" \
  -max_len=$maxlen -timeout=10 -rss_limit_mb=2048 "$@" "$work" "fuzz/corpus/$target"
