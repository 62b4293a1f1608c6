# The platform itself: real SocketCAN interfaces, can-utils, multicast on loopback, and the
# daemon's host build with its libraries. Later scripts build on all of these.

vcan_up vcan0
vcan_up vcan1
candump_start dump0 vcan0
candump_start dump1 vcan1

before=$(now_ms)
cansend vcan0 18FEF100#FF00FFFFFFFFFFFF
cansend vcan0 123#DEADBEEF
cansend vcan1 0CF00400#0102030405060708
wait_for dump0.out '  123 '
wait_for dump1.out ' 0CF00400 '
after=$(now_ms)

# Extended and standard identifiers arrive unchanged, each frame only on its interface.
grep -qE '^ *\([0-9.]+\) +vcan0 +18FEF100 +\[8\] +FF 00 FF FF FF FF FF FF$' dump0.out ||
    fail "extended frame on vcan0: $(cat dump0.out)"
grep -qE '^ *\([0-9.]+\) +vcan0 +123 +\[4\] +DE AD BE EF$' dump0.out ||
    fail "standard frame on vcan0: $(cat dump0.out)"
expect_eq "$(count_lines dump0.out vcan0)" 2 "frames on vcan0"
expect_eq "$(count_lines dump1.out vcan1)" 1 "frames on vcan1"

# Kernel receive stamps: wall-clock milliseconds of the send, in order.
for stamp in $(can_stamps_ms dump0.out) $(can_stamps_ms dump1.out); do
    [ "${#stamp}" -eq 13 ] || fail "stamp $stamp is not in milliseconds"
    [ "$stamp" -ge "$before" ] && [ "$stamp" -le "$after" ] ||
        fail "stamp $stamp outside $before..$after"
done
set -- $(can_stamps_ms dump0.out)
[ "$1" -le "$2" ] || fail "vcan0 stamps out of order: $*"

# A listener on loopback receives a group's datagrams, and only that group's.
mcast_listen mc 239.255.10.1 50010 2
document='<Frame><PGN>FEF1</PGN><RelativeTime>1700000000999</RelativeTime></Frame>'
mcastprobe send 239.255.10.2 50010 "other group"
mcastprobe send 239.255.10.1 50010 "$document"
mcastprobe send 239.255.10.1 50010 "<Frame><RelativeTime>5</RelativeTime></Frame>"
wait "$started" || fail "listener: $(cat mc.err)"
expect_eq "$(cat mc.d/000001)" "$document" "first datagram"
grep -qE "^datagram 1 ${#document} [0-9]{13}\$" mc.out || fail "listener header: $(cat mc.out)"
expect_eq "$(xml_texts RelativeTime mc.d/*)" "1700000000999
5" "RelativeTime values"

# The host-built daemon runs here under its invocation names.
tavro-fmstoip --version >version.out
grep -q '^tavro ' version.out || fail "version: $(cat version.out)"
start daemon tavro-fmstoip -vv
wait_for daemon.err 'Starting fmstoip service'
stop_process "$started"
expect_eq "$status" 2 "daemon exit status after SIGINT"
grep -q 'Closing program...' daemon.err || fail "daemon log: $(cat daemon.err)"
