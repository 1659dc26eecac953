#!/usr/bin/env bash
# Benchmarks the copy worker (CopyThread) against bare cp runs on generated data
# files and prints one key=value line per figure:
#   large: 200 files, 2 GiB in all, against a shell loop of "/bin/cp -pf FILE
#          DIR/", one per file (copy_large_loop_ratio), and, for information,
#          against one "/bin/cp -p" of all of them (copy_large_ratio);
#   small: 5,000 files, 4 KiB each on average, against the same shell loop;
# for each the ratio of the median times (worker / reference), the time of each
# run, the ratio of the processor times, and the longest event-loop gap while
# the worker ran (and, for comparison, while the reference ran).
#   bench/copy.sh [--build-dir DIR] [--dir DIR] [--rounds N] [--bytes MIB]
# --build-dir  build folder (default build/); configured RelWithDebInfo when new
# --dir        where the sets and the copies go, in a folder of their own that
#              is removed at the end (default /dev/shm when it has room, else
#              ${TMPDIR:-/tmp})
# --rounds     runs of each side, alternating which goes first (default 3)
# --bytes      size of the large set in MiB (default 2048); made smaller, with
#              a warning, when DIR cannot hold it twice plus 256 MiB
# The aims (ratios against the loop at most 1.05, no event-loop gap of 50 ms or more) are
# reported, not enforced: the exit status is 0 unless a step failed.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build"
dir=""
rounds=3
mib=2048
usage() { echo "usage: $0 [--build-dir DIR] [--dir DIR] [--rounds N] [--bytes MIB]" >&2; exit 2; }
while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || usage
    case "$1" in
        --build-dir) build="$2" ;;
        --dir) dir="$2" ;;
        --rounds) rounds="$2" ;;
        --bytes) mib="$2" ;;
        *) usage ;;
    esac
    shift 2
done
[[ "$rounds" =~ ^[1-9][0-9]?$ ]] || { echo "--rounds must be 1..99" >&2; exit 2; }
[[ "$mib" =~ ^[1-9][0-9]{0,6}$ ]] || { echo "--bytes must be 1..9999999 (MiB)" >&2; exit 2; }

# Build messages go to stderr, so that stdout holds only the figures.
"$root/scripts/install-deps.sh" >&2
if [ -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" >/dev/null
else
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target veld-make-sample veld-bench-copy >&2
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$build_type" in
    Release | RelWithDebInfo) ;;
    *) echo "warning: $build is a '$build_type' build; the times are not representative" >&2 ;;
esac

free_mib() { df -Pm "$1" | awk 'NR == 2 { print $4 }'; }
if [ -z "$dir" ]; then
    dir=/dev/shm
    [ -d "$dir" ] && [ "$(free_mib "$dir")" -ge $((2 * mib + 256)) ] || dir="${TMPDIR:-/tmp}"
fi
# The source set plus one copy of it at a time, and room for the small set.
room=$(( ($(free_mib "$dir") - 256) / 2 ))
if [ "$room" -lt "$mib" ]; then
    [ "$room" -ge 64 ] || { echo "$dir has too little room" >&2; exit 1; }
    echo "warning: $dir holds only $room MiB twice; the large set shrinks to that" >&2
    mib=$room
fi

scratch=$(mktemp -d "$dir/veld-bench-copy.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
"$build/veld-make-sample" --files 200 --bytes "${mib}M" "$scratch/large/VELDV400" >&2
"$build/veld-make-sample" --files 5000 --bytes $((5000 * 4096)) "$scratch/small/VELDV400" >&2
# Both sets were just written, so both sides find them in the page cache.

echo "build=$build"
echo "build_type=$build_type"
echo "scratch_fs=$(df -PT "$dir" | awk 'NR == 2 { print $2 }') ($dir)"
echo "rounds=$rounds"
bench=$(for set in large small; do
    QT_QPA_PLATFORM=offscreen "$build/veld-bench-copy" "$set" "$scratch/$set/VELDV400" "$scratch" "$rounds"
done)
echo "$bench"
echo "# summary"
awk -F'[= ]' '
    /^copy_(small|large_loop)_ratio=/ { r = $2 + 0; printf "%s_within_aim=%s (aim <= 1.05)\n", $1, r <= 1.05 ? "yes" : "no" }
    /_loop_gap_max_ms=/ { g = $2 + 0; printf "%s_within_aim=%s (aim < 50)\n", $1, g < 50 ? "yes" : "no" }' <<<"$bench"
