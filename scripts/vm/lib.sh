# Helpers for the guest test scripts (tests/vm/guest/*.sh), sourced by scripts/vm/run-test.
# busybox sh with set -e: a failing command ends the script as failed.

fail() {
    echo "FAIL: $*"
    exit 1
}

# expect_eq ACTUAL EXPECTED WHAT
expect_eq() {
    [ "$1" = "$2" ] || fail "$3: got '$1', expected '$2'"
}

# Creates a virtual CAN interface and brings it up.
vcan_up() {
    ip link add "$1" type vcan
    ip link set "$1" up
}

# wait_for FILE REGEX [SECONDS]: waits until a line of FILE matches the extended regex.
wait_for() {
    local left=$((${3:-5} * 20))
    while ! grep -qE "$2" "$1" 2>/dev/null; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || fail "no /$2/ in $1 after ${3:-5} s: $(cat "$1" 2>/dev/null)"
        usleep 50000
    done
}

# Starts a background program with its stdout in NAME.out and stderr in NAME.err; its PID
# is in $started. start NAME PROGRAM [ARGS...]
start() {
    local name=$1
    shift
    "$@" >"$name.out" 2>"$name.err" &
    started=$!
}

# write_conf NAME LINE...: writes /etc/tavro/NAME, one key=value line per argument.
write_conf() {
    local name=$1
    shift
    printf '%s\n' "$@" >"/etc/tavro/$name"
}

# sigint_caught PID: the process has a SIGINT handler (bit 2 of SigCgt).
sigint_caught() {
    local mask
    mask=$(sed -n 's/^SigCgt:[[:space:]]*//p' "/proc/$1/status" 2>/dev/null)
    [ -n "$mask" ] && [ $((0x${mask#"${mask%?}"} & 2)) -ne 0 ]
}

# stop_process PID: SIGINT, then waits; the exit status is in $status. (Not from a $(...)
# subshell: only this shell can wait for its children.) A background job of this shell
# starts with SIGINT ignored, so the signal is sent only once the daemon's handler is in
# place; before, it would be lost and the daemon would pause for ever.
stop_process() {
    local left=100
    while ! sigint_caught "$1"; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || fail "process $1 does not catch SIGINT after 5 s"
        usleep 50000
    done
    status=0
    kill -INT "$1"
    wait "$1" || status=$?
}

# system_bus: a dbus-daemon as the system bus (what the daemon's announcements need, even
# with no avahi-daemon to answer), on a tmpfs /run of this script; $bus_pid is its PID.
system_bus() {
    # dbus-daemon looks its user up.
    [ -f /etc/passwd ] || echo 'root:x:0:0:root:/root:/bin/sh' >/etc/passwd
    [ -f /etc/group ] || echo 'root:x:0:' >/etc/group
    mkdir -p /run
    mount -t tmpfs tmpfs /run
    mkdir /run/dbus
    cat >/tmp/dbus-system.conf <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
    start dbus dbus-daemon --config-file=/tmp/dbus-system.conf --nofork --nopidfile \
        --print-address
    bus_pid=$started
    wait_for dbus.out '^unix:'
}
