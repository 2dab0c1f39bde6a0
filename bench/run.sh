#!/usr/bin/env bash
# Benchmarks the library against curl and bare Qt on a private nginx at 127.0.0.1 and
# prints one line per comparison: median rates, the library/reference ratio with its
# target, and peak resident sizes. Exits 0 whatever the targets say; non-zero only when
# something broke. `make bench` builds the programs into build-bench and calls this.
#
# Usage: bench/run.sh BUILD_DIR
# Environment: NB_BENCH_ROUNDS  measured rounds per case (default 5, after one warm-up)
#              NB_BENCH_GETS    small GETs per run (default 2000)
#              NB_BENCH_SETTLE  seconds, in all, to wait for an idle machine before
#                               rounds (default 120; 0 does not wait)
#              NB_BENCH_CASES   only these cases, by the names run_case prints
#                               (e.g. "multipart upload,small GETs"; default all)
#              TMPDIR           where the temporary folder (about 3.5 GiB at peak) goes
set -euo pipefail

build=$(cd "${1:?usage: bench/run.sh BUILD_DIR}" && pwd)
# The Qt major the build was made with.
qt_major=$(sed -n 's/^NB_QT_MAJOR:STRING=//p' "$build/CMakeCache.txt" 2>/dev/null || true)
qt_major=${qt_major:-5}
bin=$build/bench
rounds=${NB_BENCH_ROUNDS:-5}
gets=${NB_BENCH_GETS:-2000}
settle_budget=${NB_BENCH_SETTLE:-120}
big=$((1024 * 1024 * 1024))
part=$((256 * 1024 * 1024))
mib=$((1024 * 1024))
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
raw=$bin/results.txt # every run's figures, kept after the temporary folder is gone

work=$(mktemp -d "${TMPDIR:-/tmp}/nbbench.XXXXXX")
www=$work/www
nginx_pid=
cleanup() {
    [ -z "${latency_pid:-}" ] || kill "$latency_pid" 2>/dev/null || true
    if [ -n "${emu_pid:-}" ]; then
        kill "$emu_pid" 2>/dev/null || true
        wait "$emu_pid" 2>/dev/null || true
    fi
    if [ -n "$nginx_pid" ]; then
        kill "$nginx_pid" 2>/dev/null || true
        wait "$nginx_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

die() {
    echo "bench: $*" >&2
    exit 1
}

# Nothing may land in the real home: the library's log goes under XDG_DATA_HOME.
export HOME=$work/home
export XDG_DATA_HOME=$HOME/.local/share XDG_CONFIG_HOME=$HOME/.config XDG_CACHE_HOME=$HOME/.cache
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY
mkdir -p "$XDG_DATA_HOME" "$www" "$work/nginx/temp" "$work/results"
# nginx started as root serves files through unprivileged workers.
chmod 755 "$work"

free_kib=$(df -Pk "$work" | awk 'NR == 2 { print $4 }')
[ "$free_kib" -ge $((4 * 1024 * 1024)) ] || die "need 4 GiB free in $work (see df -h ${TMPDIR:-/tmp})"

# A 4096-byte JSON listing on one line, like the server's answers.
small_json() {
    local body='{"code":0,"items":[' item i=0
    while :; do
        item=$(printf '{"id":%d,"name":"file-%04d.txt","size":%d,"dir":false},' $i $i $((1000 + i)))
        [ $((${#body} + ${#item} + 16)) -le 4096 ] || break
        body+=$item
        i=$((i + 1))
    done
    body="${body%,}],\"pad\":\""
    printf '%s%s"}' "$body" "$(head -c $((4096 - ${#body} - 2)) /dev/zero | tr '\0' x)"
}

echo "bench: creating test files in $work" >&2
head -c $big /dev/urandom >"$www/big.bin"
head -c $part "$www/big.bin" >"$www/part.bin"
small_json >"$www/small.json"
mkdir -p "$www/many"
for i in $(seq -w 1 1000); do printf 'entry %s\n' "$i" >"$www/many/f$i.txt"; done
printf '{"code":0}\n' >"$www/done.json"
: >"$www/upload" # POST on this static file gives 405, which the sink turns into 200
sync             # no write-back of the test files while measuring

nginx_conf() {
    cat <<EOF
daemon off;
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log error;
events { worker_connections 64; }
http {
    types { application/json json; }
    default_type application/octet-stream;
    log_format sink '\$request_length';
    access_log off;
    client_body_temp_path $work/nginx/temp/body;
    proxy_temp_path $work/nginx/temp/proxy;
    fastcgi_temp_path $work/nginx/temp/fastcgi;
    uwsgi_temp_path $work/nginx/temp/uwsgi;
    scgi_temp_path $work/nginx/temp/scgi;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 100000;
    server {
        listen 127.0.0.1:$1;
        root $www;
        client_max_body_size 0;
        # The upload sink. The mirror reads the whole body (beyond 1 MiB into a temporary
        # file) before the content phase; there POST on the static file gives 405, turned
        # into 200 with a small JSON answer, whose log line records the bytes read.
        location = /upload {
            client_body_buffer_size 1m;
            mirror /mirror-sink;
            mirror_request_body on;
            error_page 405 =200 /done.json;
        }
        # The facade's operations: files under /v2/files/databox/ and /v2/dl_router/databox/,
        # uploads of "/upload" and chunks into the same sink.
        location /v2/files/databox/ {
            alias $www/;
            client_body_buffer_size 1m;
            mirror /mirror-sink;
            mirror_request_body on;
            error_page 405 =200 /done.json;
        }
        location /v2/dl_router/databox/ { alias $www/; }
        location = /v2/chunked_upload {
            alias $www/upload;
            client_body_buffer_size 1m;
            mirror /mirror-sink;
            mirror_request_body on;
            error_page 405 =200 /done.json;
        }
        location = /mirror-sink { internal; return 204; }
        location = /done.json { internal; access_log $work/nginx/sink.log sink; }
    }
}
EOF
}

# Starts nginx on a free port, trying random ones.
start_nginx() {
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        port=$((20000 + RANDOM % 40000))
        nginx_conf $port >"$work/nginx/nginx.conf"
        "$nginx_bin" -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" &
        nginx_pid=$!
        for _ in $(seq 50); do
            kill -0 $nginx_pid 2>/dev/null || break
            curl -sf --noproxy '*' -o /dev/null "http://127.0.0.1:$port/small.json" && return 0
            sleep 0.1
        done
        kill $nginx_pid 2>/dev/null || true
        wait $nginx_pid 2>/dev/null || true
        nginx_pid=
    done
    cat "$work/nginx/error.log" >&2
    die "nginx did not start"
}
start_nginx
url=http://127.0.0.1:$port

# nbemu, seeded with the same files (the 1 GiB one among them), for the emulator's cases.
emu_pid=
emu_data=$work/emu
start_emu() {
    "$build/emulator/nbemu" --data "$emu_data" --seed "$www" --user bench:bench --port-file "$work/emu.port" \
        --log /dev/null >"$work/emu.out" 2>&1 &
    emu_pid=$!
    for _ in $(seq 600); do
        [ -s "$work/emu.port" ] && return 0
        kill -0 $emu_pid 2>/dev/null || break
        sleep 0.1
    done
    cat "$work/emu.out" >&2
    die "nbemu did not start"
}
start_emu
emu_url=http://127.0.0.1:$(cat "$work/emu.port")
emu_env=(env NB_BENCH_USER=bench NB_BENCH_PASSWORD=bench)

# nbcli signed in to nbemu with a config folder of its own, and the session for curl.
cli_env=(env XDG_CONFIG_HOME="$work/cli")
"${cli_env[@]}" NB_PASSWORD=bench "$build/cli/nbcli" login -q --server "$emu_url" --user bench >/dev/null ||
    die "nbcli could not sign in to nbemu"
emu_session=$(sed -n 's/.*"session": *"\([^"]*\)".*/\1/p' "$work/cli/nbcli/session.json")
[ -n "$emu_session" ] || die "no nbcli session"
emu_cookie=(-H "Cookie: X-NIMBRA-SESS-ID=$emu_session")
# `nbcli put|get --json` reports bytes and milliseconds of the transfer itself (as curl's
# time_total is), printed here as "<bytes> <seconds>".
cli_rate='"$@" | sed -n "s/.*\"bytes\":\([0-9]*\).*\"ms\":\([0-9]*\).*/\1 \2/p" | awk "{ print \$1, \$2 / 1000 }"'
# Each upload round stores new content: a fresh random file, and the store's earlier
# chunk files removed (the chunk table still names them, but no new hash collides).
fresh_file='rm -rf "$1"/chunks/*; head -c "$2" /dev/urandom >"$3"; shift 3'

# A command timed from outside (for what reports no time of its own): "<amount> <seconds>",
# the amount the one given; its output kept in $out.
timed='amount=$1; shift; out=$(mktemp); s=$(date +%s.%N); "$@" >"$out" || exit 1; e=$(date +%s.%N); echo "$amount $(awk -v s="$s" -v e="$e" "BEGIN { print e - s }")"'
# The tree cases' large files get new content before each round, so that no chunk is
# already on the server.
fresh_tree='for f in "$0"/tree1/large*.bin; do head -c $((16 << 20)) /dev/urandom >"$f"; done'
serial=0

curl_opts=(-sS --noproxy '*' -H 'Expect:')
down_format='%{size_download} %{time_total}\n'
up_format='%{size_upload} %{time_total}\n'

# Sets `cmd` and `label` for a side of a comparison.
side_command() {
    case $1 in
    lib-file)
        label="transport download()"
        cmd=("$bin/nbbench" download-file "$url/big.bin" "$work/out.bin")
        ;;
    curl-file)
        label="curl -o FILE"
        cmd=(curl "${curl_opts[@]}" -o "$work/out.bin" -w "$down_format" "$url/big.bin")
        ;;
    curl-null)
        label="curl -o /dev/null"
        cmd=(curl "${curl_opts[@]}" -o /dev/null -w "$down_format" "$url/big.bin")
        ;;
    bare-write)
        label="file write alone"
        cmd=("$bin/nbbare" write-file "$www/big.bin" "$work/out.bin")
        ;;
    lib-data)
        label="library"
        cmd=("$bin/nbbench" download-data "$url/big.bin")
        ;;
    lib-upload)
        label="transport upload()"
        cmd=("$bin/nbbench" upload "$url/upload" "$www/big.bin")
        ;;
    curl-upload)
        label="curl -T FILE -X POST"
        cmd=(curl "${curl_opts[@]}" -T "$www/big.bin" -X POST -o /dev/null -w "$up_format" "$url/upload")
        ;;
    bare-upload)
        label="bare Qt QFile POST"
        cmd=("$bin/nbbare" upload "$url/upload" "$www/big.bin")
        ;;
    lib-multipart)
        label="library"
        cmd=("$bin/nbbench" multipart "$url/upload" "$www/part.bin")
        ;;
    curl-multipart)
        label="curl -F"
        cmd=(curl "${curl_opts[@]}" -F name=part.bin -F "file=@$www/part.bin" -o /dev/null -w "$up_format"
            "$url/upload")
        ;;
    facade-file)
        label="DownloadFile"
        cmd=("$bin/nbbench" facade-download-file "$url" "$work/out.bin")
        ;;
    facade-router)
        label="DownloadRouter"
        cmd=("$bin/nbbench" facade-router "$url")
        ;;
    facade-upload)
        label="UploadFile"
        cmd=("$bin/nbbench" facade-upload "$url" "$www/big.bin")
        ;;
    chunked-1 | chunked-4 | chunked-8)
        label="ChunkedUpload x${1#chunked-}"
        cmd=("$bin/nbbench" chunked "$url" "$www/big.bin" "${1#chunked-}")
        ;;
    emu-file)
        label="DownloadFile, nbemu"
        cmd=("${emu_env[@]}" "$bin/nbbench" facade-download-file "$emu_url" "$work/out.bin")
        ;;
    emu-chunked)
        # Every round stores its chunks anew: the store's files go first.
        label="ChunkedUpload x8, nbemu"
        cmd=(bash -c 'rm -rf "$1"/chunks/*; shift; exec "$@"' - "$emu_data" "${emu_env[@]}" "$bin/nbbench" chunked
            "$emu_url" "$www/big.bin" 8)
        ;;
    emu-listings)
        label="listings, nbemu"
        cmd=("${emu_env[@]}" "$bin/nbbench" listings "$emu_url" "$gets")
        ;;
    cli-get)
        label="nbcli get"
        cmd=("${cli_env[@]}" bash -c "$cli_rate" - "$build/cli/nbcli" get -q --json /big.bin "$work/out.bin")
        ;;
    emu-curl-file)
        label="curl -o FILE, nbemu"
        cmd=(curl "${curl_opts[@]}" "${emu_cookie[@]}" -o "$work/out.bin" -w "$down_format"
            "$emu_url/v2/files/databox/big.bin?path_type=ent")
        ;;
    cli-put)
        label="nbcli put"
        cmd=("${cli_env[@]}" bash -c "$fresh_file; $cli_rate" - "$emu_data" $big "$work/up.bin"
            "$build/cli/nbcli" put -q --json "$work/up.bin" /cli/up.bin)
        ;;
    cli-reput)
        label="nbcli put, unchanged"
        cmd=("${cli_env[@]}" bash -c "$fresh_file; \"\$@\" >/dev/null; $cli_rate" - "$emu_data" $big "$work/up.bin"
            "$build/cli/nbcli" put -q --json "$work/up.bin" /cli/up.bin)
        ;;
    emu-curl-upload)
        label="curl -T FILE, nbemu"
        cmd=(bash -c "$fresh_file; \"\$@\"" - "$emu_data" $big "$work/up.bin" curl "${curl_opts[@]}" "${emu_cookie[@]}"
            -T "$work/up.bin" -X POST -o /dev/null -w "$up_format"
            "$emu_url/v2/files/databox/cli/curl.bin?path_type=ent&overwrite=true")
        ;;
    emu-concurrent)
        label="100 in flight, nbemu"
        cmd=("${emu_env[@]}" "$bin/nbbench" concurrent "$emu_url" 100 "$gets")
        ;;
    tree-put)
        label="nbcli put, tree"
        cmd=("${cli_env[@]}" bash -c "$fresh_tree; $timed" - "$tree_bytes" "$build/cli/nbcli" put -q "$work/tree1"
            /put-$((++serial)))
        ;;
    tree-sync1)
        label="nbcli sync, first"
        cmd=("${cli_env[@]}" bash -c "$fresh_tree; $timed" - "$tree_bytes" "$build/cli/nbcli" sync -q "$work/tree1"
            :/sync-$((++serial)))
        ;;
    tree-sync2)
        # Fails the run when it sends anything.
        label="nbcli sync, unchanged"
        cmd=("${cli_env[@]}" bash -c "$timed; ! grep -q '\"action\":\"put\"' \"\$out\"" - "$tree_bytes"
            "$build/cli/nbcli" sync --json "$work/tree2" :/synced)
        ;;
    latency-default | latency-1)
        if [ "$1" = latency-1 ]; then transfers=(--transfers 1); else transfers=(); fi
        label="nbcli put${transfers[*]:+ ${transfers[*]}}, 50 ms"
        cmd=("${cli_env[@]}" bash -c "$timed" - 100 "$build/cli/nbcli" --profile latency put -q ${transfers[@]+"${transfers[@]}"}
            "$work/hundred" /latency-$((++serial)))
        ;;
    lib-gets)
        label="library"
        cmd=("$bin/nbbench" gets "$url/small.json" "$gets")
        ;;
    bare-gets)
        label="bare Qt, fresh manager"
        cmd=("$bin/nbbare" gets "$url/small.json" "$gets")
        ;;
    *) die "unknown side $1" ;;
    esac
}

# Waits, within what is left of the budget, for half a second in which the CPUs are at
# least 90% idle, so that a round does not start on top of somebody else's build.
busy_rounds=0
all_rounds=0
settle() {
    local a b total idle i
    all_rounds=$((all_rounds + 1))
    while :; do
        read -ra a </proc/stat
        sleep 0.5
        read -ra b </proc/stat
        total=0
        for i in 1 2 3 4 5 6 7 8; do total=$((total + b[i] - a[i])); done
        idle=$((b[4] - a[4]))
        [ $((idle * 100)) -lt $((total * 90)) ] || return 0
        if [ "$settle_budget" -le 0 ]; then
            busy_rounds=$((busy_rounds + 1))
            return 0
        fi
        settle_budget=$((settle_budget - 1))
        sleep 0.5
    done
}

# Waits for the sink's log lines of the last run's uploads and checks they read `$1`
# bytes at least in all (a chunked upload leaves one line per chunk).
check_sink() {
    local log=$work/nginx/sink.log read=0
    for _ in $(seq 100); do
        read=$(awk '{ n += $1 } END { print n + 0 }' "$log" 2>/dev/null || echo 0)
        [ "$read" -ge "$1" ] && return 0
        sleep 0.02
    done
    die "the upload sink read $read of $1 bytes"
}

# measure SIDE EXPECTED ROUND: runs the side once under nbrun and checks that it moved
# EXPECTED bytes or requests at least; past the warm-up round, appends
# "<seconds> <peak RSS in KiB>" to the side's results.
measure() {
    local side=$1 expected=$2 round=$3 output amount seconds rss
    side_command "$side"
    : >"$work/nginx/sink.log"
    output=$("$bin/nbrun" "${cmd[@]}" 2>"$work/stderr") || {
        cat "$work/stderr" >&2
        die "failed: ${cmd[*]}"
    }
    read -r amount seconds <<<"$(sed -n 1p <<<"$output")"
    rss=$(sed -n 2p <<<"$output")
    [ "${amount:-0}" -ge "$expected" ] || die "${cmd[*]} moved ${amount:-0} of $expected"
    case $side in
    emu-curl-upload) ;;
    *-file | *-write | cli-get) rm -f "$work/out.bin" ;;
    *upload | *multipart | chunked-*) check_sink "$expected" ;;
    esac
    echo "$side round=$round amount=$amount seconds=$seconds peak_rss_kib=$rss" >>"$raw"
    [ "$round" -eq 0 ] || echo "$seconds $rss" >>"$work/results/$side"
}

# run_case NAME EXPECTED SIDE...: one warm-up round, then the measured rounds; the
# order of the sides alternates from round to round.
# chosen CASE: whether NB_BENCH_CASES leaves CASE in.
chosen() { [ -z "${NB_BENCH_CASES:-}" ] || [[ ",$NB_BENCH_CASES," == *",$1,"* ]]; }

run_case() {
    local name=$1 expected=$2 round side i
    shift 2
    chosen "$name" || return 0
    local sides=("$@") reversed=()
    for ((i = ${#sides[@]} - 1; i >= 0; i--)); do reversed+=("${sides[i]}"); done
    printf 'bench: %-21s' "$name" >&2
    for ((round = 0; round <= rounds; round++)); do
        local order=("${sides[@]}")
        [ $((round % 2)) -eq 0 ] || order=("${reversed[@]}")
        settle
        for side in "${order[@]}"; do
            measure "$side" "$expected" $round
            printf '.' >&2
        done
    done
    echo >&2
}

# stats SIDE EXPECTED SCALE: "<median rate> <largest peak RSS in MiB>", the rate being
# EXPECTED / seconds / SCALE.
stats() {
    sort -n "$work/results/$1" | awk -v n="$2" -v scale="$3" '
        { rate[NR] = n / $1 / scale; if ($2 > rss) rss = $2 }
        END {
            m = (NR % 2) ? rate[(NR + 1) / 2] : (rate[NR / 2] + rate[NR / 2 + 1]) / 2
            printf "%.1f %.1f\n", m, rss / 1024
        }'
}

passes=0
misses=0
# verdict VALUE OP LIMIT: sets `outcome` to PASS or MISS and counts it.
verdict() {
    if awk -v v="$1" -v l="$3" "BEGIN { exit !(v $2 l) }"; then
        passes=$((passes + 1))
        outcome=PASS
    else
        misses=$((misses + 1))
        outcome=MISS
    fi
}

# report CASE EXPECTED SCALE UNIT LIB REF RATIO_TARGET RSS_TARGET: one table line; a
# target of "-" means none. The RSS target is on the library's peak, in MiB.
report() {
    local name=$1 expected=$2 scale=$3 unit=$4 lib=$5 ref=$6 ratio_target=$7 rss_target=$8
    local lib_rate lib_rss ref_rate ref_rss ratio target=- rss_note=
    # A case left out by NB_BENCH_CASES has no figures.
    [ -s "$work/results/$lib" ] && [ -s "$work/results/$ref" ] || return 0
    read -r lib_rate lib_rss <<<"$(stats "$lib" "$expected" "$scale")"
    read -r ref_rate ref_rss <<<"$(stats "$ref" "$expected" "$scale")"
    ratio=$(awk -v a="$lib_rate" -v b="$ref_rate" 'BEGIN { printf "%.2f", a / b }')
    if [ "$ratio_target" != - ]; then
        verdict "$ratio" '>=' "$ratio_target"
        target=">=${ratio_target}x $outcome"
    fi
    if [ "$rss_target" != - ]; then
        verdict "$lib_rss" '<' "$rss_target"
        rss_note="<${rss_target} $outcome"
    fi
    side_command "$ref"
    printf '%-21s %14s   %-21s %14s  %6s  %-13s  %9s %-9s  %9s\n' "$name" "$lib_rate $unit" "$label" \
        "$ref_rate $unit" "${ratio}x" "$target" "$lib_rss MiB" "$rss_note" "$ref_rss MiB"
}

: >"$raw"
run_case "download to file" $big lib-file curl-file curl-null bare-write
run_case "download to callback" $big lib-data curl-null
run_case "file upload" $big lib-upload curl-upload bare-upload
run_case "multipart upload" $part lib-multipart curl-multipart
run_case "small GETs" "$gets" lib-gets bare-gets
run_case "facade download" $big facade-file lib-file curl-file
run_case "facade router" $big facade-router curl-null
run_case "facade upload" $big facade-upload lib-upload curl-upload
run_case "chunked upload" $big chunked-1 chunked-4 chunked-8 facade-upload curl-upload
# nbemu's peak memory while 1 GiB goes each way: the seeding's is forgotten first.
emu_peak() { awk '/VmHWM/ { printf "%.1f", $2 / 1024 }' "/proc/$emu_pid/status" 2>/dev/null; }
echo 5 >"/proc/$emu_pid/clear_refs" 2>/dev/null || true
run_case "nbemu download" $big emu-file curl-file
run_case "nbemu chunked upload" $big emu-chunked curl-upload
run_case "nbcli get" $big cli-get emu-curl-file
# The upload cases after the downloads: they remove the store's chunk files, the seeded ones included.
run_case "nbcli put" $big cli-put cli-reput emu-curl-upload
# A tree of 1,000 small files in 10 folders and 3 of 16 MiB: put and a first sync of it to
# new folders, and a sync of an unchanged copy that is on the server already.
if chosen "nbcli tree"; then
    for t in tree1 tree2; do
        for d in $(seq -w 1 10); do
            mkdir -p "$work/$t/d$d"
            for f in $(seq -w 1 100); do head -c $((1024 + 10#$f * 37)) "$www/big.bin" >"$work/$t/d$d/f$f.txt"; done
        done
        for f in 1 2 3; do head -c $((16 << 20)) /dev/urandom >"$work/$t/large$f.bin"; done
    done
    tree_bytes=$(du -sb "$work/tree1" | cut -f1)
    "${cli_env[@]}" "$build/cli/nbcli" sync -q "$work/tree2" :/synced || die "nbcli could not sync the tree"
fi
fresh_tree=${fresh_tree//\$0/$work}
run_case "nbcli tree" "${tree_bytes:-0}" tree-put tree-sync1 tree-sync2
emu_transfer_rss=$(emu_peak)
echo 5 >"/proc/$emu_pid/clear_refs" 2>/dev/null || true
run_case "nbemu listings" "$gets" emu-listings emu-concurrent

# 100 small files to a second nbemu whose every answer comes 50 ms late: files in
# parallel (the default --transfers) against one at a time.
if chosen "nbcli latency"; then
    mkdir -p "$work/hundred"
    for f in $(seq -w 1 100); do head -c $((2048 + 10#$f)) "$www/big.bin" >"$work/hundred/f$f.txt"; done
    "$build/emulator/nbemu" --data "$work/emu-latency" --user bench:bench --port-file "$work/latency.port" \
        --fault '^/v2/:latency=50' --log /dev/null >"$work/latency.out" 2>&1 &
    latency_pid=$!
    for _ in $(seq 600); do [ -s "$work/latency.port" ] && break; sleep 0.1; done
    [ -s "$work/latency.port" ] || die "the second nbemu did not start"
    "${cli_env[@]}" NB_PASSWORD=bench "$build/cli/nbcli" --profile latency login -q \
        --server "http://127.0.0.1:$(cat "$work/latency.port")" --user bench >/dev/null ||
        die "nbcli could not sign in to the second nbemu"
fi
run_case "nbcli latency" 100 latency-default latency-1
[ -z "${latency_pid:-}" ] || kill "$latency_pid" 2>/dev/null || true
emu_listing_rss=$(chosen "nbemu listings" && emu_peak || echo "-")

echo
echo "Medians of $rounds round(s) after a warm-up, sides alternating; $(nproc) CPUs; nginx" \
    "$("$nginx_bin" -v 2>&1 | sed 's|.*/||'), curl $(curl -V | awk 'NR == 1 { print $2 }'), Qt" \
    "$(pkg-config --modversion "Qt${qt_major}Core" 2>/dev/null || echo "$qt_major")."
echo "Rates in MiB/s (2^20 bytes) or requests/s; peak RSS is the largest of the runs (wait4 ru_maxrss)."
printf '%-21s %14s   %-36s  %6s  %-13s  %-19s  %9s\n' case library reference lib/ref target "library peak RSS" \
    "ref RSS"
report "1 GiB download->file" $big $mib MiB/s lib-file curl-file 2 48
report "1 GiB download->file" $big $mib MiB/s lib-file curl-null 0.6 -
report "1 GiB download->file" $big $mib MiB/s lib-file bare-write - -
report "1 GiB download->data" $big $mib MiB/s lib-data curl-null - -
report "1 GiB file upload" $big $mib MiB/s lib-upload curl-upload - 48
report "1 GiB file upload" $big $mib MiB/s lib-upload bare-upload 1 -
report "256 MiB multipart" $part $mib MiB/s lib-multipart curl-multipart - -
report "$gets small GETs" "$gets" 1 req/s lib-gets bare-gets 0.8 -
echo "Through the facade (ServerApi), the same nginx:"
report "1 GiB DownloadFile" $big $mib MiB/s facade-file lib-file 0.9 64
report "1 GiB DownloadFile" $big $mib MiB/s facade-file curl-file - -
report "1 GiB DownloadRouter" $big $mib MiB/s facade-router curl-null - 64
report "1 GiB UploadFile" $big $mib MiB/s facade-upload lib-upload - 64
report "1 GiB UploadFile" $big $mib MiB/s facade-upload curl-upload - -
report "1 GiB chunked, 1" $big $mib MiB/s chunked-1 facade-upload - 64
report "1 GiB chunked, 4" $big $mib MiB/s chunked-4 facade-upload - 64
report "1 GiB chunked, 8" $big $mib MiB/s chunked-8 facade-upload 3 64
report "1 GiB chunked, 8" $big $mib MiB/s chunked-8 curl-upload 0.9 -
echo "nbemu (the emulator) against nginx, and alone:"
report "1 GiB DownloadFile" $big $mib MiB/s emu-file curl-file 0.8 -
report "1 GiB chunked, 8" $big $mib MiB/s emu-chunked curl-upload 0.5 -
report "$gets listings of 1000" "$gets" 1 req/s emu-listings emu-listings - -
report "$gets listings, 100 fl." "$gets" 1 req/s emu-concurrent emu-listings - -
echo "nbcli against nbemu, next to curl against the same nbemu:"
report "1 GiB get" $big $mib MiB/s cli-get emu-curl-file 0.9 100
report "1 GiB put" $big $mib MiB/s cli-put emu-curl-upload 0.8 100
report "1 GiB put, unchanged" $big $mib MiB/s cli-reput cli-put 5 100
report "tree, first sync" "${tree_bytes:-0}" $mib MiB/s tree-sync1 tree-put 1 -
report "tree, sync unchanged" "${tree_bytes:-0}" $mib MiB/s tree-sync2 tree-sync1 20 -
report "100 files, 50 ms" 100 1 files/s latency-default latency-1 5 -
if [ -n "$emu_transfer_rss" ]; then
    verdict "$emu_transfer_rss" '<' 64
    echo "nbemu peak RSS while 1 GiB went each way: $emu_transfer_rss MiB (target <64: $outcome);" \
        "during the listings: $emu_listing_rss MiB"
fi
echo "targets: $passes PASS, $misses MISS; every run's figures: $raw"
if [ $busy_rounds -gt 0 ]; then
    echo "note: $busy_rounds of $all_rounds rounds started while other processes kept the CPUs busy;" \
        "their figures are noisy."
fi
