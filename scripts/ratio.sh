#!/usr/bin/env bash
# Prints the ratio of test code to product code in non-blank lines. Test code: tests/, Testing/,
# fuzz/ and *.test.js; product code: the rest but bench/ folders and node_modules.
#   scripts/ratio.sh [PATH...]     with paths, also the non-blank lines of the files under each
set -euo pipefail
cd "$(dirname "$0")/.."
count() { if [ $# -gt 0 ]; then cat -- "$@" | grep -cv '^[[:space:]]*$' || true; else echo 0; fi; }
tests='(^|/)(tests?|Testing|fuzz)(/|$)|\.test\.(m?js|ts)$'
mapfile -t files < <(git ls-files '*.cpp' '*.hpp' '*.h' '*.cc' '*.js' '*.mjs' '*.ts' | grep -Ev '(^|/)node_modules/')
mapfile -t test < <(printf '%s\n' "${files[@]}" | grep -E "$tests" || true)
mapfile -t code < <(printf '%s\n' "${files[@]}" | grep -Ev "$tests" | grep -Ev '(^|/)bench/' || true)
for path in "$@"; do
    mapfile -t under < <(printf '%s\n' "${files[@]}" | grep -E "^${path%/}(/|$)" || true)
    echo "$path: $(count "${under[@]}") lines"
done
t=$(count "${test[@]}")
c=$(count "${code[@]}")
echo "test code: $t lines, product code: $c lines, ratio: $(( c > 0 ? (100 * t + c / 2) / c : 0 ))%"
