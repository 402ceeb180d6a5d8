#!/usr/bin/env bash
# The whole device on this PC in one command: builds what is missing, then starts the software
# manager (with two sample components and their 1.1.0 packages), the update service and the OPC UA
# server, prints the endpoint and a user to log in with, and runs until Ctrl-C.
#   bash scripts/device.sh [--state-dir DIR] [--port N] [--security-none]
#     --state-dir DIR    where the three services keep their state (default: a new temporary folder)
#     --port N           the OPC UA port (default 4840)
#     --security-none    also offer an endpoint without security (for clients that cannot sign)
#   ZUN_BUILD_DIR        build folder to use (default build/default, configured with the "default" preset)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ZUN_BUILD_DIR:-$root/build/default}
state=
port=4840
extra=()
while [ $# -gt 0 ]; do
  case "$1" in
    --state-dir) state=${2:?--state-dir needs a folder}; shift ;;
    --port) port=${2:?--port needs a number}; shift ;;
    --security-none) extra+=(--security-none) ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) echo "device.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done

bash "$root/scripts/install-deps.sh" >/dev/null
if [ ! -f "$build/build.ninja" ]; then
  if [ "$build" = "$root/build/default" ]; then
    (cd "$root" && cmake --preset default >/dev/null)
  else
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
fi
cmake --build "$build" -j2 --target zun-software-manager zun-update-service ZunSoftwareUpdater >/dev/null

if [ -z "$state" ]; then
  state=$(mktemp -d "${TMPDIR:-/tmp}/zun-device-XXXXXX")
fi
mkdir -p "$state"
state=$(cd "$state" && pwd)
manager_socket=$state/software-manager.sock
service_socket=$state/update-service.sock

pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  echo "Stopped. State and logs are in $state"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

wait_for_socket() {
  local socket=$1 pid=$2 log=$3
  for _ in $(seq 1 400); do
    [ -S "$socket" ] && return 0
    kill -0 "$pid" 2>/dev/null || { cat "$log" >&2; exit 1; }
    sleep 0.05
  done
  echo "device.sh: $socket did not appear" >&2; cat "$log" >&2; exit 1
}

"$build/bin/zun-software-manager" --state-dir "$state/manager" --socket "$manager_socket" --phase-delay-ms 1000 \
  2>"$state/software-manager.log" &
pids+=($!)
wait_for_socket "$manager_socket" "$!" "$state/software-manager.log"

"$build/bin/zun-update-service" --state-dir "$state/update-service" --socket "$service_socket" \
  --manager-socket "$manager_socket" 2>"$state/update-service.log" &
pids+=($!)
wait_for_socket "$service_socket" "$!" "$state/update-service.log"

password=$(head -c 12 /dev/urandom | base64 | tr -d '/+=')
printf '%s\n' "$password" | node "$root/OpcUaServer/src/main.js" add-user admin --role ConfigureAdmin \
  --users "$state/opcua/users.json" >/dev/null

node "$root/OpcUaServer/src/main.js" --state-dir "$state/opcua" --update-service-socket "$service_socket" \
  --port "$port" --accept-unknown-clients "${extra[@]}" >"$state/opcua-server.log" 2>&1 &
pids+=($!)
opcua=$!
until grep -q "listening on" "$state/opcua-server.log"; do
  kill -0 "$opcua" 2>/dev/null || { cat "$state/opcua-server.log" >&2; exit 1; }
  sleep 0.2
done

cat <<EOF

The device runs. Connect any OPC UA client to

    opc.tcp://$(hostname):$port    (or opc.tcp://localhost:$port)
    security: Basic256Sha256, Sign or SignAndEncrypt$([ "${#extra[@]}" -gt 0 ] && echo ", or None")
    user:     admin   password: $password   (role ConfigureAdmin; anonymous users may browse and read)

Objects > DeviceSet > Controller holds the components. Packages to transfer:
$(ls "$state/manager/incoming" | sed "s|^|    $state/manager/incoming/|")

Logs: $state/*.log. Ctrl-C stops the device.
EOF
wait "$opcua"
