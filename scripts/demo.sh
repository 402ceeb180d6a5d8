#!/usr/bin/env bash
# The main job, end to end in one command: builds what is missing, starts the software manager with
# its sample state in a temporary folder, lists the components and their versions, stages and
# installs a generic-files package with progress, then installs an engineer project while the update
# service is stopped (as a controller restart would stop it) and shows the security notification
# that the next start announces, the versions after, and stops the software manager. On the way, a
# package signed with a publisher key of its own is staged once the key is in the manager's keyring,
# and a changed copy and a copy signed by an unknown key are refused with their reasons.
#   bash scripts/demo.sh [--keep] [--phase-delay-ms N]
#     --keep               keep the temporary state folder (its path is printed)
#     --phase-delay-ms N   how long each installation phase of the software manager lasts (default 1000)
#   ZUN_BUILD_DIR        build folder to use (default build/default, configured with the "default" preset)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZUN_BUILD_DIR:-$root/build/default}
keep=0
delay=1000
while [ $# -gt 0 ]; do
  case "$1" in
    --keep) keep=1 ;;
    --phase-delay-ms) delay=${2:?--phase-delay-ms needs a number}; shift ;;
    -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
    *) echo "demo.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done
case "$delay" in ''|*[!0-9]*) echo "demo.sh: --phase-delay-ms needs a number" >&2; exit 2 ;; esac

if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; else bold= plain=; fi
step() { printf '\n%s==> %s%s\n' "$bold" "$*" "$plain"; }
show() {
  local shown=() argument
  for argument in "$@"; do
    if [[ $argument == *" "* ]]; then shown+=("\"$argument\""); else shown+=("$argument"); fi
  done
  printf '$ %s\n' "${shown[*]}"
}
update() { show zun-update "$@"; "$build/bin/zun-update" "$@"; }

step "Install what is missing, then build (only what is missing)"
bash "$root/scripts/install-deps.sh"
if [ ! -f "$build/build.ninja" ]; then
  if [ "$build" = "$root/build/default" ]; then
    (cd "$root" && cmake --preset default)
  else
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
  fi
fi
cmake --build "$build" -j2 --target zun-update zun-software-manager ZunSoftwareUpdater

work=$(mktemp -d "${TMPDIR:-/tmp}/zun-demo-XXXXXX")
manager_pid=
cleanup() {
  if [ -n "$manager_pid" ] && kill -0 "$manager_pid" 2>/dev/null; then
    kill -TERM "$manager_pid" 2>/dev/null || true
    wait "$manager_pid" 2>/dev/null || true
  fi
  if [ "$keep" = 1 ]; then echo "State kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
# Both services keep their state below XDG_STATE_HOME: the demo uses their default paths.
export XDG_STATE_HOME=$work/state
unset ZUN_SOFTWARE_MANAGER_SOCKET
socket=$XDG_STATE_HOME/zun-software-manager/run/software-manager.sock
files="Generic files / Sample files"
project="Tesmora Engineer project / Sample project"
uri="https://example.com/zun"

step "Start the software manager with its sample state (each installation phase takes ${delay} ms)"
show zun-software-manager --phase-delay-ms "$delay" "&"
"$build/bin/zun-software-manager" --phase-delay-ms "$delay" 2>"$work/software-manager.log" &
manager_pid=$!
for _ in $(seq 1 200); do
  [ -S "$socket" ] && break
  kill -0 "$manager_pid" 2>/dev/null || { cat "$work/software-manager.log" >&2; exit 1; }
  sleep 0.05
done
[ -S "$socket" ] || { echo "demo.sh: the software manager did not come up" >&2; cat "$work/software-manager.log" >&2; exit 1; }
cat "$work/software-manager.log"
echo "Packages waiting in its incoming folder:"
ls "$XDG_STATE_HOME/zun-software-manager/incoming"

step "Components and their versions"
update list
update versions "$files"
update versions "$project"

step "Stage the generic-files package and install it, following the progress"
update stage "$files" sample-files-1.1.0.tar
update behavior "$files" --revision 1.1.0 --uri "$uri"
update install "$files" --revision 1.1.0 --uri "$uri" --wait

step "Only signed packages: a publisher key, a package signed with it, a changed copy and one signed by an unknown key"
manager() { show zun-software-manager "$@"; "$build/bin/zun-software-manager" "$@"; }
keys=$work/keys
keyring=$XDG_STATE_HOME/zun-software-manager/keyring
incoming=$XDG_STATE_HOME/zun-software-manager/incoming
mkdir -p "$keys" "$work/payload"
manager keygen --private "$keys/publisher.pem" --public "$keys/publisher.pub.pem"
manager keygen --private "$keys/stranger.pem" --public "$keys/stranger.pub.pem"
echo "The manager reads its keyring at every staging: trusting the publisher needs no restart."
show cp "$keys/publisher.pub.pem" "$keyring/"
cp "$keys/publisher.pub.pem" "$keyring/"
echo "Sample files 1.2.0" >"$work/payload/readme.txt"
printf '{"version": "1.2.0", "manufacturer": "Zun sample manufacturer", "manufacturerUri": "%s", "releaseDate": "2026-11-20T08:00:00Z"}\n' \
  "$uri" >"$work/manifest.json"
for signer in publisher stranger; do
  manager pack --manifest "$work/manifest.json" --payload "$work/payload" -o "$incoming/files-1.2.0-$signer.tar" --key "$keys/$signer.pem"
done
echo "files-1.2.0-changed.tar: the publisher's package with its payload changed after signing"
perl -pe 's/Sample files 1.2.0/Sample files 6.6.6/' "$incoming/files-1.2.0-publisher.tar" >"$incoming/files-1.2.0-changed.tar"
manager verify "$incoming/files-1.2.0-changed.tar" --keyring "$keyring" || true
update stage "$files" files-1.2.0-changed.tar || true
update stage "$files" files-1.2.0-stranger.tar || true
update stage "$files" files-1.2.0-publisher.tar
update versions "$files"

step "Install the engineer project while the update service is stopped"
update stage "$project" sample-project-1.1.0.tar
update install "$project" --revision 1.1.0 --uri "$uri"
echo "The update service has stopped; the software manager goes on installing alone..."
sleep $(( (3 * delay + 999) / 1000 + 1 ))

step "The next start of the update service settles the installation and announces it"
update list

step "The audit log of security notifications"
update notifications

step "Versions after"
update versions "$files"
update versions "$project"

step "Stop the software manager"
show kill -TERM "$manager_pid"
kill -TERM "$manager_pid"
wait "$manager_pid" || true
manager_pid=
echo "Done."
