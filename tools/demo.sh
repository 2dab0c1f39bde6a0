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

echo "nbemu serving $server (data in a temporary folder)"
step "NB_PASSWORD=... nbcli login --server $server --user demo"
NB_PASSWORD=demo-password "$nbcli" login --server "$server" --user demo
run watch --once /
run mkdir -p /projects/demo
head -c $((64 << 20)) /dev/urandom >"$work/big.bin"
echo "demo: created a 64 MiB file of random bytes"
run put "$work/big.bin" /projects/demo/
run put "$work/big.bin" /projects/demo/
run ls -l /projects/demo
run get /projects/demo/big.bin "$work/back.bin"
step "sha256sum big.bin back.bin"
(cd "$work" && sha256sum big.bin back.bin)
[ "$(sha256sum <"$work/big.bin")" = "$(sha256sum <"$work/back.bin")" ] || { echo "demo: the copy differs" >&2; exit 1; }
run mv /projects/demo/big.bin /projects/demo/renamed.bin
run cp /projects/demo/renamed.bin /projects/archive
run rm /projects/demo/renamed.bin
run watch --once /

echo
echo "A lock held by one user refuses another user's change (the holder's own go on):"
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
echo "A shared link: an outside user uploads and downloads with its code and password."
step "NB_SHARE_PASSWORD=... nbcli share put notes.txt DEMO1 /inbox/"
NB_SHARE_PASSWORD=link-password "$nbcli" share put "$work/notes.txt" DEMO1 /inbox/
step "NB_SHARE_PASSWORD=... nbcli share get DEMO1 /inbox/notes.txt notes-via-link.txt"
NB_SHARE_PASSWORD=link-password "$nbcli" share get DEMO1 /inbox/notes.txt "$work/notes-via-link.txt"
cmp "$work/notes.txt" "$work/notes-via-link.txt"
refused share get DEMO1 /inbox/notes.txt "$work/nope.txt"
run ls /Shared/inbox

echo
echo "demo: done; nbemu stopped and its data removed."
