#!/usr/bin/env bash
# Faults and load over many seeded random cycles against the running software manager and update
# service, in a temporary folder.
#   bash scripts/soak.sh [--cycles N] [--seed S] [--part kills|load|disk|all] [--build-dir DIR]
#                        [--load-requests N]
#   kills: each cycle stages a new version of a generic-files or engineer-project component, starts
#          its installation (by zun-update, or by a client that hangs up right after the request;
#          some made to fail in the manager with --fail-phase or --keep-version), kills -9 the
#          manager, the update service or both at a seeded moment, starts them again and checks:
#          the component on disk is wholly the old or the new version, the host's state agrees with
#          the manager's, a project installation is announced at most once and exactly when the
#          restart's first pass finds it ended (succeeded/failed as it really ended), the store
#          passes integrity_check, no spool or staging file is left.
#   load:  8 clients x --load-requests (default 10000) mixed requests while installations run, under
#          a watchdog; watchers' event numbers consecutive; the final state agrees with the manager.
#   disk:  spool and state folders on a small tmpfs that is filled: staging fails clearly, nothing
#          half-written remains.
# The last line is "soak: N cycles, M violations"; the exit status is 1 when M > 0. The waits' bounds
# grow with ZUN_TEST_TIME_SCALE (environment, default 1) for the services of sanitizer builds.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cycles=1000 seed=1 part=all build=${ZUN_BUILD_DIR:-$root/build/default} load_requests=10000
while [ $# -gt 0 ]; do
  case "$1" in
    --cycles) cycles=${2:?}; shift ;;
    --seed) seed=${2:?}; shift ;;
    --part) part=${2:?}; shift ;;
    --build-dir) build=${2:?}; shift ;;
    --load-requests) load_requests=${2:?}; shift ;;
    -h|--help) sed -n '2,19p' "$0"; exit 0 ;;
    *) echo "soak.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done
case "$part" in kills|load|disk|all) ;; *) echo "soak.sh: --part is kills, load, disk or all" >&2; exit 2 ;; esac
bin=$build/bin
for program in zun-software-manager zun-update-service zun-update; do
  [ -x "$bin/$program" ] || { echo "soak.sh: $bin/$program is missing: build first" >&2; exit 2; }
done
command -v sqlite3 >/dev/null || { echo "soak.sh: sqlite3 is missing (scripts/install-deps.sh)" >&2; exit 2; }

RANDOM=$seed
work=$(mktemp -d "${TMPDIR:-/tmp}/zun-soak-XXXXXX")
msock=$work/m.sock usock=$work/u.sock mdir=$work/manager udir=$work/service
export ZUN_UPDATE_SOCKET=$usock
manager_pid= service_pid= manager_args=() violations=0 done_cycles=0
files="Generic files / Sample files" project="Tesmora Engineer project / Sample project"
uri=https://example.com/zun delay=15
declare -A kinds=(["$files"]=generic-files ["$project"]=engineer-projects) hashes=() counts=()

cleanup() {
  for pid in $service_pid $manager_pid; do kill -9 "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  service_pid= manager_pid=
  if [ -n "${disk_mount:-}" ]; then cp -r "$disk_mount" "$work/disk-copy" 2>/dev/null; umount "$disk_mount" 2>/dev/null; fi
  if [ "$violations" = 0 ] && [ -z "${keep:-}" ]; then rm -rf "$work"; else echo "soak: state kept in $work"; fi
}
trap cleanup EXIT
count() { counts[$1]=$(( ${counts[$1]:-0} + 1 )); }
violation() { violations=$((violations + 1)); echo "VIOLATION (cycle $cycle, seed $seed): $*"; }
scale=$(( ${ZUN_TEST_TIME_SCALE:-1} ))
# Polls a condition every 5 ms, at most about 20 s (times the scale): a slow machine only makes it poll longer.
until_true() { local i; for i in $(seq $((4000 * scale))); do "$@" && return 0; sleep 0.005; done; return 1; }
alive_socket() { [ -S "$1" ] && kill -0 "$2" 2>/dev/null; }

start_manager() {
  "$bin/zun-software-manager" --state-dir "$mdir" --socket "$msock" --phase-delay-ms "$delay" \
    --allow-unsigned "${manager_args[@]}" 2>>"$work/manager.log" &
  manager_pid=$!
  until_true alive_socket "$msock" "$manager_pid" || { echo "soak.sh: the manager did not start" >&2; tail "$work/manager.log" >&2; exit 2; }
}
start_service() {
  local try
  # The manager's socket file appears at bind, a moment before it listens; the service, which ends
  # when it cannot reach the manager at start, is then started again.
  for try in 1 2 3 4 5; do
    "$bin/zun-update-service" --state-dir "$udir" --socket "$usock" --manager-socket "$msock" 2>>"$work/service.log" &
    service_pid=$!
    until_true alive_socket "$usock" "$service_pid" && return 0
    count "update service started again (manager not yet listening)"
    sleep 0.05
  done
  echo "soak.sh: the update service did not start" >&2; tail "$work/service.log" >&2; exit 2
}
kill9() { local pid=$1 socket=$2; kill -9 "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -f "$socket"; }
stop() { kill -TERM "$1" 2>/dev/null; wait "$1" 2>/dev/null; }

# The content of a folder as one hash: relative paths and their bytes.
tree_hash() { (cd "$1" && find . -type f -print0 | sort -z | xargs -0r sha256sum | sha256sum | cut -c1-64); }
component_dir() { echo "$mdir/components/${kinds[$1]}/${1#* / }"; }
manager_field() { # state | version | pending
  local state=$(component_dir "$1")/state.json
  case "$2" in
    state) sed -n 's/^  "state": \([0-9]*\).*/\1/p' "$state" ;;
    version) grep -o '"version": "[^"]*"' "$state" | head -1 | cut -d'"' -f4 ;;
    pending) grep -q '"pending": null' "$state" && echo none || echo some ;;
  esac
}
manager_busy() { case $(manager_field "$1" state) in 1|3|5) return 0 ;; *) return 1 ;; esac; }
manager_settled() { ! manager_busy "$1"; }
host_state() { "$bin/zun-update" status "$1" 2>/dev/null | sed -n '1s/.*: //p'; }
host_settled() { local s; s=$(host_state "$1"); [ -n "$s" ] && [ "$s" != Installing ]; }
host_current() { "$bin/zun-update" versions "$1" 2>/dev/null | awk '$1 == "current:" {print $2; exit}'; }
store() { sqlite3 -cmd ".timeout 5000" "$udir/store.db" "$1"; }
started_by_module() { [ -n "$(store "select 1 from properties where component='$1' and key like '%StartedByModule%'")" ]; }

make_package() { # name revision: sets $package and records the payload's hash
  local name=$1 revision=$2 dir=$work/packages/$1/$2
  mkdir -p "$dir/payload/sub"
  printf '%s %s\n' "$name" "$revision" >"$dir/payload/readme.txt"
  head -c $(( (RANDOM % 64 + 1) * 1024 )) /dev/urandom >"$dir/payload/sub/data.bin"
  printf '{"version": "%s", "manufacturer": "Soak", "manufacturerUri": "%s"}\n' "$revision" "$uri" >"$dir/manifest.json"
  "$bin/zun-software-manager" pack --manifest "$dir/manifest.json" --payload "$dir/payload" -o "$dir/package.tar" >/dev/null || exit 2
  hashes["$name@$revision"]=$(tree_hash "$dir/payload")
  package=$dir/package.tar
}

# Checks that hold after every cycle for one component.
check_component() {
  local name=$1 old=$2 new=$3 dir version disk state host
  dir=$(component_dir "$name")
  version=$(manager_field "$name" version)
  disk=$(tree_hash "$dir/current/")
  if [ "$disk" != "${hashes[$name@$old]:-}" ] && [ "$disk" != "${hashes[$name@$new]:-}" ]; then
    violation "$name on disk is neither '$old' nor '$new' whole"
  elif [ "$disk" != "${hashes[$name@$version]:-}" ]; then
    violation "$name on disk is not the manager's current version $version"
  fi
  state=$(manager_field "$name" state)
  host=$(host_state "$name")
  case "$state:$host" in
    0:Idle|2:Error|4:Error|6:Error) ;;
    0:Error) started_by_module "$name" && [ "$version" != "$new" ] || violation "$name: host Error, manager idle at $version" ;;
    *) violation "$name: host says '$host', the manager's state is $state" ;;
  esac
  [ "$(host_current "$name")" = "$version" ] || violation "$name: host's current version $(host_current "$name") is not the manager's $version"
  [ "$(store 'pragma integrity_check')" = ok ] || violation "store integrity_check failed"
  local leftover
  leftover=$(find "$udir" -type f -not -name 'store.db*' -not -name lock | head -3)
  [ -z "$leftover" ] || violation "left in the service's state folder: $leftover"
  leftover=$(find "$mdir/incoming" -mindepth 1 | head -3)
  [ -z "$leftover" ] || violation "left in the manager's incoming folder: $leftover"
  if [ "$(manager_field "$name" pending)" = none ] && [ -n "$(ls -A "$dir/staged")" ]; then
    violation "$name: staged files without a pending package: $(ls "$dir/staged")"
  fi
  local current_dir versions_left
  current_dir=$(basename "$(readlink "$dir/current")")
  versions_left=$(ls "$dir/versions" | grep -vx "$current_dir" | head -3)
  [ -z "$versions_left" ] || violation "$name: version folders left beside the current one: $versions_left"
}
announced() { # revision -> lines "Succeeded"/"Failed"
  store "select case when name like '%Succeeded' then 'Succeeded' else 'Failed' end from notifications where text like '%(version: $1)%'"
}

run_kills() {
  echo "soak: kills, $cycles cycles, seed $seed"
  local modes=(ok ok ok fail keep) mode=ok phases=(prepare copy activate) revision_counter=0
  for ((cycle = 1; cycle <= cycles; cycle++)); do
    local name old revision package expect_announce=no victim wait_ms
    if ((RANDOM % 2)); then name=$project; else name=$files; fi
    if ((RANDOM % 3 == 0)); then mode=${modes[RANDOM % ${#modes[@]}]}; else mode=${mode:-ok}; fi
    # The manager's test controls hold for its whole run: it restarts with the cycle's.
    local wanted=()
    case "$mode" in
      fail) if [ "${manager_args[0]:-}" = --fail-phase ]; then wanted=("${manager_args[@]}"); else wanted=(--fail-phase "${phases[RANDOM % 3]}"); fi ;;
      keep) wanted=(--keep-version) ;;
    esac
    if [ "${wanted[*]}" != "${manager_args[*]}" ]; then
      stop "$manager_pid"; manager_args=("${wanted[@]}"); start_manager
    fi
    count "mode ${mode}${wanted[1]:+ ${wanted[1]}}"
    # A component left in Error is resumed or, if that fails again, simply installed over.
    if [ "$(host_state "$name")" = Error ]; then "$bin/zun-update" resume "$name" >/dev/null 2>&1; until_true host_settled "$name"; fi
    old=$(manager_field "$name" version)
    revision_counter=$((revision_counter + 1)); revision=2.$revision_counter.0
    make_package "$name" "$revision"
    if ! "$bin/zun-update" stage "$name" "$package" >"$work/stage.out" 2>&1; then
      violation "staging $revision of $name failed: $(cat "$work/stage.out")"; continue
    fi
    if ((RANDOM % 4 == 0)); then
      count "install by a client that hangs up"
      node "$root/scripts/soak-client.js" fire "$usock" "$name" "$revision" "$uri" 2>/dev/null
    else
      count "install by zun-update"
      "$bin/zun-update" install "$name" --revision "$revision" --uri "$uri" >/dev/null 2>&1
    fi
    wait_ms=$((RANDOM % (5 * delay)))
    sleep "$(printf '0.%03d' "$wait_ms")"
    victim=$((RANDOM % 3))
    case $victim in
      0) count "kill -9 manager"; kill9 "$manager_pid" "$msock"; start_manager ;;
      1) count "kill -9 update service"; kill9 "$service_pid" "$usock"
         # The manager goes on alone; the service comes back once it has ended, so the first
         # pass after the restart finds the installation over.
         until_true manager_settled "$name" ;;
      2) count "kill -9 both"; kill9 "$service_pid" "$usock"; kill9 "$manager_pid" "$msock"; start_manager ;;
    esac
    if [ "$victim" != 0 ]; then
      # Announced exactly when the store still held the module's installation and the manager had ended.
      if [ "$name" = "$project" ] && [ "$(store "select installation_state from components where name='$name'")" = 1 ] \
        && started_by_module "$name" && [ "$(manager_field "$name" state)" = 0 ]; then
        if [ "$(manager_field "$name" version)" = "$revision" ]; then expect_announce=Succeeded; else expect_announce=Failed; fi
      fi
      start_service
    fi
    until_true host_settled "$name" || violation "$name still Installing"
    check_component "$name" "$old" "$revision"
    if [ "$(manager_field "$name" version)" = "$revision" ]; then count "ended new"; else count "ended old"; fi
    if [ "$name" = "$project" ]; then
      local got
      got=$(announced "$revision" | tr '\n' ' ' | sed 's/ $//')
      [ -n "$got" ] && count "announced $got"
      if [ "$expect_announce" = no ]; then
        [ -z "$got" ] || violation "$revision announced '$got' where nothing was to be announced"
      else
        [ "$got" = "$expect_announce" ] || violation "$revision announced '${got:-nothing}', expected '$expect_announce' once"
      fi
    fi
    done_cycles=$((done_cycles + 1))
  done
}

run_load() {
  local clients=8 name uploads=() old=() revision=3.0.0 i=0 watchdog status
  cycle=load
  manager_args=(); stop "$manager_pid"; start_manager
  for name in "$files" "$project"; do
    until_true host_settled "$name"
    [ "$(host_state "$name")" = Error ] && "$bin/zun-update" resume "$name" >/dev/null 2>&1 && until_true host_settled "$name"
    old+=("$(manager_field "$name" version)")
    make_package "$name" "$revision"
    uploads+=("$name=$package:$revision")
  done
  # The watchdog: a deadlock shows as a load that does not end.
  watchdog=$(( (load_requests / 10 + 120) * scale ))
  echo "soak: load, $clients clients x $load_requests requests, watchdog ${watchdog} s"
  timeout "$watchdog" node "$root/scripts/soak-client.js" load "$usock" "$clients" "$load_requests" "$seed" "${uploads[@]}" >"$work/load.out" 2>&1
  status=$?
  cat "$work/load.out"
  if [ "$status" = 124 ]; then violation "load did not end within ${watchdog} s (deadlock?)"
  elif [ "$status" != 0 ]; then violations=$((violations + $(sed -n 's/^load: violations \([0-9]*\).*/\1/p' "$work/load.out" | tail -1) + 0)); fi
  kill -0 "$service_pid" 2>/dev/null || violation "the update service died under load"
  for name in "$files" "$project"; do
    until_true host_settled "$name" || violation "$name still Installing after the load"
    check_component "$name" "${old[i]}" "$revision"
    i=$((i + 1))
  done
  counts["load requests"]=$((clients * load_requests))
  done_cycles=$((done_cycles + 1))
}

run_disk() {
  cycle=disk
  local mount=$work/disk name=$files out free
  mkdir -p "$mount"
  if ! mount -t tmpfs -o size=4m tmpfs "$mount" 2>/dev/null; then
    echo "soak: disk skipped: cannot mount a tmpfs here (needs root)"; return 0
  fi
  disk_mount=$mount
  stop "$service_pid"; stop "$manager_pid"
  mdir=$mount/manager udir=$mount/service manager_args=()
  start_manager; rm -f "$mdir/incoming/"*.tar
  hashes["$name@1.0.0"]=$(tree_hash "$(component_dir "$name")/current/")
  start_service
  echo "soak: disk, a 4 MiB tmpfs for both state folders"
  make_package "$name" 4.0.0
  head -c 700000 /dev/urandom >"$work/packages/$name/4.0.0/payload/sub/data.bin"
  "$bin/zun-software-manager" pack --manifest "$work/packages/$name/4.0.0/manifest.json" --payload "$work/packages/$name/4.0.0/payload" -o "$package" >/dev/null
  hashes["$name@4.0.0"]=$(tree_hash "$work/packages/$name/4.0.0/payload")
  # Staging on a full disk: refused with a clear reason, nothing left.
  free=$(( $(stat -f -c '%a*%S' "$mount") ))
  head -c $(( free - 200 * 1024 )) /dev/zero >"$mount/filler" 2>/dev/null
  out=$("$bin/zun-update" stage "$name" "$package" 2>&1) && violation "staging on a full disk succeeded: $out"
  count "disk: staging refused"
  echo "  staging on a full disk: $out"
  grep -qi "space\|ResourceUnavailable" <<<"$out" || violation "staging on a full disk gave no clear reason: $out"
  check_component "$name" 1.0.0 4.0.0
  # Room for the upload (moved into the manager's package folder), not for the staged payload:
  # the manager's refusal reaches the client.
  rm -f "$mount/filler"
  free=$(( $(stat -f -c '%a*%S' "$mount") ))
  head -c $(( free - $(stat -c %s "$package") - 200 * 1024 )) /dev/zero >"$mount/filler" 2>/dev/null
  out=$("$bin/zun-update" stage "$name" "$package" 2>&1) && violation "staging without room for the payload succeeded: $out"
  count "disk: staging refused by the manager"
  echo "  staging without room for the payload: $out"
  grep -q "could not be staged: not enough disk space" <<<"$out" || violation "the manager's refusal on a full disk is not clear: $out"
  check_component "$name" 1.0.0 4.0.0
  # Installing on a full disk: staged with room, then the disk filled before the copy.
  rm -f "$mount/filler"
  out=$("$bin/zun-update" stage "$name" "$package" 2>&1) || violation "staging with room failed: $out"
  free=$(( $(stat -f -c '%a*%S' "$mount") ))
  head -c $(( free - 100 * 1024 )) /dev/zero >"$mount/filler" 2>/dev/null
  "$bin/zun-update" install "$name" --revision 4.0.0 --uri "$uri" >/dev/null 2>&1
  until_true host_settled "$name"
  out=$("$bin/zun-update" status "$name" 2>&1)
  echo "  installing on a full disk: $(echo $out)"
  [ "$(host_state "$name")" = Error ] || violation "installing on a full disk did not fail: $out"
  count "disk: installation failed"
  check_component "$name" 1.0.0 4.0.0
  # With room again the installation resumes and completes.
  rm -f "$mount/filler"
  "$bin/zun-update" resume "$name" >/dev/null 2>&1
  until_true host_settled "$name"
  [ "$(manager_field "$name" version)" = 4.0.0 ] || violation "resuming after the disk had room again did not install 4.0.0"
  check_component "$name" 1.0.0 4.0.0
  done_cycles=$((done_cycles + 1))
}

start_manager
mkdir -p "$work/packages"
rm -f "$mdir/incoming/"*.tar
for name in "$files" "$project"; do hashes["$name@1.0.0"]=$(tree_hash "$(component_dir "$name")/current/"); done
start_service
started=$SECONDS
case "$part" in kills|all) run_kills ;; esac
case "$part" in load|all) run_load ;; esac
case "$part" in disk|all) run_disk ;; esac
echo "soak: took $((SECONDS - started)) s"
for key in "${!counts[@]}"; do echo "  $key: ${counts[$key]}"; done | sort
echo "soak: $done_cycles cycles, $violations violations"
[ "$violations" = 0 ]
