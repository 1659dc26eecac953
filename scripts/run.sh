#!/usr/bin/env bash
# Builds the installer bundle, lays a sample VELDV400 database beside it and
# starts the installer. On a desktop it opens on your display; on a machine
# without one it runs under Xvfb, saves a screenshot of the window and stops.
#   scripts/run.sh [--size BYTES] [--files N]     (sample of 30 MB, 200 files by default)
#   scripts/run.sh --screenshots DIR              walks the whole wizard with the keyboard into a temporary
#                                                 destination and saves a picture of each page in DIR
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
size=30M
files=200
shots=""
while [ $# -gt 0 ]; do
    case "$1" in
        --size) size="$2"; shift 2 ;;
        --files) files="$2"; shift 2 ;;
        --screenshots) shots="$2"; shift 2 ;;
        *) echo "usage: $0 [--size BYTES] [--files N] [--screenshots DIR]" >&2; exit 2 ;;
    esac
done

"$root/scripts/install-deps.sh" --run
build="$root/build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target veld-installer veld-make-sample ${shots:+veld-screenshots}

bundle="$build/VELD Installer.app"
sample="$build/VELDV400"
make_sample() { "$build/veld-make-sample" --force --files "$files" --bytes "$size" "$sample"; }
make_sample
installer="$bundle/Contents/MacOS/VELD Installer"

xvfb=""
installer_pid=""
work=""
cleanup() {
    [ -z "$installer_pid" ] || kill "$installer_pid" 2>/dev/null || true
    [ -z "$xvfb" ] || kill "$xvfb" 2>/dev/null || true
    wait 2>/dev/null || true
    [ -z "$work" ] || rm -rf "$work"
    rm -f "$bundle/Contents/MacOS/veld-screenshots"
}
trap cleanup EXIT
work=$(mktemp -d)
export XDG_RUNTIME_DIR="$work/runtime"
mkdir -m 700 "$XDG_RUNTIME_DIR"

if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ "${QT_QPA_PLATFORM:-}" != offscreen ]; then
    on_display=1
else
    on_display=""
    display=":$((90 + RANDOM % 400))"
    Xvfb "$display" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
    xvfb=$!
    for _ in $(seq 50); do
        [ -e "/tmp/.X11-unix/X${display#:}" ] && break
        sleep 0.1
    done
    echo "No display found: the installer runs under Xvfb on $display"
    export DISPLAY="$display" QT_QPA_PLATFORM=xcb
fi

if [ -n "$shots" ]; then
    # A home, preferences and a destination of the walk's own. No rights are granted:
    # the system-wide preference meets a launcher that refuses, so nothing outside
    # these folders changes. Root needs no launcher, so as root the walk runs in a
    # private mount namespace where a folder of its own stands at /etc/xdg.
    mkdir -p "$shots" "$work/home" "$work/config" "$work/system" "$work/destination"
    cp "$build/veld-screenshots" "$bundle/Contents/MacOS/veld-screenshots"
    private=()
    [ "$(id -u)" -ne 0 ] || private=(unshare --mount sh -c 'mount --bind "$1" /etc/xdg && shift && exec "$@"' sh "$work/system")
    HOME="$work/home" XDG_CONFIG_HOME="$work/config" VELD_AUTH_LAUNCHER=/usr/bin/false \
        "${private[@]}" "$bundle/Contents/MacOS/veld-screenshots" "$(cd "$shots" && pwd)" "$work/destination"
    # A destination on the sample's own disk receives the files by a move.
    make_sample >/dev/null
    echo "Installed into $work/destination (removed again); the pictures are in $shots"
    exit 0
fi

if [ -n "$on_display" ]; then
    echo "Starting $installer"
    "$installer"
    exit 0
fi

# No display: a screenshot of the first page, then stop.
screenshot="$build/installer-screenshot.png"
"$installer" &
installer_pid=$!
sleep 3
if ! kill -0 "$installer_pid" 2>/dev/null; then
    echo "The installer ended before its window could be captured." >&2
    exit 1
fi
# The window alone: the empty black screen around it is trimmed away.
import -window root -trim +repage "$screenshot"
echo "Screenshot of the installer window saved to $screenshot"
