#!/usr/bin/env bash
# Prints the ratio of test code to product code in non-blank lines.
# Test code: tests/, Testing/, fuzz/ and *.test.js; product code: the rest but bench/ and node_modules.
set -euo pipefail
cd "$(dirname "$0")/.."
count() { if [ $# -gt 0 ]; then cat -- "$@" | grep -cv '^[[:space:]]*$' || true; else echo 0; fi; }
mapfile -t files < <(git ls-files '*.cpp' '*.hpp' '*.h' '*.cc' '*.js' '*.mjs' '*.ts' | grep -Ev '(^|/)node_modules/')
mapfile -t tests < <(printf '%s\n' "${files[@]}" | grep -E '(^|/)(tests?|Testing|fuzz)(/|$)|\.test\.(m?js|ts)$' || true)
mapfile -t code < <(printf '%s\n' "${files[@]}" | grep -Ev '(^|/)(tests?|Testing|fuzz)(/|$)|\.test\.(m?js|ts)$' | grep -Ev '^bench/|(^|/)node_modules/' || true)
t=$(count "${tests[@]}")
c=$(count "${code[@]}")
echo "test code: $t lines, product code: $c lines, ratio: $(( c > 0 ? (100 * t + c / 2) / c : 0 ))%"
