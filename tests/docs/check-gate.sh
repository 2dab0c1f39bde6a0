#!/usr/bin/env bash
# Checks that the API reference's gate holds: tools/docs.sh passes on the public headers
# as they are, and fails, naming the symbol, once a copy of them gains an undocumented
# public function of ServerApi or an undocumented field of a request model. Also checks
# that docs/Doxyfile.in reads exactly the headers CMake installs (NB_PUBLIC_HEADERS).
#   tests/docs/check-gate.sh [HEADER_DIR]
# HEADER_DIR, framework/serverapi by default, is where the headers are copied from.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
headers=$(cd "${1:-$root/framework/serverapi}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# The installed headers, from set(NB_PUBLIC_HEADERS ...), against the Doxyfile's INPUT.
installed=$(sed -n '/set(NB_PUBLIC_HEADERS/,/)/p' "$root/framework/serverapi/CMakeLists.txt" |
    sed -e 's/set(NB_PUBLIC_HEADERS//' -e 's/)//' | tr -s ' \t' '\n\n' | grep '\.h$' | sort)
read=$(grep -o '@NB_HEADER_DIR@/[A-Za-z0-9_]*\.h' "$root/docs/Doxyfile.in" | sed 's|.*/||' | sort)
if [ -z "$installed" ]; then
    fail "no NB_PUBLIC_HEADERS in framework/serverapi/CMakeLists.txt"
elif [ "$installed" != "$read" ]; then
    fail "docs/Doxyfile.in reads other headers than NB_PUBLIC_HEADERS installs:"
    diff <(echo "$installed") <(echo "$read") >&2 || true
fi

# Runs the gate on the copy $work/$1, its output into $work/$1.log; its status is the gate's.
gate() {
    "$root/tools/docs.sh" "$work/$1-out" "$work/$1" >"$work/$1.log" 2>&1
}

copy_headers() {
    mkdir -p "$work/$1"
    for header in $installed; do
        cp "$headers/$header" "$work/$1/"
    done
}

# 1. The headers as they are pass.
copy_headers unmodified
if gate unmodified; then
    echo "ok: the public headers pass"
else
    cat "$work/unmodified.log" >&2
    fail "the public headers as they are do not pass"
fi

# 2. An undocumented public function of ServerApi fails. It goes after the deleted
# constructor, the class's last line: just before it, the constructor's comment would
# document the function instead.
copy_headers function
sed -i 's/^\( *\)ServerApi() = delete;.*$/&\n\1static void undocumentedForTheCheck();/' "$work/function/INBSeverApi.h"
if ! grep -q 'undocumentedForTheCheck' "$work/function/INBSeverApi.h"; then
    fail "could not add the undocumented function (no 'ServerApi() = delete;' in INBSeverApi.h)"
elif gate function; then
    fail "an undocumented function of ServerApi passed"
elif ! grep -q 'undocumentedForTheCheck.*not documented' "$work/function.log"; then
    cat "$work/function.log" >&2
    fail "the gate failed, but not for the undocumented function"
else
    echo "ok: an undocumented function of ServerApi fails"
fi

# 3. An undocumented field of a request model fails.
copy_headers field
sed -i '/^struct NBServerApiEntryModel$/,/^};/s/^};/    QString undocumentedFieldForTheCheck;\n};/' \
    "$work/field/NBServerApiModels.h"
if ! grep -q 'undocumentedFieldForTheCheck' "$work/field/NBServerApiModels.h"; then
    fail "could not add the undocumented field (no struct NBServerApiEntryModel in NBServerApiModels.h)"
elif gate field; then
    fail "an undocumented field of a request model passed"
elif ! grep -q 'undocumentedFieldForTheCheck.*not documented' "$work/field.log"; then
    cat "$work/field.log" >&2
    fail "the gate failed, but not for the undocumented field"
else
    echo "ok: an undocumented field of a request model fails"
fi

if [ "$failures" -ne 0 ]; then
    echo "docs gate: $failures check(s) failed" >&2
    exit 1
fi
echo "docs gate: all checks passed"
