"""The CAN log player on the virtual bus."""

import os
import signal
import socket

import pytest

from canbus_peer import CAN_EFF_FLAG, CAN_RTR_FLAG, CanBus, log_line


@pytest.fixture
def bus(sandbox):
    b = CanBus(sandbox)
    b.add("vcan0")
    try:
        yield b
    finally:
        b.close()


LOG = [
    "# a comment, and one after blanks",
    "   # (1700000000.000000) can0 123#",
    "(1700000000.000000) can0 18FEF100#0102030405060708",
    "(1700000000.001000) can0 123#DEAD",
    "(1700000000.002000) can0 0CF00400#",
    "(1700000000.003000) can0 7FF#R",
    "(1700000000.004000) can0 18EA17F9#R3",
    "(1700000000.005000) can0 18FEEE00#11.22.33",
]


def test_every_reader_gets_every_record(bus):
    first = bus.receiver("vcan0", "first")
    second = bus.receiver("vcan0", "second")
    rc, out, err = bus.play("-f", "-m", "can0=vcan0", bus.write_log("a.log", LOG))
    assert (rc, out, err) == (0, "Sent 6 frames.\n", "")
    expected = [
        (0x18FEF100 | CAN_EFF_FLAG, 8, bytes(range(1, 9))),
        (0x123, 2, b"\xde\xad" + bytes(6)),
        (0x0CF00400 | CAN_EFF_FLAG, 0, bytes(8)),
        (0x7FF | CAN_RTR_FLAG, 0, bytes(8)),
        (0x18EA17F9 | CAN_EFF_FLAG | CAN_RTR_FLAG, 3, bytes(8)),
        (0x18FEEE00 | CAN_EFF_FLAG, 3, b"\x11\x22\x33" + bytes(5)),
    ]
    for rec in (first, second):
        frames = rec.wait_for(6)
        assert [f[1:] for f in frames] == expected
        assert all(f[0] is not None for f in frames)


def test_interface_mapping(bus):
    bus.add("vcan1")
    zero = bus.receiver("vcan0")
    one = bus.receiver("vcan1")
    log = bus.write_log("b.log", [
        (1.0, "can0", 0x100, b"\x00", False),
        (1.0, "can1", 0x101, b"\x01", False),
        (1.0, "can2", 0x102, b"\x02", False),
    ])
    rc, out, err = bus.play("-f", "-m", "can0=vcan0", "--map", "can1=vcan1", log)
    assert (rc, out) == (0, "Sent 2 frames.\n")
    assert "skipped 1 frames of unmapped interfaces" in err
    assert [f[1] for f in zero.wait_for(1)] == [0x100]
    assert [f[1] for f in one.wait_for(1)] == [0x101]
    # Without a mapping the frames go to the interface named in the log.
    rc, out, err = bus.play("-f", bus.write_log("c.log", ["(1.0) vcan0 200#"]))
    assert (rc, out) == (0, "Sent 1 frames.\n")
    assert zero.wait_for(2)[1][1] == 0x200


@pytest.mark.parametrize("line,message", [
    ("(1.0) can0 18FEF100##1020304", "CAN FD frame \"18FEF100##1020304\" (##) is not supported"),
    ("(1.0) can0 18FEF100#010", "data \"010\" is not pairs of hex digits"),
    ("(1.0) can0 18FEF1#01", "identifier \"18FEF1\" must have 3 or 8 hex digits"),
    ("(1.0) can0 800#01", "standard identifier \"800\" above 7FF"),
    ("(1.0) can0 123#010203040506070809",
     "more than 8 data bytes in \"123#010203040506070809\""),
    ("(x) can0 123#01", "bad time stamp \"(x)\""),
    ("(1.0) can0", "expected \"(time) interface frame\""),
])
def test_bad_lines_are_refused_before_sending(bus, line, message):
    rec = bus.receiver("vcan0")
    log = bus.write_log("bad.log", ["(1.0) can0 123#01", "", line])
    rc, out, err = bus.play("-f", "-m", "can0=vcan0", log)
    assert rc == 1
    assert out == ""
    assert err == "tavro-canplayer: %s:3: %s\n" % (log, message)
    assert rec.frames == []


def test_pace_rate_and_loops(bus):
    rec = bus.receiver("vcan0")
    log = bus.write_log("pace.log", [
        (1700000000.0, "can0", 0x18FEF100, b"\x01"),
        (1700000000.2, "can0", 0x18FEF100, b"\x02"),
        (1700000000.4, "can0", 0x18FEF100, b"\x03"),
    ])
    assert bus.play("-m", "can0=vcan0", log)[:2] == (0, "Sent 3 frames.\n")
    frames = rec.wait_for(3)
    # Recorded pace: 200 ms apart (a late start can only shorten the first gap a little).
    assert frames[2][0] - frames[0][0] >= 0.35
    assert bus.play("-r", "50", "-l", "3", "-m", "can0=vcan0", log)[:2] == (
        0, "Sent 9 frames.\n")
    frames = rec.wait_for(12)[3:]
    assert [f[3][0] for f in frames] == [1, 2, 3] * 3
    # 50 frames/s: 9 frames span at least 8 intervals of 20 ms.
    assert frames[-1][0] - frames[0][0] >= 0.15


def test_interrupt_reports_what_was_sent(bus):
    rec = bus.receiver("vcan0")
    log = bus.write_log("loop.log", [(1.0, "can0", 0x18FEF100, b"\x01")])
    player = bus.start_player("-r", "200", "-l", "0", "-m", "can0=vcan0", log)
    rec.wait_for(20)
    player.send(signal.SIGINT)
    assert player.wait(10) == 0
    sent = int(player.stdout.split()[1])
    assert sent >= 20
    assert len(rec.wait_for(sent)) == sent


def test_stale_and_other_files_in_the_bus_are_skipped(bus):
    rec = bus.receiver("vcan0")
    stale = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    stale.bind(os.path.join(bus.root, "vcan0", "stale"))
    stale.close()  # the file stays, nobody reads it
    with open(os.path.join(bus.root, "vcan0", "notes.txt"), "w") as f:
        f.write("not a socket\n")
    rc, out, err = bus.play("-f", "-m", "can0=vcan0",
                            bus.write_log("d.log", ["(1.0) can0 123#01"] * 3))
    assert (rc, out, err) == (0, "Sent 3 frames.\n", "")
    assert len(rec.wait_for(3)) == 3


def test_missing_bus_or_socketcan(bus, sandbox):
    log = bus.write_log("e.log", [log_line(1.0, "can0", 0x123, b"", False)])
    rc, out, err = bus.play("-f", "-m", "can0=vcan7", log)
    assert rc == 1
    assert err == "tavro-canplayer: no virtual bus directory %s/vcan7\n" % bus.root
    # Without the bus variable the player writes to SocketCAN, which this sandbox lacks.
    bus.env = {}
    env_rc, out, err = bus.play("-f", log)
    assert env_rc == 1
    assert out == ""
    assert err.startswith("tavro-canplayer: ")
    assert "can0" in err
