#!/usr/bin/env bash
# Installs the Debian packages that building and testing the installer need,
# when any is missing; with --run also those that running it without a display
# needs (Xvfb and a screenshot tool). Safe to run again; uses sudo when not root.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    qtbase5-dev qtbase5-dev-tools
    fonts-dejavu-core
    util-linux sudo
    gobjc++ libxml2-utils
    dbus polkitd pkexec
)
[ "${1:-}" != --run ] || packages+=(xvfb xauth imagemagick)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
