#!/usr/bin/env bash
# Benchmarks the source scanner on a generated tree of about 100,000 entries
# (two thirds data files; the rest nested folders and other files) against
# find(1) on the same tree, and prints one key=value line per figure.
#   bench/scan.sh [--build-dir DIR] [--tree DIR] [--runs N] [--entries N]
# --build-dir  build folder (default build/); configured RelWithDebInfo when new
# --tree       make the tree in DIR (absent or empty) and keep it; by default it
#              goes to a temporary folder that is removed at the end
# --runs       best of N runs for each timing (default 5)
# --entries    entries in the tree, 100..99999999 (default 100000)
# The aims (dirSize at most 1.5 times find, no event-loop gap of 50 ms or more)
# are reported, not enforced: the exit status is 0 unless a step failed.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build="$root/build"
tree=""
runs=5
entries=100000
usage() { echo "usage: $0 [--build-dir DIR] [--tree DIR] [--runs N] [--entries N]" >&2; exit 2; }
while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || usage
    case "$1" in
        --build-dir) build="$2" ;;
        --tree) tree="$2" ;;
        --runs) runs="$2" ;;
        --entries) entries="$2" ;;
        *) usage ;;
    esac
    shift 2
done
[[ "$runs" =~ ^[1-9][0-9]{0,2}$ ]] || { echo "--runs must be 1..999" >&2; exit 2; }
[[ "$entries" =~ ^[1-9][0-9]{2,7}$ ]] || { echo "--entries must be 100..99999999" >&2; exit 2; }

# Build messages go to stderr, so that stdout holds only the figures.
"$root/scripts/install-deps.sh" >&2
if [ -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" >/dev/null
else
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j"$(nproc)" --target veld-make-sample veld-bench-scan >&2
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
sanitize=$(sed -n 's/^VELD_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")
case "$build_type" in
    Release | RelWithDebInfo) [ -z "$sanitize" ] || echo "warning: $build has sanitizers ($sanitize); the times are not representative" >&2 ;;
    *) echo "warning: $build is a '$build_type' build; the times are not representative" >&2 ;;
esac

cleanup=""
trap '[ -z "$cleanup" ] || rm -rf "$cleanup"' EXIT
if [ -z "$tree" ]; then
    cleanup=$(mktemp -d "${TMPDIR:-/tmp}/veld-bench.XXXXXX")
    tree="$cleanup/VELDV400"
fi

# The generator's default layout (depth 3) adds 11 folders and 5 decoys of its own.
files=$((entries * 2 / 3))
folders=$((entries / 12))
others=$((entries - files - folders - 16))
made=$("$build/veld-make-sample" --files "$files" --bytes 64M --folders "$folders" --others "$others" "$tree")
echo "$made" >&2
found=$(find "$tree" -mindepth 1 -printf '%s\n' | wc -l) # stats every entry: warms the cache

# Timed with the shell's own microsecond clock, so the figure is find's run
# plus only its own process start (a few milliseconds on a small virtual machine).
best_us=""
for _ in $(seq "$runs"); do
    start=${EPOCHREALTIME//[!0-9]/}
    find "$tree" -type f -printf '%s\n' >/dev/null
    end=${EPOCHREALTIME//[!0-9]/}
    us=$((end - start))
    if [ -z "$best_us" ] || [ "$us" -lt "$best_us" ]; then best_us=$us; fi
done

bench=$(QT_QPA_PLATFORM=offscreen "$build/veld-bench-scan" "$tree" "$runs")
figure() { sed -n "s/^$1=//p" <<<"$bench"; }

echo "build=$build"
echo "build_type=$build_type"
echo "tree_entries=$found"
echo "tree_folders=$(sed -n 's/.* folders=\([0-9]*\) others=[0-9]*$/\1/p' <<<"$made")"
echo "tree_others=$(sed -n 's/.* others=\([0-9]*\)$/\1/p' <<<"$made")"
echo "$bench"
echo "# summary"
find_ms=$(awk -v us="$best_us" 'BEGIN { printf "%.3f", us / 1e3 }')
dirsize_ms=$(figure dirsize_best_ms)
gap_ms=$(figure loop_gap_max_ms)
echo "find_best_ms=$find_ms"
echo "dirsize_best_ms=$dirsize_ms"
awk -v d="$dirsize_ms" -v f="$find_ms" -v g="$gap_ms" 'BEGIN {
    ratio = f > 0 ? d / f : 0
    printf "dirsize_find_ratio=%.2f\nratio_aim_max=1.5\nratio_within_aim=%s\n", ratio, ratio <= 1.5 ? "yes" : "no"
    printf "loop_gap_max_ms=%s\ngap_aim_under_ms=50\ngap_within_aim=%s\n", g, g < 50 ? "yes" : "no" }'
echo "peak_rss_mb=$(figure peak_rss_mb)"
echo "scan_peak_growth_mb=$(figure scan_peak_growth_mb)"
