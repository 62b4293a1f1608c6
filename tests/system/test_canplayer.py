"""The CAN log player refuses a log with a line it cannot send, before sending anything."""

from canbus_peer import CanBus, pack_frame


def test_bad_line_is_refused_before_sending(sandbox):
    bus = CanBus(sandbox)
    bus.add("vcan0")
    rec = bus.receiver("vcan0")
    log = bus.write_log("bad.log", ["(1.0) can0 123#01", "", "(1.0) can0 123#0102030405060708FF"])
    rc, out, err = bus.play("-f", "-m", "can0=vcan0", log)
    assert (rc, out, err) == (1, "", "tavro-canplayer: %s:3: more than 8 data bytes in "
                              "\"123#0102030405060708FF\"\n" % log)
    # Had the player sent its first line, it would come before this one.
    bus.send("vcan0", pack_frame(0x7FF, extended=False))
    assert [f[1] for f in rec.wait_for(1)] == [0x7FF]
