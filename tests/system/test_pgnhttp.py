"""PGN requests over HTTP: a real nginx in front of tavro-fmstoip, frames from the virtual CAN
bus, multicast on the far end of a veth pair."""

import re
import resource
import socket
import time
import xml.etree.ElementTree as ET

from canbus_peer import CanBus
from nginx_peer import Nginx, wait_for_port
from sandbox import SANITIZED, SLOW
from test_fmstoip import CCVS, COUNTER_FILE, EEC1, frames_of, network, play, start

FCGI_PORT = 9000
PAGE = "<html><body>%s</body></html>\n"
OK = (200, "text/html", PAGE % "Ok")
BAD = (400, "text/html", PAGE % "Bad Request")
NO_PACKET = (408, "text/html", PAGE % "No can packet with the requested pgn is available.")


def serve(sandbox, bus, counts, args=(), **options):
    """The daemon behind nginx; ask(name, root, pgn, path) gives (status, type, body)."""
    sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
    for name in ("add", "remove", "get"):
        sandbox.write_conf("%spgn.conf" % name, {
            "service_name": "tavro-%spgn" % name, "service_type": "%spgn" % name,
            "service_protocol": "tcp", "service_domain": "local", "service_port": 8085,
            "service_txtversion": 1, "service_version": "1.0",
            "service_path": "/fmstoip/%spgn" % name})
    proc = start(sandbox, bus, counts=counts, args=args, **options)
    wait_for_port(FCGI_PORT)
    nginx = Nginx(sandbox, FCGI_PORT)

    def ask(name, root, pgn="FEF1", path=None):
        status, _, headers, body = nginx.request(
            "POST", path or "/fmstoip/%spgn" % name, "<%s>%s</%s>" % (root, pgn, root))
        return status, headers["Content-Type"], body.decode()
    return proc, nginx, ask


def test_pgn_requests_through_nginx(sandbox, avahi):
    listener = network(sandbox)
    bus = CanBus(sandbox)
    proc, nginx, ask = serve(sandbox, bus, "", args=("-vv",))

    def counts():
        with open(COUNTER_FILE) as f:
            return f.read()

    def sent(*frames):
        """PGNs of the datagrams for the frames; F004, requested, comes last as end marker."""
        listener.clear()
        play(bus, *frames, EEC1)
        listener.wait_for(predicate=lambda d: b"<PGN>F004</PGN>" in d)
        return [frames_of(d)[1][0][0] for d in listener.payloads()]

    assert ask("get", "PGNGet") == NO_PACKET
    # Seen on the bus but not requested: kept for the get request, not sent.
    play(bus, CCVS)
    deadline = time.monotonic() + 5 * SLOW
    while (answer := ask("get", "PGNGet")) == NO_PACKET and time.monotonic() < deadline:
        time.sleep(0.05)
    assert answer[:2] == (200, "text/xml")
    assert [f[:2] for f in frames_of(answer[2])[1]] == [("FEF1", "0480140000000000")]
    for other in ("65265", "fef1", "F004"):
        assert ask("get", "PGNGet", other) == NO_PACKET
    assert listener.datagrams == []
    # The web server logs the STDERR copy of the body, every byte one higher.
    nginx.process.wait_for(r'FastCGI sent in stderr: "=QHOHfu\?GFG2=0QHOHfu\?"')

    assert ask("add", "PGNReq", "F004") == ask("add", "PGNReq") == OK
    assert counts() == "F004=1\nFEF1=1\n"
    assert sent(CCVS) == ["FEF1", "F004"]
    assert ask("add", "PGNReq") == ask("remove", "PGNRem") == OK
    assert counts() == "F004=1\nFEF1=1\n"
    assert ask("remove", "PGNRem") == OK
    assert counts() == "F004=1\n"
    assert sent(CCVS) == ["F004"]

    assert ask("get", "PGNReq") == ask("add", "PGNGet") == ask("remove", "x") == BAD
    assert ask("get", "PGNGet", path="/fmstoip/other") == (404, "text/html", PAGE % "Not Found")

    # Peers by the thousand that send half a header and keep quiet do not lock nginx out.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, 2000)), hard))
    peers = [socket.socket() for _ in range(min(1500, max(soft, min(hard, 2000)) - 200))]
    for peer in peers:
        peer.setblocking(False)
        peer.connect_ex(("127.0.0.1", FCGI_PORT))
    for peer in peers:
        try:
            peer.send(b"\x01\x05\x00\x01")
        except OSError:
            pass
    assert ask("remove", "PGNRem") == OK
    for peer in peers:
        peer.close()

    proc.interrupt()
    assert proc.wait(10) == 2
    lines = proc.lines()
    assert lines.index("DBG : fcgi thread finished.") == lines.index("NOTE: Closing program...") + 1


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(next(line.split()[1] for line in f if line.startswith("VmRSS:")))


def test_a_bus_walking_every_pgn_grows_memory_by_a_bounded_figure(sandbox, avahi):
    network(sandbox)
    bus = CanBus(sandbox)
    proc, _, ask = serve(sandbox, bus, "FEF1=1\n")
    play(bus, CCVS)
    deadline = time.monotonic() + 5 * SLOW
    while ask("get", "PGNGet")[0] != 200 and time.monotonic() < deadline:
        time.sleep(0.05)
    before = rss_kb(proc.pid)
    # One frame of each of the 65,024 PGNs that are not transport frames, the PGN in its last
    # data bytes (bytes 1 to 4 are what FDD1 carries as FMS version).
    pgns = [pgn for pgn in range(0x10000) if pgn >> 8 not in (0xEB, 0xEC)]
    path = bus.write_log("walk.log", [(1700000000.0 + i / 1e5, "can0", 0x18000017 | pgn << 8,
                                       b"\x000402" + bytes([0, pgn >> 8, pgn & 0xFF]))
                                      for i, pgn in enumerate(pgns)])
    rc, _, err = bus.play("-f", path, timeout=120)
    assert rc == 0, err
    deadline = time.monotonic() + 30 * SLOW
    while ask("get", "PGNGet", "%04X" % pgns[-1])[0] != 200 and time.monotonic() < deadline:
        time.sleep(0.1)
    grown = rss_kb(proc.pid) - before
    # A sanitizer's allocator keeps freed memory aside for a while.
    assert grown <= 8 * 1024 or SANITIZED, "RSS grew by %d kB" % grown
    for pgn in (0x1234, 0xFEF1, pgns[-1], 0x00EA):
        status, kind, body = ask("get", "PGNGet", "%04X" % pgn)
        assert (status, kind) == (200, "text/xml"), pgn
        assert [f[:2] for f in frames_of(body)[1]] == [
            ("%04X" % pgn, "003034303200%04X" % pgn)]
def test_bytes_xml_cannot_carry_give_well_formed_documents(sandbox):
    """Bus bytes and mapping texts that are not UTF-8 XML text: every datagram and every
    PGNGet answer still parses, with U+FFFD in their place."""
    mapping = sandbox.path("latin1.json")
    with open(mapping, "wb") as f:
        f.write(b'[{"pgn": 65265, "spns": [{"type": 0, "number": 84, "name": "K\xfchlmittel",'
                b' "offset": 1, "byteSize": 2, "formatGain": 0.00390625, "formatOffset": 0,'
                b' "units": " \xb0C"}]},'
                b' {"pgn": 65260, "spns": [{"type": 2, "number": 237, "name": "VIN"}]}]')
    listener = network(sandbox)
    bus = CanBus(sandbox)
    _, nginx, _ = serve(sandbox, bus, "FDD1=1\nFEEC=1\nFEF1=1\n", mapping_file=mapping)

    # FMS version bytes 30 FE 01 32; a VIN by BAM with a control byte and 0xFF padding.
    vin = b"WDB\x019634031L12" + b"\xff" * 4
    bam = [(0x1CECFF00, bytes([0x20, len(vin), 0, 3, 0xFF, 0xEC, 0xFE, 0]))]
    bam += [(0x1CEBFF00, bytes([i + 1]) + (vin + b"\xff" * 7)[7 * i:7 * i + 7])
            for i in range(3)]
    play(bus, (0x18FDD100, bytes([0x01, 0x30, 0xFE, 0x01, 0x32, 0, 0, 0])), *bam, CCVS)
    datagrams = [d[1] for d in listener.wait_for(3)]
    answers = []
    for pgn in ("FDD1", "FEEC", "FEF1"):
        status, _, _, body = nginx.request("POST", "/fmstoip/getpgn",
                                           "<PGNGet>%s</PGNGet>" % pgn)
        assert status == 200, body
        answers.append(body)
    replacement = "\ufffd"
    documents = [ET.fromstring(d) for d in datagrams + answers]  # strict: raises if not XML
    texts = [ET.tostring(d, encoding="unicode") for d in documents]
    assert all('FMSVersion="0%s%s2"' % (replacement, replacement) in t
               for t in texts[1:]), texts
    vins = [t for t in texts if "<PGN>FEEC</PGN>" in t]
    assert len(vins) == 2 and all(
        re.search("<Value>WDB\ufffd9634031L12\ufffd+</Value>", t) for t in vins), vins
    speeds = [t for t in texts if "<PGN>FEF1</PGN>" in t]
    assert len(speeds) == 2 and all("<Name>K%shlmittel</Name>" % replacement in t and
                                    "<Unit> %sC</Unit>" % replacement in t for t in speeds)
