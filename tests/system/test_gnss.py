"""tavro-gnss with a real gpsd: documents for every kind of fix, their rhythm, and the
reader's recovery when gpsd starts late or restarts."""

import re
import statistics
import time
import xml.etree.ElementTree as ET

from gpsd_peer import Gpsd, NmeaFeed, read_epochs

GROUP, PORT = "239.1.1.11", 50011
GNSS = {"service_name": "tavro-gnss", "service_type": "gnsslocation",
        "service_protocol": "udp", "service_port": PORT, "service_txtversion": 1,
        "service_version": "1.0", "service_domain": "local", "multicast_addr": GROUP,
        "multicast_ttl": 1, "network_interface": "v0", "gpsd_addr": "localhost",
        "gpsd_port": 2947}
CONNECT_FAILED = r"^WARN: Error while connecting to Gnss socket\. -1= -1retrying\.\.\.$"


def start(sandbox, log, *args, veth=True):
    """A feed of log at four epochs a second (so every document has a fresh fix), gpsd (not
    started), tavro-gnss and a listener on the far end of the veth pair."""
    if veth:
        sandbox.veth()
    # v1 takes datagrams whose source is v0's address, which is local too.
    for key, value in (("all/rp_filter", 0), ("v1/rp_filter", 0), ("v1/accept_local", 1)):
        with open("/proc/sys/net/ipv4/conf/" + key, "w") as f:
            f.write(str(value))
    listener = sandbox.listen(GROUP, PORT, "10.20.0.2")
    feed = NmeaFeed(sandbox, log)
    sandbox.write_conf("gnss.conf", GNSS)
    return sandbox.tavro("gnss", *args), feed, Gpsd(sandbox, feed), listener


def values(payload):
    """Texts by element name; (Degree, Direction) for the coordinates."""
    root = ET.fromstring(payload)
    assert (root.tag, root.attrib) == ("GNSSLocationDelivery", {"version": "1.1a"})
    return {e.tag: tuple(c.text for c in e) if len(e) else e.text
            for e in root.find("GNSSLocation")}


def expected(epoch):
    """What a document says about the fix of one epoch."""
    gga, gsa, rmc = ({s[3:6]: s.split("*")[0].split(",") for s in epoch}[kind]
                     for kind in ("GGA", "GSA", "RMC"))
    degrees = lambda text, hemisphere, width: (
        "%g" % (int(text[:width]) + float(text[width:]) / 60), hemisphere)
    return {"Latitude": degrees(rmc[3], rmc[4], 2), "Longitude": degrees(rmc[5], rmc[6], 3),
            "Time": ":".join(re.findall("..", rmc[1][:6])),
            "Date": "20" + "-".join(reversed(re.findall("..", rmc[9]))),
            "SpeedOverGround": "%g" % round(float(rmc[7]) * 1852 / 3600, 3),  # gpsd's m/s
            "TrackDegreeTrue": "%g" % float(rmc[8]), "SignalQuality": "GPS",
            "NumberOfSatellites": str(len([p for p in gsa[3:15] if p])),
            "HorizontalDilutionOfPrecision": "%g" % float(gsa[16]),
            "VerticalDilutionOfPrecision": "%g" % float(gsa[17]),
            "GNSSType": "MixedGNSSTypes", "GNSSCoordinateSystem": "WGS84"}


SKY = ("NumberOfSatellites", "HorizontalDilutionOfPrecision", "VerticalDilutionOfPrecision")


def carries(doc, log, altitude=None):
    """Whether the document carries the fix of one of the log's epochs. Position (TPV) and
    satellites (SKY) are separate reports: a document may fall between the two of an epoch."""
    def matches(keys):
        return any(all(doc.get(k) == v for k, v in expected(e).items() if k in keys)
                   for e in read_epochs(log))
    tpv = [k for k in expected(read_epochs(log)[0]) if k not in SKY]
    return matches(tpv) and matches(SKY) and altitude in (None, doc["Altitude"])


def wait_document(listener, predicate, timeout=10.0):
    return values(listener.wait_for(1, timeout, lambda p: predicate(values(p)))[-1][1])


def test_moving_bus_once_a_second_and_announced(sandbox, avahi):
    proc, feed, gpsd, listener = start(sandbox, "bus-3d.nmea", veth=False)
    gpsd.start()
    rec = avahi.wait_for("tavro-gnss", "_gnsslocation._udp")
    assert (rec.port, rec.txt) == (PORT, ["txtversion=1", "version=1.0", "multicast=" + GROUP])
    received = listener.wait_for(33, timeout=45)
    docs = [values(d[1]) for d in received]

    # Every document from the first fix on carries a fix with its altitude, and the
    # sentences that came since the document before, each up to its checksum.
    fixed = docs[next(i for i, d in enumerate(docs) if d["SignalQuality"] == "GPS"):]
    assert all(carries(d, "bus-3d.nmea") for d in fixed), fixed
    assert {d["Altitude"] for d in fixed} <= {"408.50", "408.70", "408.90"}
    assert all(re.fullmatch(r"(\$[^$*]*\*[0-9A-F]{2})+", d["Data"]) for d in fixed), fixed
    # None lost, none twice.
    assert "".join(d["Data"] or "" for d in docs) in "".join(feed.sent)

    times = [d[0] for d in received]
    median = statistics.median(b - a for a, b in zip(times, times[1:]))
    drift = (times[-1] - times[0]) / (len(times) - 1) - 1.0
    print("documents %d over %.2f s, median period %.4f s, mean drift %+.2f ms per document"
          % (len(times), times[-1] - times[0], median, drift * 1000))
    assert 0.9 < median < 1.1 and abs(drift) < 0.05
    proc.interrupt()
    assert proc.wait(5) == 2


def test_2d_lost_and_southern_western_fixes(sandbox):
    proc, feed, gpsd, listener = start(sandbox, "fix-2d.nmea")
    gpsd.start()
    # "0", not "0.00": a 2D fix sets no altitude.
    assert wait_document(listener, lambda d: carries(d, "fix-2d.nmea", "0"))

    # Fix lost: not valid, the last position kept, speed 0, one satellite, the system time.
    listener.clear()
    feed.play("lost-fix.nmea")
    lost = wait_document(listener, lambda d: d["SignalQuality"] == "NotValid")
    two_d = expected(read_epochs("fix-2d.nmea")[0])
    assert (lost["Latitude"], lost["Longitude"]) == (two_d["Latitude"], two_d["Longitude"])
    assert (lost["SpeedOverGround"], lost["NumberOfSatellites"]) == ("0", "1")
    stamps = [time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(time.time() - d)) for d in range(3)]
    assert "%s %s" % (lost["Date"], lost["Time"]) in stamps

    feed.play("south-west.nmea")
    south = wait_document(listener, lambda d: carries(d, "south-west.nmea", "570.20"))
    assert (south["Latitude"][1], south["Longitude"][1]) == ("S", "W")
    proc.interrupt()
    assert proc.wait(5) == 2


def test_gpsd_started_late_and_restarted(sandbox):
    proc, _, gpsd, listener = start(sandbox, "bus-3d.nmea", "-vv")
    proc.wait_for(CONNECT_FAILED)
    began = time.monotonic()
    proc.wait_for(CONNECT_FAILED, count=3)
    assert 1.5 < time.monotonic() - began < 4.0, "one attempt a second"
    assert values(listener.wait_for(1)[0][1])["SignalQuality"] == "NotValid"
    gpsd.start()
    wait_document(listener, lambda d: d["SignalQuality"] == "GPS")

    tries = len(re.findall(CONNECT_FAILED, proc.stderr, re.M))
    gpsd.stop()
    proc.wait_for(r"^NOTE: Reading from socket failed\.$")
    proc.wait_for(CONNECT_FAILED, count=tries + 1)
    listener.clear()
    wait_document(listener, lambda d: d["SignalQuality"] == "NotValid")
    # gpsd sends nothing to a client that did not ask: fixes again mean a WATCH again.
    gpsd.start()
    listener.clear()
    wait_document(listener, lambda d: d["SignalQuality"] == "GPS")
    proc.interrupt()
    assert proc.wait(5) == 2
