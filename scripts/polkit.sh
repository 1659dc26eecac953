#!/usr/bin/env bash
# Lets the installer's default launcher, pkexec, run for real on a machine without systemd (run as root):
#   scripts/polkit.sh start   writes the tests' polkit rule, starts the system bus and polkitd where they
#                             are not running, and waits until pkexec lets veldadmin run a program and
#                             refuses veldguest (when scripts/privileged-users.sh has made them);
#   scripts/polkit.sh stop    stops the daemons that start started and removes the rule.
# Both are safe to run again. Daemons that something else started are used and left running.
set -euo pipefail

rule=/etc/polkit-1/rules.d/49-veld-tests.rules
state=/run/veld-polkit   # dbus.pid and polkitd.pid: the daemons that start started; polkitd.log
polkitd=/usr/lib/polkit-1/polkitd
tries=300                # at 0.1 s each: a daemon that is not up after that will not come up

[ "$(id -u)" -eq 0 ] || { echo "$0: run as root" >&2; exit 1; }

bus() {
    dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "org.freedesktop.DBus.$1" "${@:2}" 2>/dev/null
}
polkit_on_bus() { bus NameHasOwner string:org.freedesktop.PolicyKit1 | grep -q 'boolean true'; }
# pkexec's answer to user: its parent, the shell, runs as user, as the installer does.
pkexec_as() {
    local code=0
    setpriv --reuid="$1" --regid="$1" --init-groups /bin/sh -c \
        '/usr/bin/pkexec --disable-internal-agent /bin/true; exit $?' </dev/null >/dev/null 2>&1 || code=$?
    echo "$code"
}
# Runs the check until it succeeds, at most $tries times.
wait_until() {
    local try
    for ((try = 0; try < tries; try++)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
# Stops the process of the pid file when it is still the named daemon, and waits for its end.
stop_daemon() {
    local pid
    [ -f "$state/$1.pid" ] || return 0
    pid=$(cat "$state/$1.pid")
    if [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$2" ]; then
        kill "$pid"
        wait_until test ! -e "/proc/$pid" || { echo "$0: $2 ($pid) did not end" >&2; exit 1; }
        echo "stopped $2 ($pid)"
    fi
    rm -f "$state/$1.pid"
}

start() {
    mkdir -p "$state"
    # Without a desktop's agent, pkexec asks no one: the rule answers for pkexec's action alone.
    cat >"$rule.new" <<'EOF'
// Written by the VELD installer's scripts/polkit.sh for its tests through pkexec; "scripts/polkit.sh stop" removes it.
polkit.addRule(function (action, subject) {
    if (action.id != "org.freedesktop.policykit.exec")
        return polkit.Result.NOT_HANDLED;
    if (subject.user == "veldadmin")
        return polkit.Result.YES;
    if (subject.user == "veldguest")
        return polkit.Result.NO;
    return polkit.Result.NOT_HANDLED;
});
EOF
    chmod 0644 "$rule.new"
    mv -f "$rule.new" "$rule"

    if ! bus GetId >/dev/null; then
        mkdir -p /run/dbus
        # A bus that is not answering left its pid file behind, which would stop the new one.
        rm -f /run/dbus/pid
        dbus-daemon --system --fork
        wait_until bus GetId >/dev/null || { echo "$0: the system bus does not answer" >&2; exit 1; }
        cp /run/dbus/pid "$state/dbus.pid"
        echo "started the system bus ($(cat "$state/dbus.pid"))"
    fi
    if ! polkit_on_bus; then
        setsid "$polkitd" --no-debug </dev/null >>"$state/polkitd.log" 2>&1 &
        if ! wait_until polkit_on_bus; then
            echo "$0: polkitd did not come on the bus; $state/polkitd.log:" >&2
            cat "$state/polkitd.log" >&2
            exit 1
        fi
        bus GetConnectionUnixProcessID string:org.freedesktop.PolicyKit1 | awk '/uint32/ {print $2}' >"$state/polkitd.pid"
        echo "started polkitd ($(cat "$state/polkitd.pid"))"
    fi

    if ! id veldadmin >/dev/null 2>&1 || ! id veldguest >/dev/null 2>&1; then
        echo "polkit runs; the users of scripts/privileged-users.sh are not there, so pkexec was not tried"
        return 0
    fi
    # polkitd reads a rule file that changed while it ran a moment later.
    rule_applies() { [ "$(pkexec_as veldadmin)" = 0 ] && [ "$(pkexec_as veldguest)" = 127 ]; }
    wait_until rule_applies || {
        echo "$0: pkexec gave veldadmin $(pkexec_as veldadmin) and veldguest $(pkexec_as veldguest), not 0 and 127" >&2
        exit 1
    }
    echo "polkit runs: pkexec lets veldadmin run programs as root and refuses veldguest"
}

stop() {
    local bus_pid
    rm -f "$rule" "$rule.new"
    stop_daemon polkitd polkitd
    bus_pid=$(cat "$state/dbus.pid" 2>/dev/null || true)
    stop_daemon dbus dbus-daemon
    # The bus leaves its pid file behind.
    [ -z "$bus_pid" ] || [ "$(cat /run/dbus/pid 2>/dev/null)" != "$bus_pid" ] || rm -f /run/dbus/pid
    rm -rf "$state"
}

case "${1:-}" in
    start) start ;;
    stop) stop ;;
    *) echo "usage: $0 start|stop" >&2; exit 2 ;;
esac
