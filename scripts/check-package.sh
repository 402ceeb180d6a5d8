#!/usr/bin/env bash
# Checks the Debian package that `cpack` made: exactly the expected files, dependencies found by
# dpkg-shlibdeps, the systemd units (systemd-analyze verify, when it is installed), and the
# unpacked programs working together: software manager, update service and command line.
#   bash scripts/check-package.sh PACKAGE.deb
set -euo pipefail
deb=${1:?usage: check-package.sh PACKAGE.deb}
work=$(mktemp -d "${TMPDIR:-/tmp}/zun-package-XXXXXX")
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "check-package: $*" >&2; exit 1; }

plugin=libZun.Services.Modules.SoftwareUpdate.SoftwareUpdater.so
expected=(
  ./lib/systemd/system/zun-software-manager.service
  ./lib/systemd/system/zun-update-service.service
  ./usr/bin/zun-software-manager
  ./usr/bin/zun-update
  ./usr/bin/zun-update-service
  ./usr/lib/sysusers.d/zun-update.conf
  ./usr/lib/zun/$plugin
  ./usr/lib/zun/libZun.Services.ServiceContracts.so
  ./usr/lib/zun/libZun.Services.SoftwareManager.Transport.so
  ./usr/lib/zun/libZun.Services.SoftwareUpdate.ModuleInterface.so
  ./usr/lib/zun/libZun.Services.SoftwareManager.so
  ./usr/lib/zun/libZun.Services.SoftwareUpdate.UpdateService.so
  ./usr/lib/zun/libZun.Services.SoftwareUpdate.so
  ./usr/lib/zun/libZun.System.Commons.so
  ./usr/lib/zun/libZun.System.Nm.so
  ./usr/lib/zun/libZun.System.Rsc.so
  ./usr/share/doc/zun-software-updater/PROTOCOL.md
  ./usr/share/doc/zun-software-updater/README.md
)
actual=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sort)
diff <(printf '%s\n' "${expected[@]}" | sort) <(echo "$actual") >"$work/files.diff" ||
  { cat "$work/files.diff" >&2; fail "the package's files differ from the expected ones (< missing, > unexpected)"; }
echo "check-package: ${#expected[@]} files, as expected"

depends=$(dpkg-deb -f "$deb" Depends)
for library in libc6 libstdc++6 libsqlite3-0 libarchive13 libssl3; do
  [[ $depends == *"$library "* || $depends == *"$library," || $depends == *"$library" ]] || fail "Depends lacks $library: $depends"
done
for script in postinst prerm postrm; do
  dpkg-deb -I "$deb" "$script" >/dev/null || fail "no $script"
done
echo "check-package: Depends: $depends"

root=$work/root
dpkg-deb -x "$deb" "$root"
if command -v systemd-analyze >/dev/null; then
  # The units as installed, pointing at the unpacked programs; verify reports faults on stderr but
  # keeps exit code 0 for many of them, so any output fails.
  mkdir "$work/units"
  for unit in "$root"/lib/systemd/system/*.service; do
    sed "s|/usr/bin/|$root/usr/bin/|g" "$unit" >"$work/units/$(basename "$unit")"
  done
  report=$(systemd-analyze verify "$work"/units/*.service 2>&1) || fail "systemd-analyze verify failed: $report"
  [ -z "$report" ] || fail "systemd-analyze verify: $report"
  echo "check-package: units verified by systemd-analyze"
else
  echo "check-package: systemd-analyze is not installed; units not verified"
fi

# The unpacked programs find their libraries and the plug-in through their own location.
wait_for_socket() {
  local socket=$1 pid=$2 log=$3
  for _ in $(seq 1 $(( 600 * ${ZUN_TEST_TIME_SCALE:-1} ))); do
    [ -S "$socket" ] && return 0
    kill -0 "$pid" 2>/dev/null || { cat "$log" >&2; fail "$(basename "$log" .log) ended"; }
    sleep 0.05
  done
  cat "$log" >&2; fail "$socket did not appear"
}
"$root/usr/bin/zun-software-manager" --state-dir "$work/manager" --socket "$work/manager.sock" 2>"$work/manager.log" &
pids+=($!)
wait_for_socket "$work/manager.sock" "$!" "$work/manager.log"
"$root/usr/bin/zun-update-service" --state-dir "$work/service" --socket "$work/service.sock" \
  --manager-socket "$work/manager.sock" 2>"$work/service.log" &
pids+=($!)
wait_for_socket "$work/service.sock" "$!" "$work/service.log"
listed=$("$root/usr/bin/zun-update" --socket "$work/service.sock" list) || { cat "$work/service.log" >&2; fail "zun-update list failed"; }
for component in "Generic files / Sample files" "Tesmora Engineer project / Sample project"; do
  grep -q "^$component  *Idle  *1.0.0 " <<<"$listed" || fail "$component is not listed as Idle at 1.0.0: $listed"
done
echo "check-package: the unpacked programs run together:"
echo "$listed"
