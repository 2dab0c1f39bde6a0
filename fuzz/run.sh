#!/usr/bin/env bash
# Runs each fuzz target for a bounded time on a working copy of its seed corpus and
# prints how many inputs it ran. Exits non-zero on a crash, leak, time-out or
# sanitizer report; the input that caused it is kept in BUILD_DIR/fuzz/artifacts.
#
# Usage: fuzz/run.sh BUILD_DIR [SECONDS]   (make fuzz builds BUILD_DIR; SECONDS default 60)
set -euo pipefail

build=$(cd "${1:?usage: fuzz/run.sh BUILD_DIR [SECONDS]}" && pwd)
seconds=${2:-60}
source_dir=$(cd "$(dirname "$0")" && pwd)
artifacts=$build/fuzz/artifacts
work=$(mktemp -d "${TMPDIR:-/tmp}/nbfuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$artifacts"
# Nothing may land in the real home.
export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share
mkdir -p "$XDG_DATA_HOME"

failed=0
for target in parser address; do
    corpus=$work/$target
    mkdir -p "$corpus"
    log=$work/$target.log
    if "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2560 \
        -print_final_stats=1 -artifact_prefix="$artifacts/$target-" "$corpus" "$source_dir/corpus/$target" \
        >"$log" 2>&1; then
        verdict=ok
    else
        verdict=FAILED
        failed=1
        tail -n 60 "$log" >&2
    fi
    runs=$(awk '/stat::number_of_executed_units/ { print $2 }' "$log")
    coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 || true)
    printf 'fuzz_%-8s %s: %s executions in %ss, %s, corpus %s inputs\n' "$target" "$verdict" "${runs:-?}" \
        "$seconds" "${coverage:-cov: ?}" "$(ls "$corpus" | wc -l)"
done
exit $failed
