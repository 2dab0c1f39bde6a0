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
    local header
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

# expect_failure CASE HEADER SYMBOL WHAT SED: a copy of the headers whose HEADER the sed
# script SED gives the undocumented SYMBOL must fail the gate, and for that symbol.
expect_failure() {
    local name=$1 target=$2 symbol=$3 what=$4 script=$5
    copy_headers "$name"
    sed -i "$script" "$work/$name/$target"
    if ! grep -q "$symbol" "$work/$name/$target"; then
        fail "could not add $what to $target"
    elif gate "$name"; then
        fail "$what passed"
    elif ! grep -q "$symbol.*not documented" "$work/$name.log"; then
        cat "$work/$name.log" >&2
        fail "the gate failed, but not for $what"
    else
        echo "ok: $what fails"
    fi
}

# 2. An undocumented public function of ServerApi fails. It goes after the deleted
# constructor, the class's last line: just before it, the constructor's comment would
# document the function instead.
expect_failure function INBSeverApi.h undocumentedForTheCheck "an undocumented function of ServerApi" \
    's/^\( *\)ServerApi() = delete;.*$/&\n\1static void undocumentedForTheCheck();/'

# 3. An undocumented field of a request model fails.
expect_failure field NBServerApiModels.h undocumentedFieldForTheCheck "an undocumented field of a request model" \
    '/^struct NBServerApiEntryModel$/,/^};/s/^};/    QString undocumentedFieldForTheCheck;\n};/'

if [ "$failures" -ne 0 ]; then
    echo "docs gate: $failures check(s) failed" >&2
    exit 1
fi
echo "docs gate: all checks passed"
