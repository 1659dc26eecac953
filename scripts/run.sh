#!/usr/bin/env bash
# Builds the installer bundle, lays a sample VELDV400 database beside it and
# starts the installer. On a desktop it opens on your display; on a machine
# without one it runs under Xvfb, saves a screenshot of the window and stops.
#   scripts/run.sh [--size BYTES] [--files N]     (sample of 30 MB, 200 files by default)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
size=30M
files=200
while [ $# -gt 0 ]; do
    case "$1" in
        --size) size="$2"; shift 2 ;;
        --files) files="$2"; shift 2 ;;
        *) echo "usage: $0 [--size BYTES] [--files N]" >&2; exit 2 ;;
    esac
done

"$root/scripts/install-deps.sh" --run
build="$root/build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target veld-installer veld-make-sample

bundle="$build/VELD Installer.app"
sample="$build/VELDV400"
"$build/veld-make-sample" --force --files "$files" --bytes "$size" "$sample"
installer="$bundle/Contents/MacOS/VELD Installer"

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ "${QT_QPA_PLATFORM:-}" != offscreen ]; then
    echo "Starting $installer"
    exec "$installer"
fi

# No display: a private X server, a screenshot of the first page, then stop.
screenshot="$build/installer-screenshot.png"
display=":$((90 + RANDOM % 400))"
Xvfb "$display" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
installer_pid=""
cleanup() {
    [ -z "$installer_pid" ] || kill "$installer_pid" 2>/dev/null || true
    kill "$xvfb" 2>/dev/null || true
    wait 2>/dev/null || true
    [ -z "${runtime:-}" ] || rm -rf "$runtime"
}
trap cleanup EXIT
for _ in $(seq 50); do
    [ -e "/tmp/.X11-unix/X${display#:}" ] && break
    sleep 0.1
done

echo "No display found: starting the installer under Xvfb on $display"
runtime=$(mktemp -d)
DISPLAY="$display" QT_QPA_PLATFORM=xcb XDG_RUNTIME_DIR="$runtime" "$installer" &
installer_pid=$!
sleep 3
if ! kill -0 "$installer_pid" 2>/dev/null; then
    echo "The installer ended before its window could be captured." >&2
    exit 1
fi
# The window alone: the empty black screen around it is trimmed away.
DISPLAY="$display" import -window root -trim +repage "$screenshot"
echo "Screenshot of the installer window saved to $screenshot"
