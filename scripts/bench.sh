#!/usr/bin/env bash
# Builds the bench preset, runs the three benchmark programs with repetitions (randomly interleaved,
# so that proxy and raw runs share the machine's ups and downs) and prints one table of the ratios,
# each measured within one run. Writes the figures as JSON too.
#   scripts/bench.sh [JSON_FILE]     default build/bench/bench.json
# Environment: ZUN_BENCH_REPETITIONS (default 5), ZUN_BENCH_MIN_TIME (seconds per repetition, 0.3).
# The last line is "bench: P1 <x>, P2 time <x> size <x>, allocations/call <n>": P1 is the largest
# transport/raw ratio of the small calls (module GetStatus and the proxy operations of one record or
# less; GetAllSoftwareInformation carries the 1 MB record here and is held to the large-record
# goal), allocations/call the largest count of a proxy call and the service's dispatch of it
# (GetAllSoftwareInformation returns a new list by value, so it allocates by its contract).
set -euo pipefail
cd "$(dirname "$0")/.."

json=${1:-build/bench/bench.json}
repetitions=${ZUN_BENCH_REPETITIONS:-5}
min_time=${ZUN_BENCH_MIN_TIME:-0.3}

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake --preset bench "${launcher[@]}" >/dev/null
cmake --build --preset bench --target zun-transport-bench zun-module-bench zun-record-bench >/dev/null

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for program in zun-record-bench zun-transport-bench zun-module-bench; do
    echo "== $program" >&2
    build/bench/bin/$program --benchmark_repetitions="$repetitions" --benchmark_enable_random_interleaving=true \
        --benchmark_min_time="$min_time" --benchmark_report_aggregates_only=true --benchmark_color=false \
        | tee "$out/$program.txt" >&2
done

# "ratio <name> <value>" lines of all three programs.
declare -A value
while read -r _ name number; do
    value[$name]=$number
done < <(cat "$out"/*.txt | grep '^ratio ')
get() {
    if [ -z "${value[$1]:-}" ]; then
        echo "bench: no figure $1" >&2
        exit 1
    fi
    echo "${value[$1]}"
}
max() { printf '%s\n' "$@" | sort -g | tail -1; }

small_ops=(GetInstallationState GetSoftwareInformation GetPackageDirectory)
p1_figures=("$(get module_getstatus_vs_raw)")
allocation_figures=()
for op in "${small_ops[@]}"; do
    p1_figures+=("$(get "transport_vs_raw/$op")")
done
for op in "${small_ops[@]}" GetSoftwareInformationLarge; do
    allocation_figures+=("$(get "allocations_per_call/$op")")
done
p1=$(max "${p1_figures[@]}")
allocations=$(max "${allocation_figures[@]}")
p2_time=$(get record_time_vs_protobuf)
p2_size=$(get record_size_vs_protobuf)

row() { printf '| %-66s | %8s | %-12s |\n' "$1" "$2" "$3"; }
large_bytes=$(printf '%.0f' "$(get large_response_bytes)")
echo
echo "$(date -u '+%Y-%m-%d %H:%M UTC'), load:$(uptime | sed 's/.*load average://'), $repetitions repetitions (medians)"
echo
row "measurement" "result" "goal"
row "---" "---:" "---"
row "module GetStatus via transport / raw round trip, same bytes" "$(get module_getstatus_vs_raw)" "<= 1.30"
for op in "${small_ops[@]}"; do
    row "proxy $op / raw" "$(get "transport_vs_raw/$op")" "<= 1.30"
done
row "proxy GetSoftwareInformation of $large_bytes B / raw" "$(get transport_vs_raw/GetSoftwareInformationLarge)" "<= 5"
row "proxy GetAllSoftwareInformation (three records, one of them 1 MB) / raw" "$(get transport_vs_raw/GetAllSoftwareInformation)" "<= 4"
row "1 MB record throughput / raw socket throughput" "$(get large_throughput_vs_raw)" ">= 0.25"
row "SoftwareInformation encode+decode time / protobuf (CPU)" "$p2_time" "<= 0.50"
row "SoftwareInformation wire size / protobuf ($(printf '%.0f B / %.0f B' "$(get record_bytes)" "$(get protobuf_bytes)"))" "$p2_size" "<= 1.10"
for op in "${small_ops[@]}" GetSoftwareInformationLarge; do
    row "allocations per call, proxy $op and its dispatch" "$(get "allocations_per_call/$op")" "0"
done
row "allocations per call, proxy GetAllSoftwareInformation and its dispatch" "$(get allocations_per_call/GetAllSoftwareInformation)" "list by value"
row "allocations per call, module GetStatus (module, proxy and dispatch)" "$(get allocations_per_call/ModuleGetStatus)" "-"

mkdir -p "$(dirname "$json")"
{
    echo "{"
    echo "  \"date\": \"$(date -u '+%Y-%m-%dT%H:%M:%SZ')\","
    echo "  \"load\": \"$(uptime | sed 's/.*load average: //')\","
    echo "  \"repetitions\": $repetitions,"
    echo "  \"P1\": $p1,"
    echo "  \"P2_time\": $p2_time,"
    echo "  \"P2_size\": $p2_size,"
    echo "  \"allocations_per_call\": $allocations,"
    echo "  \"ratios\": {"
    mapfile -t names < <(printf '%s\n' "${!value[@]}" | sort)
    for i in "${!names[@]}"; do
        printf '    "%s": %s%s\n' "${names[$i]}" "${value[${names[$i]}]}" "$([ "$i" -lt $((${#names[@]} - 1)) ] && echo ,)"
    done
    echo "  }"
    echo "}"
} >"$json"
echo
echo "JSON: $json"
echo "bench: P1 $p1, P2 time $p2_time size $p2_size, allocations/call $(printf '%.0f' "$allocations")"
