#!/usr/bin/env bash
# Installs what building and testing need on Debian 12, with apt-get, only where it is missing.
# Usage: scripts/setup-debian.sh [more packages...]
set -euo pipefail

# Extra packages a caller needs may follow as arguments. tmux gives the olmctl tests a real terminal.
packages=(build-essential cmake pkg-config libgtest-dev libgmock-dev libbenchmark-dev libspdlog-dev libunwind-dev libfuse-dev libzmq3-dev iproute2 gdb procps tmux "$@")

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
