# CanHandler's own SocketCAN case: start, receive with the kernel stamp, and stop (whose time
# it prints) in five rounds on vcan0.
vcan_up vcan0
TAVRO_SOCKETCAN=vcan0 canhandler_test --gtest_filter='CanHandler.SocketCan*' >test.out 2>&1 ||
    fail "$(cat test.out)"
grep -q '^\[  PASSED  \] 1 test' test.out || fail "not run: $(cat test.out)"
grep '^CanHandler::stop' test.out
