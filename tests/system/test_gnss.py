"""tavro-gnss with a real gpsd: documents of each kind of fix, their rhythm, gpsd late or gone."""

import re
import statistics
import time
import xml.etree.ElementTree as ET

import socket
import subprocess
import threading

from avahi_peer import RemoteHost
from gpsd_peer import Gpsd, NmeaFeed, read_epochs
from sandbox import SLOW
from vehicle import install_conf

CONNECT_FAILED = r"^WARN: Error while connecting to Gnss socket\. -1= -1retrying\.\.\.$"
TPV = ("Latitude", "Longitude", "Date", "Time", "SpeedOverGround", "TrackDegreeTrue")
SKY = ("NumberOfSatellites", "HorizontalDilutionOfPrecision", "VerticalDilutionOfPrecision")


def values(payload):
    # Texts by element name; (Degree, Direction) for the coordinates.
    return {e.tag: tuple(c.text for c in e) if len(e) else e.text
            for e in ET.fromstring(payload).find("GNSSLocation")}


def carries(doc, log):
    """Whether the document carries a fix of the log, as gpsd reports it: position (TPV, from
    RMC) and satellites (SKY, from GSA) come apart, and a document may fall between the two."""
    tpv, sky = set(), set()
    for epoch in read_epochs(log):
        fields = {s[3:6]: s.split("*")[0].split(",") for s in epoch}
        rmc, gsa = fields["RMC"], fields["GSA"]
        degrees = lambda text, width: "%g" % (int(text[:width]) + float(text[width:]) / 60)
        tpv.add(((degrees(rmc[3], 2), rmc[4]), (degrees(rmc[5], 3), rmc[6]),
                 "20" + "-".join(reversed(re.findall("..", rmc[9]))),
                 ":".join(re.findall("..", rmc[1][:6])),
                 "%g" % round(float(rmc[7]) * 1852 / 3600, 3), "%g" % float(rmc[8])))
        sky.add((str(len([p for p in gsa[3:15] if p])), "%g" % float(gsa[16]),
                 "%g" % float(gsa[17])))
    return (doc["SignalQuality"] == "GPS" and tuple(doc[k] for k in TPV) in tpv
            and tuple(doc[k] for k in SKY) in sky)


def test_fixes_rhythm_and_gpsd_coming_and_going(sandbox):
    sandbox.veth()
    listener = sandbox.listen("239.1.1.11", 50011, "10.20.0.1")
    # Four epochs a second, so that every document has a fresh fix.
    feed = NmeaFeed(sandbox, "bus-3d.nmea")
    gpsd = Gpsd(sandbox, feed)
    install_conf("gnss.conf", {"network_interface": "v0"})
    proc = sandbox.tavro("gnss", "-vv")

    def document(predicate, timeout=10.0):
        listener.clear()
        return values(listener.wait_for(1, timeout, lambda p: predicate(values(p)))[-1][1])

    # gpsd not there yet: documents without a fix, and gpsd picked up within a second of its
    # start (attempts repeat every second; their lines are summarised).
    proc.wait_for(CONNECT_FAILED)
    assert values(listener.wait_for(1)[0][1])["SignalQuality"] == "NotValid"
    time.sleep(2)
    began = time.monotonic()
    gpsd.start()
    document(lambda d: d["SignalQuality"] == "GPS")
    # Reconnect, WATCH, first report and the next document.
    assert time.monotonic() - began < 3.5 * SLOW
    assert len(re.findall(CONNECT_FAILED, proc.stderr, re.M)) == 1
    listener.clear()
    received = listener.wait_for(32, timeout=45)
    docs = [values(d[1]) for d in received]
    # Every document carries a fix with its altitude, and the sentences that came since the
    # document before, each up to its checksum: none lost, none twice.
    assert all(carries(d, "bus-3d.nmea") for d in docs), docs
    assert {d["Altitude"] for d in docs} <= {"408.50", "408.70", "408.90"}
    assert all(re.fullmatch(r"(\$[^$*]*\*[0-9A-F]{2})+", d["Data"]) for d in docs), docs
    assert "".join(d["Data"] for d in docs) in "".join(feed.sent)
    times = [d[0] for d in received]
    median = statistics.median(b - a for a, b in zip(times, times[1:]))
    drift = (times[-1] - times[0]) / (len(times) - 1) - 1.0
    print("documents %d over %.2f s, median period %.4f s, mean drift %+.2f ms per document"
          % (len(times), times[-1] - times[0], median, drift * 1000))
    assert 0.9 < median < 1.1 and abs(drift) < 0.05

    # gpsd restarted: the reader notices, reconnects, and asks with WATCH again (gpsd sends
    # nothing to a client that did not ask), now for a 2D fix.
    tries = len(re.findall(CONNECT_FAILED, proc.stderr, re.M))
    gpsd.stop()
    proc.wait_for(r"^NOTE: Reading from socket failed\.$")
    proc.wait_for(CONNECT_FAILED, count=tries + 1)
    feed.play("fix-2d.nmea")
    gpsd.start()
    two_d = document(lambda d: carries(d, "fix-2d.nmea"))

    # Fix lost: not valid, the last position kept, speed 0, one satellite, the system time.
    feed.play("lost-fix.nmea")
    lost = document(lambda d: d["SignalQuality"] == "NotValid")
    assert (lost["Latitude"], lost["Longitude"]) == (two_d["Latitude"], two_d["Longitude"])
    assert (lost["SpeedOverGround"], lost["NumberOfSatellites"]) == ("0", "1")
    stamps = [time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(time.time() - d)) for d in range(3)]
    assert "%s %s" % (lost["Date"], lost["Time"]) in stamps

    feed.play("south-west.nmea")
    south = document(lambda d: carries(d, "south-west.nmea"))
    assert (south["Latitude"][1], south["Longitude"][1], south["Altitude"]) == (
        "S", "W", "570.20")
    proc.interrupt()
    assert proc.wait(5) == 2


def test_gpsd_that_closes_at_once_is_tried_less_and_less_often(sandbox):
    """What a gpsd at its client limit, or another program on its port, does: accept and
    close. Waits of 1, 2, 4 s between attempts, a few log lines, and a good gpsd found within
    the current wait."""
    slammer = socket.create_server(("127.0.0.1", 2947))
    slammer.settimeout(0.1)
    accepted = []
    done = threading.Event()

    def slam():
        while not done.is_set():
            try:
                conn = slammer.accept()[0]
            except OSError:
                continue
            accepted.append(time.monotonic())
            conn.close()
        # Closed here: a close from another thread leaves a blocked accept() listening.
        slammer.close()

    thread = threading.Thread(target=slam, daemon=True)
    thread.start()
    install_conf("gnss.conf", {"network_interface": "lo"})
    proc = sandbox.tavro("gnss", "-v")
    deadline = time.monotonic() + 20 * SLOW
    while len(accepted) < 4 and time.monotonic() < deadline:
        time.sleep(0.05)
    done.set()
    thread.join()
    assert len(accepted) == 4, accepted
    gaps = [b - a for a, b in zip(accepted, accepted[1:])]
    print("waits between attempts: %s s" % ", ".join("%.2f" % g for g in gaps))
    assert all(0.9 * w < g < w + 1.5 * SLOW for g, w in zip(gaps, (1, 2, 4))), gaps
    assert len(proc.lines()) < 12, proc.stderr

    # The next wait is 8 s; a good gpsd started now is connected when it ends.
    listener = sandbox.listen("239.1.1.11", 50011)
    Gpsd(sandbox, NmeaFeed(sandbox, "bus-3d.nmea")).start()
    try:
        listener.wait_for(1, 20, lambda p: values(p)["SignalQuality"] == "GPS")
    except AssertionError as e:
        raise AssertionError("%s\n%s" % (e, proc.stderr))
    assert time.monotonic() - accepted[-1] < 8 + 3 * SLOW
    assert len(proc.lines()) < 14, proc.stderr
    proc.interrupt()
    assert proc.wait(5) == 2


def established(host, port=2947):
    """Client ports of the connections the remote gpsd holds open."""
    out = subprocess.run(host._enter(["ss", "-Htn", "state", "established", "sport", "=",
                                      ":%d" % port]), capture_output=True, text=True).stdout
    return {line.split()[-1] for line in out.splitlines()}


def test_gpsd_host_that_vanishes_is_given_up_and_found_again(sandbox):
    """gpsd on another host behind a veth pair. Its end is taken down: no FIN, no RST, only
    silence. The reader gives the connection up after the keepalive probes and connects
    again once the host is back; a silent but reachable gpsd is kept."""
    sandbox.veth()
    host = RemoteHost(sandbox, avahi=False)
    # No receiver: gpsd says hello and then nothing. Without a device it needs a control socket.
    host.spawn(["gpsd", "-N", "-n", "-G", "-S", "2947", "-F", sandbox.path("gpsd.sock")],
               name="remote-gpsd")
    install_conf("gnss.conf", {"network_interface": "v0", "gpsd_addr": "10.20.0.2"})
    proc = sandbox.tavro("gnss")
    deadline = time.monotonic() + 10 * SLOW
    while not established(host) and time.monotonic() < deadline:
        time.sleep(0.2)
    first = established(host)
    assert len(first) == 1
    # Past the first keepalive probe, which the host answers.
    time.sleep(15)
    assert "Reading from socket failed." not in proc.stderr
    assert established(host) == first

    host.run("ip", "link", "set", "v1", "down")
    began = time.monotonic()
    proc.wait_for(r"^NOTE: Reading from socket failed\.$", timeout=40 * SLOW)
    lost = time.monotonic() - began
    print("connection given up %.1f s after the host vanished" % lost)
    assert lost < 32
    host.run("ip", "link", "set", "v1", "up")
    deadline = time.monotonic() + 15 * SLOW
    while not established(host) - first and time.monotonic() < deadline:
        time.sleep(0.2)
    assert established(host) - first, "connected again"
    proc.interrupt()
    assert proc.wait(5) == 2
