#!/usr/bin/env bash
# Fails when a C++ file of the tree differs from what clang-format-14 makes of it
# under .clang-format. Without clang-format-14 it says so and passes (the check is
# then not run, not passed). `tools/check-format.sh FILE...` checks just those files.
set -uo pipefail
cd "$(dirname "$0")/.."
tool=${CLANG_FORMAT:-clang-format-14}
if ! command -v "$tool" >/dev/null 2>&1; then
    echo "format: $tool not installed (Debian package clang-format-14); check skipped"
    exit 0
fi
if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.hpp' '*.cc')
fi
[ ${#files[@]} -eq 0 ] && { echo "format: no files"; exit 0; }
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if printf '%s\0' "${files[@]}" | xargs -0 -n 50 "$tool" --style=file --dry-run -Werror 2>"$log"; then
    echo "format: ok (${#files[@]} files)"
    exit 0
fi
bad=$(grep -o '^[^:]*\.\(cpp\|h\|hpp\|cc\):' "$log" | sort -u | wc -l)
head -40 "$log"
echo "format: $bad file(s) differ from clang-format-14; run: $tool -i --style=file <file>"
exit 1
