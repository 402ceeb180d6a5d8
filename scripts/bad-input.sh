#!/usr/bin/env bash
# Bad input at every boundary of the running services, from a seeded generator (scripts/bad-input.js):
# names too long, with NUL or ill-formed UTF-8 (local API, zun-update), hostile packages (path
# escapes, links, devices, a compression bomb, wrong manifests, bad signatures), broken frames on the
# update service's and the software manager's sockets, and OPC UA calls with wrong argument types or
# too many bytes (when OpcUaServer's npm packages are installed). Each case must be refused with a
# clear error within a bound scaled by ZUN_TEST_TIME_SCALE, leave the processes up and answering, and
# change nothing on disk or in the store. The last line is "bad-input: N cases, M failures".
#   bash scripts/bad-input.sh [--seed S] [--build-dir DIR] [--keep]
#     --seed S          the generator's seed (default: from the clock; printed first)
#     --build-dir DIR   build folder holding bin/ (default build/default)
#     --keep            keep the temporary state folder (kept anyway when a case fails)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/default
pass=()
while [ $# -gt 0 ]; do
  case "$1" in
    --seed) pass+=(--seed "${2:?--seed needs a number}"); shift ;;
    --build-dir) build=${2:?--build-dir needs a folder}; shift ;;
    --keep) pass+=(--keep) ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) echo "bad-input.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done
command -v node >/dev/null || { echo "bad-input.sh: needs node (Node.js 20)" >&2; exit 2; }
for program in zun-software-manager zun-update-service zun-update; do
  [ -x "$build/bin/$program" ] || { echo "bad-input.sh: no $build/bin/$program; build first" >&2; exit 2; }
done
exec node "$root/scripts/bad-input.js" --bin "$build/bin" "${pass[@]}"
