#!/usr/bin/env bash
# scripts/privileged-users.sh (the first argument) refuses build folders whose paths sudoers would read as
# wildcards or syntax, before it changes anything: the rule file, users and groups stay byte for byte as they were.
set -uo pipefail
rule=/etc/sudoers.d/veld-authhelper saved=$(mktemp) passed=0 failed=0
state() { cat "$rule" /etc/passwd /etc/group 2>&1 | sha256sum; }
# A script that took such a folder would have rewritten the rule of the privileged tests: it is put back.
cp "$rule" "$saved" 2>/dev/null
trap '[ ! -s "$saved" ] || cmp -s "$saved" "$rule" || install --mode 0440 "$saved" "$rule"; rm -f "$saved"' EXIT
before=$(state)
# The folders of one call, split at "|"; the refusal names the last one.
for row in '/tmp/a*' '/tmp/b?/c' '/tmp/[d]' '/tmp/e f' '/tmp/g,h:i=j' '/tmp/k\l' '/tmp/!m' '/tmp/#n' '/tmp/é' \
           $'/tmp/o\np' '/tmp/ok|/tmp/then*'; do
    IFS='|' read -r -d '' -a folders < <(printf '%s' "$row")
    err=$("$1" "${folders[@]}" 2>&1 >/dev/null) && code=0 || code=$?
    if [ "$code" -ne 0 ] && [[ $err == *"refused: the build folder '${folders[-1]}'"* ]] && [ "$(state)" = "$before" ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'FAIL: %q: exit %s: %s\n' "$row" "$code" "$err"
    fi
done
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
