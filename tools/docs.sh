#!/usr/bin/env bash
# Generates the API reference of the installed headers with Doxygen:
#   tools/docs.sh OUTPUT_DIR [HEADER_DIR]
# writes OUTPUT_DIR/Doxyfile (docs/Doxyfile.in filled in) and OUTPUT_DIR/html/. HEADER_DIR,
# framework/serverapi by default, is where the public headers are read from (the gate's
# own test passes a copy). Any Doxygen warning, an undocumented public symbol among them,
# fails the run: the warnings are printed and the exit status is 1.
set -euo pipefail

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
    echo "usage: $0 OUTPUT_DIR [HEADER_DIR]" >&2
    exit 2
fi

root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
out=$(cd "$1" && pwd)
headers=$(cd "${2:-$root/framework/serverapi}" && pwd)

if ! command -v doxygen >/dev/null 2>&1; then
    "$root/tools/install-deps.sh" --docs
fi

# The version of project() in the top CMakeLists.txt.
version=$(sed -n 's/^project([^)]*VERSION \([0-9][0-9.]*\).*/\1/p' "$root/CMakeLists.txt" | head -1)
if [ -z "$version" ]; then
    echo "docs: no project version in $root/CMakeLists.txt" >&2
    exit 1
fi

for path in "$out" "$headers"; do
    case "$path" in
    *'"'* | *'|'* | *'&'* | *'\'*)
        echo "docs: cannot use the path $path (it holds \", |, & or \\)" >&2
        exit 2
        ;;
    esac
done

sed -e "s|@NB_HEADER_DIR@|$headers|g" -e "s|@NB_DOCS_OUTPUT@|$out|g" -e "s|@NB_VERSION@|$version|g" \
    "$root/docs/Doxyfile.in" >"$out/Doxyfile"
rm -rf "$out/html"

warnings="$out/doxygen-warnings.log"
status=0
doxygen "$out/Doxyfile" 2>"$warnings" || status=$?
if [ "$status" -ne 0 ] || [ -s "$warnings" ]; then
    cat "$warnings" >&2
    echo "docs: Doxygen failed (status $status, $(grep -c . "$warnings") line(s) of warnings above)" >&2
    exit 1
fi
rm -f "$warnings"
echo "API reference: $out/html/index.html"
