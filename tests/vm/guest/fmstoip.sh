# tavro-fmstoip on SocketCAN: frames from cansend and tavro-canplayer on two vcan interfaces,
# datagrams whose RelativeTime is the kernel receive stamp of their frame; a missing interface.

fms_conf() {
    write_conf fmstoip.conf service_port=47010 multicast_addr=239.10.0.2 network_interface=lo \
        multicast_ttl=1 pgn_counter_file=/tmp/pgn_counter period_ms=0 "can_interface=$1" \
        mapping_file=/data/tests/fms_mapping.json
}

# stamp_of DATA: the stamp in ms of the one frame with these data bytes in the candump -L log.
stamp_of() {
    awk -v data="$1" '{ split($3, f, "#") } f[2] == data {
        gsub(/[()]/, "", $1); split($1, t, "."); print t[1] substr(t[2], 1, 3); n++ }
        END { if (n != 1) exit 1 }' dump.out || fail "$1 is not once in $(cat dump.out)"
}

system_bus
vcan_up vcan0
vcan_up vcan1
printf 'FEF1=1\nF004=1\n' >/tmp/pgn_counter
fms_conf vcan0,vcan1
start dump candump -L vcan0 vcan1
wait_can_receivers vcan0 1
wait_can_receivers vcan1 1
mcast_listen mc 239.10.0.2 47010 5
mc=$started
start fmstoip tavro-fmstoip -vv
fmstoip=$started
wait_can_receivers vcan0 2
wait_can_receivers vcan1 2

# FEF2 is not requested: had it been sent, it would be one of the five.
cansend vcan0 18FEF200#1122334455667788
cansend vcan0 18FEF100#0480140000000000
cansend vcan1 0CF00400#F07D7D007DF07D01
cansend vcan0 18FEF100#0480150000000001
printf '%s\n' '(1700000000.000000) vcan0 18FEF100#0480160000000002' \
    '(1700000000.010000) vcan1 0CF00400#F07D7D007DF07D02' >player.log
tavro-canplayer player.log
wait "$mc" || fail "datagrams: $(cat mc.err) $(cat fmstoip.err)"

expect_eq "$(xml_texts PGN mc.d/* | sort | tr '\n' ' ')" "F004 F004 FEF1 FEF1 FEF1 " "PGNs"
for datagram in mc.d/*; do
    data=$(xml_texts Data "$datagram")
    expect_eq "$(xml_texts RelativeTime "$datagram")" "$(stamp_of "$data")" "RelativeTime of $data"
done
# The mapping decoded the CCVS frames on the way: wheel speed 0x1480/256 km/h.
expect_eq "$(xml_texts Value mc.d/000001 | sed -n 2p)" 20.500 "wheel speed"
stop_process "$fmstoip"
expect_eq "$status" 2 "exit status"

# One interface that does not exist disables the service; each failure is logged once.
fms_conf vcan0,nocan7
start missing tavro-fmstoip
wait_for missing.err 'FMStoIP will be disabled'
stop_process "$started"
expect_eq "$status" 2 "exit status with a missing interface"
expect_eq "$(grep -E 'bind|initiali[sz]' missing.err)" "WARN: Error in socket bind
ERR : Can: No interfaces initialized.
ERR : Somthing went wrong in the CanHandler initialisation. FMStoIP will be disabled." \
    "failure lines"
kill "$bus_pid"
