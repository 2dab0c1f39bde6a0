#!/usr/bin/env bash
# The project in one run: nbemu on a free loopback port with a temporary data folder,
# and a short session of nbcli against it, each command printed before its output.
#
#     tools/demo.sh [BUILD_DIR]        (make demo builds first)
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
nbemu=$build/emulator/nbemu
nbcli=$build/cli/nbcli
for program in "$nbemu" "$nbcli"; do
    [ -x "$program" ] || { echo "demo: $program is missing; run make demo" >&2; exit 1; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/nbdemo.XXXXXX")
emu_pid=
cleanup() {
    if [ -n "$emu_pid" ]; then
        kill "$emu_pid" 2>/dev/null || true
        wait "$emu_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# Everything the demo writes (the session, the library's log) stays in the work folder.
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
mkdir -p "$HOME"
unset NB_SERVER NB_TYPE NB_PASSWORD NB_SHARE_PASSWORD http_proxy https_proxy all_proxy HTTP_PROXY HTTPS_PROXY

"$nbemu" --ephemeral --port-file "$work/port" --log "$work/requests.log" --control \
    --user demo:demo-password --user carol:carol-password --link DEMO1:link-password:demo:/Shared \
    >"$work/nbemu.out" 2>&1 &
emu_pid=$!
for _ in $(seq 100); do
    [ -s "$work/port" ] && break
    kill -0 "$emu_pid" 2>/dev/null || { cat "$work/nbemu.out" >&2; exit 1; }
    sleep 0.1
done
[ -s "$work/port" ] || { echo "demo: nbemu did not start" >&2; exit 1; }
server=http://127.0.0.1:$(cat "$work/port")

step() {
    if [ -t 1 ]; then printf '\n\033[1m$ %s\033[0m\n' "$*"; else printf '\n$ %s\n' "$*"; fi
}
# What the next step shows, in one line.
say() {
    if [ -t 1 ]; then printf '\n\033[2m# %s\033[0m' "$*"; else printf '\n# %s' "$*"; fi
}
run() {
    step "nbcli $*"
    "$nbcli" "$@"
}
# A command that must fail: shows its message and exit status.
refused() {
    step "nbcli $*"
    local status=0
    "$nbcli" "$@" || status=$?
    echo "(exit status $status)"
    [ "$status" -ne 0 ] || { echo "demo: expected a refusal" >&2; exit 1; }
}
# How many chunk uploads nbemu has stored so far (its request log, one JSON line each).
stored_chunks() {
    grep -c '"status":200,"target":"/v2/chunked_upload?' "$work/requests.log" || true
}

echo "nbemu serving $server (data in a temporary folder; users demo and carol; the link DEMO1)"
say "sign in; the session is kept in a config folder of its own"
step "NB_PASSWORD=... nbcli login --server $server --user demo"
NB_PASSWORD=demo-password "$nbcli" login --server "$server" --user demo
say "the change feed from the start: the folder /Shared that the link DEMO1 publishes"
run watch --once /
run mkdir -p /projects/demo
head -c $((200 << 20)) /dev/urandom >"$work/big.bin"
echo "demo: created a 200 MiB file of random bytes (50 chunks of 4 MiB)"

say "a put slowed down on purpose (a fault rule of nbemu's control interface), interrupted with Ctrl-C"
run raw POST /__emu/faults "rule=^/v2/chunked_upload:latency=200" >/dev/null
step "nbcli put -j 2 --progress big.bin /projects/demo/   (Ctrl-C after a few seconds)"
"$nbcli" put -j 2 --progress "$work/big.bin" /projects/demo/ &
put_pid=$!
for _ in $(seq 300); do
    [ "$(stored_chunks)" -ge 20 ] && break
    sleep 0.1
done
kill -INT "$put_pid" 2>/dev/null || true
status=0
wait "$put_pid" || status=$?
echo "(exit status $status: interrupted, nothing committed)"
run raw POST /__emu/faults clear=true >/dev/null
say "run again: only the chunks the server still lacks are sent"
run put "$work/big.bin" /projects/demo/
say "and once more: the server already has all 50 chunks, so nothing is sent"
run put "$work/big.bin" /projects/demo/
run ls -lh /projects/demo
say "the same listing as JSON, for scripts"
step "nbcli ls --json /projects/demo | jq -r '.results[] | \"\\(.name) \\(.bytes) \\(.hash[0:16])\"'"
"$nbcli" ls --json /projects/demo | jq -r '.results[] | "\(.name) \(.bytes) \(.hash[0:16])"'
say "the download is hashed as it arrives and compared with the server's hash"
run get /projects/demo/big.bin "$work/back.bin"
step "sha256sum big.bin back.bin"
(cd "$work" && sha256sum big.bin back.bin)
[ "$(sha256sum <"$work/big.bin")" = "$(sha256sum <"$work/back.bin")" ] || { echo "demo: the copy differs" >&2; exit 1; }
run mv /projects/demo/big.bin /projects/demo/renamed.bin
run cp /projects/demo/renamed.bin /projects/archive/
run rm /projects/demo/renamed.bin
say "the change feed from where the last watch stopped"
run watch --once /

echo
say "a lock held by one user refuses another user's change (the holder's own go on)"
printf 'draft 1\n' >"$work/notes.txt"
run put "$work/notes.txt" /projects/notes.txt
run lock --time 600 /projects/notes.txt
run stat /projects/notes.txt
printf 'draft 2\n' >"$work/notes.txt"
step "NB_PASSWORD=... nbcli login --user carol   (another user, in her own config folder)"
XDG_CONFIG_HOME=$work/carol NB_PASSWORD=carol-password "$nbcli" login --server "$server" --user carol
step "nbcli put notes.txt /projects/notes.txt   (as carol)"
status=0
XDG_CONFIG_HOME=$work/carol "$nbcli" put "$work/notes.txt" /projects/notes.txt || status=$?
echo "(exit status $status)"
[ "$status" -eq 2 ] || { echo "demo: expected the lock to refuse carol's put" >&2; exit 1; }
run put "$work/notes.txt" /projects/notes.txt
run unlock /projects/notes.txt
run revisions /projects/notes.txt

echo
say "a shared link: an outside user uploads and downloads with its code (CODE:PATH) and password"
step "NB_SHARE_PASSWORD=... nbcli share put notes.txt DEMO1:/inbox/"
NB_SHARE_PASSWORD=link-password "$nbcli" share put "$work/notes.txt" DEMO1:/inbox/
step "NB_SHARE_PASSWORD=... nbcli share get DEMO1:/inbox/notes.txt notes-via-link.txt"
NB_SHARE_PASSWORD=link-password "$nbcli" share get DEMO1:/inbox/notes.txt "$work/notes-via-link.txt"
cmp "$work/notes.txt" "$work/notes-via-link.txt"
say "a wrong password is refused, and pauses the link for a second"
step "NB_SHARE_PASSWORD=wrong nbcli share get DEMO1:/inbox/notes.txt nope.txt"
status=0
NB_SHARE_PASSWORD=wrong "$nbcli" share get DEMO1:/inbox/notes.txt "$work/nope.txt" || status=$?
echo "(exit status $status)"
[ "$status" -eq 2 ] || { echo "demo: expected the wrong password to be refused" >&2; exit 1; }
say "the owner sees the upload in the shared folder"
run ls /Shared/inbox

echo
echo "demo: done; nbemu stopped and its data removed."
