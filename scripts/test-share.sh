#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints the share of test code: non-blank lines of the tracked text files under tests/ against
# those under the code folders (src, tools, gateway, python, bench, examples, fuzz). Markdown
# (guides, benchmark reports) is not code and is left out on both sides.
#   scripts/test-share.sh            a table per folder and the share
#   scripts/test-share.sh --percent  the share alone, in percent with one decimal
set -euo pipefail
cd "$(dirname "$0")/.."

code_dirs=(src tools gateway python bench examples fuzz)

# Non-blank lines of the tracked text files under one folder (binary files are skipped).
lines_under() {
    git ls-files -z -- "$1" ':!:*.md' | xargs -0 -r grep -Ihcv '^[[:space:]]*$' -- 2> /dev/null |
        awk '{ s += $1 } END { print s + 0 }'
}

tests=$(lines_under tests)
code=0
rows=()
for dir in "${code_dirs[@]}"; do
    n=$(lines_under "$dir")
    code=$((code + n))
    rows+=("$(printf '%-10s %7d' "$dir" "$n")")
done
total=$((tests + code))
share=$(awk -v t="$tests" -v a="$total" 'BEGIN { printf "%.1f", a ? 100 * t / a : 0 }')

if [[ "${1:-}" == --percent ]]; then
    echo "$share"
    exit 0
fi
printf '%s\n' "${rows[@]}"
printf '%-10s %7d\n' tests "$tests"
printf 'tests: %d of %d non-blank lines (%s %%)\n' "$tests" "$total" "$share"
