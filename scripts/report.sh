#!/usr/bin/env bash
# Prints the device build's vital signs of the plug-in, so that a regression shows in review:
# stripped size, NEEDED libraries, exported symbols, ARM ABI tags and the largest stack frames
# (-fstack-usage) of the module's own functions.
#   bash scripts/report.sh [--top N]     (builds the armhf-report preset into build/armhf-report)
set -euo pipefail
cd "$(dirname "$0")/.."

top=25
while [ $# -gt 0 ]; do
  case "$1" in
    --top) top=${2:?--top needs a number}; shift ;;
    -h|--help) sed -n '2,5p' "$0"; exit 0 ;;
    *) echo "report.sh: unknown option '$1'" >&2; exit 2 ;;
  esac
  shift
done

if ! command -v arm-linux-gnueabihf-g++ >/dev/null || ! dpkg -s libfmt-dev:armhf >/dev/null 2>&1; then
  bash scripts/install-deps.sh --armhf
fi
dir=build/armhf-report
cmake --preset armhf-report >/dev/null
cmake --build --preset armhf-report --target ZunSoftwareUpdater >/dev/null

plugin=$dir/lib/libZun.Services.Modules.SoftwareUpdate.SoftwareUpdater.so
stripped=$dir/report/$(basename "$plugin")
mkdir -p "$dir/report"
arm-linux-gnueabihf-strip --strip-unneeded -o "$stripped" "$plugin"

echo "== plug-in: $(basename "$plugin")"
echo "   $(file -b "$plugin" | cut -d, -f1-4)"
printf '   size: %s bytes unstripped, %s bytes stripped\n' "$(stat -c %s "$plugin")" "$(stat -c %s "$stripped")"
arm-linux-gnueabihf-size -A "$stripped" | awk '$1 ~ /^\.(text|rodata|data|bss|data\.rel\.ro)$/ {printf "   %-14s %8d\n", $1, $2}'

echo
echo "== NEEDED libraries"
arm-linux-gnueabihf-readelf -d "$plugin" | awk '/\(NEEDED\)/ {gsub(/[\[\]]/, "", $5); print "   " $5}'

echo
echo "== exported symbols (nm -D --defined-only)"
arm-linux-gnueabihf-nm -D --defined-only "$plugin" | awk '{print "   " $0}'
exports=$(arm-linux-gnueabihf-nm -D --defined-only "$plugin" | awk '$2 ~ /[TDBRVW]/ {print $3}' | grep -vcE '^(_init|_fini|__bss_start|_edata|_end|__end__|__bss_end__|__bss_start__|_bss_end__)$' || true)
echo "   ($exports exported function/object symbols)"

echo
echo "== ARM ABI tags (readelf -A)"
arm-linux-gnueabihf-readelf -A "$plugin" | grep -E 'Tag_(CPU_name|CPU_arch|ARM_ISA_use|THUMB_ISA_use|FP_arch|ABI_VFP_args|ABI_FP_number_model|ABI_align_needed|ABI_enum_size)' | sed 's/^ */   /'

echo
echo "== largest stack frames of the module (-fstack-usage, bytes, top $top; module namespace omitted)"
# .su lines: file:line:column:function<TAB>bytes<TAB>static|dynamic[,bounded]
find "$dir/SoftwareUpdater" -name '*.su' -print0 | xargs -0 cat |
  awk -F'\t' '{n = split($1, p, ":"); fn = p[4]; for (i = 5; i <= n; ++i) fn = fn ":" p[i]; printf "%8d  %-16s %s\n", $2, $3, fn}' |
  sed -e 's/Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater:://g' -e 's/Zun::Services::SoftwareUpdate:://g' |
  sort -rn | head -n "$top" | cut -c1-160 | sed 's/^/ /'
