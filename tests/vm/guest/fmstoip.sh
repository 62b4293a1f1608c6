# tavro-fmstoip with one of its two interfaces missing on real SocketCAN: the service is
# disabled, each failure logged once, and the daemon still ends on SIGINT. (Frames and their
# kernel stamps on SocketCAN: canhandler.sh.)
system_bus
vcan_up vcan0
write_conf fmstoip.conf service_port=47010 multicast_addr=239.10.0.2 network_interface=lo \
    multicast_ttl=1 pgn_counter_file=/tmp/pgn_counter period_ms=0 can_interface=vcan0,nocan7 \
    mapping_file=/data/tests/fms_mapping.json
start missing tavro-fmstoip
wait_for missing.err 'FMStoIP will be disabled'
stop_process "$started"
expect_eq "$status" 2 "exit status with a missing interface"
expect_eq "$(grep -E 'bind|initiali[sz]' missing.err)" "WARN: Error in socket bind
ERR : Can: No interfaces initialized.
ERR : Somthing went wrong in the CanHandler initialisation. FMStoIP will be disabled." \
    "failure lines"
kill "$bus_pid"
