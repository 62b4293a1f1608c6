"""tavro-gnss with gpsd late, slamming the door, real, or gone with its host (killed: test_all)."""

import contextlib
import re
import socket
import subprocess
import time
import xml.etree.ElementTree as ET

from avahi_peer import RemoteHost
from gpsd_peer import Gpsd, NmeaFeed
from sandbox import SLOW
from vehicle import install_conf

CONNECT_FAILED = r"^WARN: Error while connecting to Gnss socket\. -1= -1retrying\.\.\.$"
# The epochs of bus-3d.nmea as gpsd reports them (speed in m/s); the satellites are the same.
FIXES = {(("47.3769", "N"), ("8.54169", "E"), "2025-06-03", "08:15:00", "5.556", "41.7", "408.50"),
         (("47.3769", "N"), ("8.54174", "E"), "2025-06-03", "08:15:01", "6.122", "42.7", "408.70"),
         (("47.377", "N"), ("8.54179", "E"), "2025-06-03", "08:15:02", "6.482", "43.7", "408.90")}
TPV = ("Latitude", "Longitude", "Date", "Time", "SpeedOverGround", "TrackDegreeTrue", "Altitude")
SKY = ("NumberOfSatellites", "HorizontalDilutionOfPrecision", "VerticalDilutionOfPrecision")


def values(payload):  # (Degree, Direction) for the coordinates
    return {e.tag: tuple(c.text for c in e) if len(e) else e.text
            for e in ET.fromstring(payload).find("GNSSLocation")}


def until(condition, timeout):
    deadline = time.monotonic() + timeout * SLOW
    while not (done := condition()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return done


def test_gpsd_late_then_slamming_the_door_then_real_with_fixes(sandbox):
    """gpsd not running yet; then what a gpsd at its client limit (or another program on its
    port) does: accept and close, tried after 1, 2, 4 s with a few log lines. Then a real gpsd,
    found within the current wait, and its fixes."""
    listener = sandbox.listen("239.1.1.11", 50011)
    feed = NmeaFeed(sandbox, "bus-3d.nmea")
    install_conf("gnss.conf", {"network_interface": "lo"})
    proc = sandbox.tavro("gnss", "-v")
    # Refused attempts repeat every second (their lines summarised), and the door-slammer's port
    # is found within a second of its start.
    proc.wait_for(CONNECT_FAILED)
    time.sleep(2)
    slammer = socket.create_server(("127.0.0.1", 2947))
    slammer.settimeout(0.02)
    began = time.monotonic()
    accepted = []

    def slam():
        # The reader's wait begins when it sees the close, so a late accept only adds to a gap.
        with contextlib.suppress(socket.timeout):
            slammer.accept()[0].close()
            accepted.append(time.monotonic())
        return len(accepted) == 4

    until(slam, 20)
    slammer.close()
    assert len(accepted) == 4 and accepted[0] - began < 2 * SLOW, (began, accepted)
    gaps = [b - a for a, b in zip(accepted, accepted[1:])]
    assert all(0.9 * w < g < w + 1.5 * SLOW for g, w in zip(gaps, (1, 2, 4))), gaps
    assert len(re.findall(CONNECT_FAILED, proc.stderr, re.M)) == 1
    assert len(proc.lines()) < 12, proc.stderr

    # The next wait is 8 s; a good gpsd started now is connected when it ends.
    Gpsd(sandbox, feed).start()
    listener.clear()
    listener.wait_for(1, 20, lambda p: values(p)["SignalQuality"] == "GPS")
    assert time.monotonic() - accepted[-1] < 8 + 3 * SLOW
    listener.clear()
    docs = [values(d[1]) for d in listener.wait_for(8, 20)]
    # Each document: a fix, and the sentences since the one before, each up to its checksum:
    # none lost, none twice (gpsd sends both only to a client that asked with WATCH).
    assert all(d["SignalQuality"] == "GPS" and tuple(d[k] for k in TPV) in FIXES
               and tuple(d[k] for k in SKY) == ("3", "0.9", "1.3") for d in docs), docs
    assert all(re.fullmatch(r"(\$[^$*]*\*[0-9A-F]{2})+", d["Data"]) for d in docs), docs
    assert "".join(d["Data"] for d in docs) in "".join(feed.sent)
    assert len(proc.lines()) < 20, proc.stderr
    proc.interrupt()
    assert proc.wait(5) == 2


def test_gpsd_host_that_vanishes_is_given_up_and_found_again(sandbox):
    """gpsd on another host behind a veth pair, its end taken down: no FIN, no RST, only silence.
    The reader gives up after the keepalive probes and connects again once the host is back; a
    silent but reachable gpsd is kept, and does not hold up the end."""
    sandbox.veth()
    host = RemoteHost(sandbox, avahi=False)
    # No receiver: gpsd says hello and then nothing. Without a device it needs a control socket.
    host.spawn(["gpsd", "-N", "-n", "-G", "-S", "2947", "-F", sandbox.path("gpsd.sock")],
               name="remote-gpsd")
    install_conf("gnss.conf", {"network_interface": "v0", "gpsd_addr": "10.20.0.2"})
    proc = sandbox.tavro("gnss")

    def established():
        """Client ports of the connections the remote gpsd holds open."""
        out = subprocess.run(host._enter(["ss", "-Htn", "state", "established", "sport", "=",
                                          ":2947"]), capture_output=True, text=True).stdout
        return {line.split()[-1] for line in out.splitlines()}

    first = until(established, 10)
    assert len(first) == 1
    # Past the first keepalive probe, which the host answers.
    time.sleep(15)
    assert "Reading from socket failed." not in proc.stderr
    assert established() == first

    host.run("ip", "link", "set", "v1", "down")
    began = time.monotonic()
    proc.wait_for(r"^NOTE: Reading from socket failed\.$", timeout=40 * SLOW)
    assert time.monotonic() - began < 32
    host.run("ip", "link", "set", "v1", "up")
    assert until(lambda: established() - first, 15), "connected again"
    proc.interrupt()
    assert proc.wait(5) == 2
