#!/usr/bin/env bash
# Builds the installer and runs its tests.
#   scripts/test.sh                          plain build in build/
#   scripts/test.sh --sanitize address,undefined   sanitizer build in build-address-undefined/
#   scripts/test.sh --sanitize thread -- -L thread  the threaded tests under ThreadSanitizer
# Extra arguments after "--" go to ctest (e.g. -- -L unit).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
sanitize=""
build_type=RelWithDebInfo
while [ $# -gt 0 ]; do
    case "$1" in
        --sanitize) sanitize="$2"; build_type=Debug; shift 2 ;;
        --) shift; break ;;
        *) echo "usage: $0 [--sanitize LIST] [-- ctest arguments]" >&2; exit 2 ;;
    esac
done

"$root/scripts/install-deps.sh"
# What is built must be readable by the ordinary users of the privileged tests.
umask 022

build="$root/build"
[ -z "$sanitize" ] || build="$root/build-${sanitize//,/-}"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE="$build_type" -DVELD_WERROR=ON -DVELD_SANITIZE="$sanitize" >/dev/null
cmake --build "$build" -j"$(nproc)"

export QT_QPA_PLATFORM=offscreen
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# The distribution's Qt is not instrumented; scripts/sanitizers/tsan.supp says what that hides.
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1 second_deadlock_stack=1 suppressions=$root/scripts/sanitizers/tsan.supp}"
cd "$build"
ctest --output-on-failure "$@"
