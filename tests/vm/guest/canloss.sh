# A CAN interface that goes down, vanishes and comes back while the daemon reads it: each is
# reported once, and the reader gets the frames again once the interface is back.

vcan_up vcan0
write_conf fmstoip.conf can_interface=vcan0
start daemon tavro-fmstoip -vvv
daemon=$started
wait_can_receivers vcan0 1
cansend vcan0 18FEF100#0102030405060708
wait_for daemon.err '^DBG : 18fef100 \[8\] 0102030405060708$'

ip link set vcan0 down
wait_for daemon.err '^WARN: Can: vcan0 is down\.$'
ip link set vcan0 up
cansend vcan0 18FEF100#1112131415161718
wait_for daemon.err '^DBG : 18fef100 \[8\] 1112131415161718$'

ip link del vcan0
wait_for daemon.err '^WARN: Can: vcan0 is gone \(No such device\)\. Opening it again every second\.$'
sleep 2
vcan_up vcan0
wait_for daemon.err '^NOTE: Can: vcan0 is back\.$'
wait_can_receivers vcan0 1
cansend vcan0 18FEF100#2122232425262728
wait_for daemon.err '^DBG : 18fef100 \[8\] 2122232425262728$'
expect_eq "$(count_lines daemon.err 'is gone')" 1 "reports of the vanished interface"

stop_process "$daemon"
expect_eq "$status" 2 "daemon exit status after SIGINT"
