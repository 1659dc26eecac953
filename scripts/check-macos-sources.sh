#!/usr/bin/env bash
# Compiles, on Linux, every source file of the macOS build against scripts/macsdk: headers of our
# own that declare exactly the Apple types, constants and functions the macOS code uses, with
# their documented signatures and values. Objective-C++ files go through GNU Objective-C++.
# It checks names, signatures and types; linking and running need a Mac.
#   check-macos-sources.sh CXX QT_INCLUDE_DIRS INFO_PLIST FILE...
# QT_INCLUDE_DIRS is a ';'-separated list; FILE paths are relative to the source root.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cxx=$1
qt_includes=$2
info_plist=$3
shift 3

flags=(-std=c++17 -fsyntax-only -Wall -Wextra -Werror -fPIC -D__APPLE__ -D__MACH__
       -I"$root/scripts/macsdk" -I"$root")
IFS=';' read -r -a dirs <<<"$qt_includes"
for dir in "${dirs[@]}"; do flags+=(-I"$dir"); done

compile() {
    case "$1" in
        *.mm) "$cxx" -x objective-c++ "${flags[@]}" "$1" ;;
        *) "$cxx" -x c++ "${flags[@]}" "$1" ;;
    esac
}

failed=0
checked=0
for file in "$@"; do
    case "$file" in *.cpp|*.mm) ;; *) continue ;; esac
    checked=$((checked + 1))
    if ! compile "$root/$file"; then
        echo "FAIL: $file" >&2
        failed=1
    fi
done

# The check must be able to fail: a misspelt function, message and constant are each refused.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
printf '#include <CoreFoundation/CoreFoundation.h>\nvoid f() { CFPreferencesAppSynchronise(nullptr); }\n' >"$scratch/function.cpp"
printf '#import <AppKit/AppKit.h>\nunsigned long f() { return [NSEvent modifierFlag]; }\n' >"$scratch/message.mm"
printf '#include <Security/Authorization.h>\nint f() { return errAuthorizationCancelled; }\n' >"$scratch/constant.cpp"
for canary in function.cpp message.mm constant.cpp; do
    if compile "$scratch/$canary" 2>/dev/null; then
        echo "FAIL: the misspelling in $canary compiled; the check would not catch it" >&2
        failed=1
    fi
done

# The bundle's description must be well-formed and name the executable that the build makes.
if ! xmllint --noout --nonet "$info_plist" \
    || ! grep -A1 '<key>CFBundleExecutable</key>' "$info_plist" | grep -q '<string>VELD Installer</string>'; then
    echo "FAIL: $info_plist" >&2
    failed=1
fi

[ "$failed" -eq 0 ] && echo "macOS sources: $checked files compiled, 3 misspellings refused, Info.plist well-formed"
exit "$failed"
