#!/usr/bin/env bash
# The main job, end to end in one command: builds what is missing, starts the software manager with
# its sample state and the update service in a temporary folder, lists the components and their
# versions, sends a generic-files package to the update service and installs it with progress, then
# installs an engineer project and stops the update service while it runs (as a controller restart
# would), starts it again and shows the security notification that the restart announces, the
# versions after, and stops both services. Every step is a `zun-update` command. On the way, a
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
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
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
cmake --build "$build" -j2 --target zun-update zun-update-service zun-software-manager ZunSoftwareUpdater

work=$(mktemp -d "${TMPDIR:-/tmp}/zun-demo-XXXXXX")
manager_pid=
service_pid=
stop() {
  local pid=$1
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
}
cleanup() {
  stop "$service_pid"
  stop "$manager_pid"
  if [ "$keep" = 1 ]; then echo "State kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
# Every path below the temporary folder: nothing of an installed service is touched.
manager_socket=$work/software-manager.sock
export ZUN_UPDATE_SOCKET=$work/update-service.sock
files="Generic files / Sample files"
project="Tesmora Engineer project / Sample project"
uri="https://example.com/zun"

wait_for_socket() {
  local socket=$1 pid=$2 log=$3
  for _ in $(seq 1 400); do
    [ -S "$socket" ] && return 0
    kill -0 "$pid" 2>/dev/null || { cat "$log" >&2; exit 1; }
    sleep 0.05
  done
  echo "demo.sh: $socket did not appear" >&2; cat "$log" >&2; exit 1
}

start_service() {
  show zun-update-service --state-dir "$work/update-service" --socket "$ZUN_UPDATE_SOCKET" --manager-socket "$manager_socket" "&"
  "$build/bin/zun-update-service" --state-dir "$work/update-service" --socket "$ZUN_UPDATE_SOCKET" \
    --manager-socket "$manager_socket" 2>>"$work/update-service.log" &
  service_pid=$!
  wait_for_socket "$ZUN_UPDATE_SOCKET" "$service_pid" "$work/update-service.log"
}

step "Start the software manager with its sample state (each installation phase takes ${delay} ms)"
show zun-software-manager --state-dir "$work/manager" --socket "$manager_socket" --phase-delay-ms "$delay" "&"
"$build/bin/zun-software-manager" --state-dir "$work/manager" --socket "$manager_socket" --phase-delay-ms "$delay" \
  2>"$work/software-manager.log" &
manager_pid=$!
wait_for_socket "$manager_socket" "$manager_pid" "$work/software-manager.log"
cat "$work/software-manager.log"
# The packages as a user would have them: files of their own, sent to the update service as bytes.
mkdir "$work/packages"
mv "$work/manager/incoming/"*.tar "$work/packages/"
echo "Packages to send: $(cd "$work/packages" && echo *.tar)"

step "Start the update service (its socket: \$ZUN_UPDATE_SOCKET=$ZUN_UPDATE_SOCKET)"
start_service

step "Components and their versions"
update list
update versions "$files"
update versions "$project"

step "Send the generic-files package to the update service, stage it and install it, following the progress"
update stage "$files" "$work/packages/sample-files-1.1.0.tar"
update behavior "$files" --revision 1.1.0 --uri "$uri"
update install "$files" --revision 1.1.0 --uri "$uri" --wait

step "Only signed packages: a publisher key, a package signed with it, a changed copy and one signed by an unknown key"
manager() { show zun-software-manager "$@"; "$build/bin/zun-software-manager" "$@"; }
keys=$work/keys
keyring=$work/manager/keyring
packages=$work/packages
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
  manager pack --manifest "$work/manifest.json" --payload "$work/payload" -o "$packages/files-1.2.0-$signer.tar" --key "$keys/$signer.pem"
done
echo "files-1.2.0-changed.tar: the publisher's package with its payload changed after signing"
perl -pe 's/Sample files 1.2.0/Sample files 6.6.6/' "$packages/files-1.2.0-publisher.tar" >"$packages/files-1.2.0-changed.tar"
manager verify "$packages/files-1.2.0-changed.tar" --keyring "$keyring" || true
update stage "$files" "$packages/files-1.2.0-changed.tar" || true
update stage "$files" "$packages/files-1.2.0-stranger.tar" || true
update stage "$files" "$packages/files-1.2.0-publisher.tar"
update versions "$files"

step "Install the engineer project, then stop the update service while it runs (as a controller restart would)"
update stage "$project" "$packages/sample-project-1.1.0.tar"
update install "$project" --revision 1.1.0 --uri "$uri"
show kill -TERM "$service_pid"
stop "$service_pid"
service_pid=
echo "The update service has stopped; the software manager goes on installing alone..."
sleep $(( (3 * delay + 999) / 1000 + 1 ))

step "The update service starts again, settles the installation and announces it"
start_service
update list

step "The audit log of security notifications"
update notifications

step "Versions after"
update versions "$files"
update versions "$project"

step "Stop the update service and the software manager"
show kill -TERM "$service_pid" "$manager_pid"
stop "$service_pid"
service_pid=
stop "$manager_pid"
manager_pid=
echo "Done."
