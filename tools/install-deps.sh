#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Does nothing when they are all present; runs apt-get update once otherwise.
set -euo pipefail

packages=(cmake make g++ pkg-config qtbase5-dev openssl tinyproxy-bin jq
    libboost1.81-dev libsqlite3-dev libssl-dev zlib1g-dev bash-completion zsh)
case "${1:-}" in
--bench) packages+=(nginx-light curl) ;;
--qt6) packages+=(qt6-base-dev) ;;
--fuzz) packages+=(clang libclang-rt-14-dev) ;;
--memcheck) packages+=(valgrind) ;;
--coverage) packages+=(gcovr) ;;
--docs) packages+=(doxygen) ;;
esac

missing=()
for p in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
    [ "$status" = "install ok installed" ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
run=()
if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null 2>&1; then
        run=(sudo)
    else
        echo "Not root and no sudo: install ${missing[*]} by hand." >&2
        exit 1
    fi
fi
export DEBIAN_FRONTEND=noninteractive
"${run[@]}" apt-get update -qq
"${run[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
