#!/usr/bin/env bash
# Installs, from Debian 12's own archive, everything the project builds and tests with.
# Idempotent: when every package is already present, apt is not touched at all.
#   bash scripts/install-deps.sh           native tool chain and libraries
#   bash scripts/install-deps.sh --armhf   also the armhf cross tool chain, qemu and armhf libraries
# Then the OPC UA server's npm packages, exactly as package-lock.json pins them (npm ci).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

armhf=0
for arg in "$@"; do
  case "$arg" in
    --armhf) armhf=1 ;;
    -h|--help) sed -n '2,5p' "$0"; exit 0 ;;
    *) echo "install-deps: unknown option '$arg'" >&2; exit 2 ;;
  esac
done

native=(
  cmake ninja-build g++ make pkg-config file binutils python3
  clang-14 clang-tidy-14 libclang-rt-14-dev llvm-14
  libfmt-dev libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev libsqlite3-dev sqlite3 libarchive-dev libssl-dev libcli11-dev
  libprotobuf-dev protobuf-compiler
  dpkg-dev systemd lld
)
# dpkg-dev: dpkg-shlibdeps finds the Debian package's dependencies. systemd: systemd-analyze checks
# the package's units (about 6 MB; installing it does not start it in a container). lld: the fast
# linker of the planted-fault runs (scripts/mutants.sh).
# Node.js for the OPC UA server: the machine's own (20) when there is one, else Debian's.
command -v node >/dev/null && command -v npm >/dev/null || native+=(nodejs npm)
# The cross libraries are Multi-Arch: same: they co-install only at the native package's exact version.
cross=(
  crossbuild-essential-armhf qemu-user-static binutils-arm-linux-gnueabihf
  libfmt-dev:armhf libgtest-dev:armhf libgmock-dev:armhf
)
# Only the services need these; they are skipped on armhf when the archive cannot supply them (for
# example while a security mirror is mid-sync and the armhf version lags the installed native one).
cross_optional=(libsqlite3-dev:armhf libarchive-dev:armhf libssl-dev:armhf)

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "install-deps: needs root or sudo" >&2; exit 1; }
  sudo_cmd=(sudo -n)
fi
export DEBIAN_FRONTEND=noninteractive
apt_install() {
  "${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
    -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "$@" </dev/null
}
apt_update() {
  # A freshly added architecture can leave one mirror index unavailable (exit 100); the install
  # that follows is what decides success.
  "${sudo_cmd[@]}" apt-get update -q </dev/null || echo "install-deps: apt-get update reported an error; continuing" >&2
}

missing() {
  local p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
  done
}

wanted=("${native[@]}")
optional=()
if [ "$armhf" = 1 ]; then
  wanted+=("${cross[@]}")
  optional+=("${cross_optional[@]}")
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    "${sudo_cmd[@]}" dpkg --add-architecture armhf
  fi
fi

npm_packages() {
  local dir=$root/OpcUaServer
  [ -f "$dir/package-lock.json" ] || return 0
  # npm ci starts from scratch: only when the lock file is newer than what it installed last.
  if [ -f "$dir/node_modules/.package-lock.json" ] && [ ! "$dir/package-lock.json" -nt "$dir/node_modules/.package-lock.json" ]; then
    echo "install-deps: OpcUaServer npm packages present"
    return 0
  fi
  (cd "$dir" && npm ci --no-audit --no-fund)
}

mapfile -t todo < <(missing "${wanted[@]}")
mapfile -t todo_optional < <(missing "${optional[@]}")
if [ "${#todo[@]}" -eq 0 ] && [ "${#todo_optional[@]}" -eq 0 ]; then
  echo "install-deps: all $(( ${#wanted[@]} + ${#optional[@]} )) packages present"
  npm_packages
  exit 0
fi

if [ "${#todo[@]}" -ne 0 ]; then
  echo "install-deps: installing ${todo[*]}"
  apt_update
  apt_install "${todo[@]}" || true
  mapfile -t still < <(missing "${wanted[@]}")
  if [ "${#still[@]}" -ne 0 ]; then
    echo "install-deps: still missing after install: ${still[*]}" >&2
    exit 1
  fi
fi

if [ "${#todo_optional[@]}" -ne 0 ]; then
  for p in "${todo_optional[@]}"; do
    apt_install "$p" >/dev/null 2>&1 || echo "install-deps: optional $p not installable now; services that need it are not built for armhf"
  done
fi
npm_packages
echo "install-deps: done"
