#!/usr/bin/env bash
# Prepares this machine for the privileged tests (run as root; safe to run again):
#   veldadmin  an ordinary user in the administrators' group (as an administrator's
#              account on a Mac is), allowed to run the built privileged helper of
#              each given build folder through "sudo -n", and nothing else: it has
#              no password, so no other sudo rule can ever be used;
#   veldguest  an ordinary user outside that group, with no sudo rule (refusals).
# The build folders and every folder above them are made searchable by others,
# so that these users can run what was built there.
#   scripts/privileged-users.sh BUILD_FOLDER...
set -euo pipefail
# Byte by byte: the folder check below must not take other alphabets' letters for the ones it lists.
export LC_ALL=C

[ $# -gt 0 ] || { echo "usage: $0 BUILD_FOLDER..." >&2; exit 2; }
# Each folder's path becomes a command path in the sudoers rule, where "*", "?" and "[...]" are
# wildcards and blanks, commas, colons, "=", "!", "#" and backslashes are syntax: a path with any
# of them could let veldadmin run other programs as root. Only plain paths are taken, and all are
# checked before anything on this machine changes.
refused=0
for build in "$@"; do
    folder=$(realpath -m -- "$build")
    if [[ ! $folder =~ ^[A-Za-z0-9/._+-]+$ ]]; then
        echo "$0: refused: the build folder '$folder' has characters other than letters, digits and / . _ - +," \
             "which the sudoers rule would read as wildcards or syntax; nothing was changed" >&2
        refused=1
    fi
done
[ "$refused" -eq 0 ] || exit 2
[ "$(id -u)" -eq 0 ] || { echo "$0: run as root" >&2; exit 1; }
command -v sudo >/dev/null || { echo "$0: sudo is not installed (scripts/install-deps.sh installs it)" >&2; exit 1; }

admin_group=""
for group in sudo wheel admin; do
    if getent group "$group" >/dev/null; then admin_group=$group; break; fi
done
[ -n "$admin_group" ] || { groupadd --system sudo; admin_group=sudo; }

for user in veldadmin veldguest; do
    id "$user" >/dev/null 2>&1 || useradd --create-home --shell /bin/sh "$user"
done
usermod --append --groups "$admin_group" veldadmin
if id -nG veldguest | tr ' ' '\n' | grep -qx "$admin_group"; then
    gpasswd --delete veldguest "$admin_group" >/dev/null
fi

rule=$(mktemp)
trap 'rm -f "$rule"' EXIT
echo "# Written by the VELD installer's scripts/privileged-users.sh: the privileged tests' helpers." >"$rule"
for build in "$@"; do
    helper="$(realpath -m "$build")/VELD Installer.app/Contents/MacOS/veld-authhelper"
    # The folder is plain (checked above); the blank of the bundle's name is escaped for sudoers.
    escaped=$(printf '%s' "$helper" | sed 's/[\\ ,:=()]/\\&/g')
    echo "veldadmin ALL=(root) NOPASSWD: $escaped" >>"$rule"
done
visudo --check --quiet --file "$rule"
install --mode 0440 "$rule" /etc/sudoers.d/veld-authhelper

for build in "$@"; do
    folder=$(realpath -m "$build")
    mkdir -p "$folder"
    chmod -R a+rX "$folder"
    while [ "$folder" != / ]; do
        folder=$(dirname "$folder")
        if [ "$(( 0$(stat -c %a "$folder") & 1 ))" -eq 0 ]; then
            echo "making $folder searchable by others"
            chmod o+x "$folder"
        fi
    done
done
echo "veldadmin (in $admin_group) may run the helpers of: $*; veldguest may not."
