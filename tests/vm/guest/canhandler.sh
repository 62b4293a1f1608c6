# CanHandler on real SocketCAN (vcan0): five rounds of start, a frame with the kernel's stamp and
# stop (whose time it prints); missing and overlong interface names.
vcan_up vcan0
TAVRO_SOCKETCAN=vcan0 canhandler_test \
    --gtest_filter='CanHandler.SocketCan*:CanHandler.StartFailures' >test.out 2>&1 ||
    fail "$(cat test.out)"
grep -q '^\[  PASSED  \] 2 tests' test.out || fail "not run: $(cat test.out)"
grep '^CanHandler::stop' test.out
