"""tavro-fmstoip end to end: frames on the virtual CAN bus, documents received by multicast on
the far end of a veth pair, the counter file. test_pgnhttp builds on these helpers."""

import os
import time
import xml.etree.ElementTree as ET
from pathlib import Path

from canbus_peer import CanBus
from sandbox import SLOW, SOURCE_DIR

GROUP = "239.10.0.2"
PORT = 47010
COUNTER_DIR = "/var/lib/tavro"
COUNTER_FILE = COUNTER_DIR + "/pgn_counter"
MAPPING = os.path.join(SOURCE_DIR, "tests", "data", "fms_mapping.json")

SHIPPED = Path(SOURCE_DIR, "etc", "fmstoip.conf").read_text().splitlines()
# The shipped configuration (immediate mode, TTL 1) on the veth pair, with the test mapping.
FMS = dict([line.split("=", 1) for line in SHIPPED if "=" in line and line[0] != "#"],
           multicast_addr=GROUP, service_port=PORT, network_interface="v0", mapping_file=MAPPING)

# CCVS: parking brake set, wheel speed 0x1480/256 km/h.
CCVS = (0x18FEF100, bytes([0x04, 0x80, 0x14, 0, 0, 0, 0, 0]))
EEC1 = (0x0CF00400, bytes([0xF0, 0x7D, 0x7D, 0x00, 0x7D, 0xF0, 0x7D, 0x7D]))


def start(sandbox, bus, counts="FEF1=1\n", args=("-v",), **settings):
    """The daemon reading can0 of the virtual bus, with a counter file written beforehand."""
    if COUNTER_DIR not in sandbox.mounts:
        sandbox.mount_tmpfs(COUNTER_DIR)
    Path(COUNTER_FILE).write_text(counts)
    sandbox.write_conf("fmstoip.conf", dict(FMS, **settings))
    directory = bus.add("can0")
    proc = sandbox.tavro("fmstoip", *args, env=bus.env)
    deadline = time.monotonic() + 10 * SLOW
    while not any(name.startswith("tavro-") for name in os.listdir(directory)):
        assert time.monotonic() < deadline, "no CAN reader:\n" + proc.stderr
        time.sleep(0.02)
    return proc


def network(sandbox):
    """The veth pair, unless avahi made it; v1 takes datagrams from v0's (local) address."""
    if "v0" not in sandbox.links:
        sandbox.veth()
    for key in ("conf/all/rp_filter", "conf/v1/rp_filter", "conf/v1/accept_local"):
        Path("/proc/sys/net/ipv4/" + key).write_text("0" if key.endswith("rp_filter") else "1")
    return sandbox.listen(GROUP, PORT, "10.20.0.2")


def play(bus, *frames, step=0.01, timeout=30):
    path = bus.write_log("frames.log", [(1700000000.0 + i * step, "can0") + f
                                        for i, f in enumerate(frames)])
    rc, out, err = bus.play("-f", path, timeout=timeout)
    assert rc == 0, err


def frames_of(datagram):
    """(FMSVersion, [(PGN, Data)]) of a document, read by a strict parser."""
    fms = ET.fromstring(datagram).find("FMStoIP")
    return fms.get("FMSVersion"), [(f.findtext("PGN"), f.findtext("Data")) for f in fms]


def threads(pid):
    """{thread name: the fields of its stat after the name} of a process."""
    stats = [p.read_text() for p in Path("/proc/%d/task" % pid).glob("*/stat")]
    return {s[s.find("(") + 1:s.rfind(")")]: s[s.rfind(")") + 1:].split() for s in stats}


def test_immediate_mode_sends_each_requested_frame(sandbox):
    listener = network(sandbox)
    bus = CanBus(sandbox)
    sandbox.write_conf("tavro.conf", {"realtime_priority": 1})
    proc = start(sandbox, bus)
    play(bus, CCVS, EEC1)
    ((_, datagram, ttl),) = listener.wait_for(1)
    assert datagram.decode().startswith(
        '<?xml version="1.0"?>\n<FMStoIPDelivery version="1.1a">\n'
        '\t<FMStoIP FMSVersion="0000">\n\t\t<Frame Status="OK">\n\t\t\t<PGN>FEF1</PGN>\n')
    assert frames_of(datagram)[1] == [("FEF1", "0480140000000000")] and ttl == 1
    # Only the threads that carry frames are real-time (policy 1: SCHED_FIFO).
    assert {n for n, f in threads(proc.pid).items() if f[38] == "1"} == {"can can0", "fmstoip"}
