# canhandler_test's SocketCAN rounds (stop times printed) and start failures on real vcan0.
vcan_up vcan0
TAVRO_SOCKETCAN=vcan0 canhandler_test \
    --gtest_filter='CanHandler.SocketCan*:CanHandler.StartFailures' >test.out 2>&1 ||
    fail "$(cat test.out)"
grep -q '^\[  PASSED  \] 2 tests' test.out || fail "not run: $(cat test.out)"
grep '^CanHandler::stop' test.out
