"""PGN requests through a real nginx in front of tavro-fmstoip; the FastCGI port attacked."""

import contextlib
import errno
import os
import re
import shutil
import socket
import struct
import subprocess
import time
import xml.etree.ElementTree as ET
from pathlib import Path

from canbus_peer import CanBus
from nginx_peer import Nginx, wait_for_port
from sandbox import SANITIZED, SLOW, SOURCE_DIR
from test_fmstoip import CCVS, EEC1, frames_of, network, play, start, threads

FCGI_PORT = 9000
BEGIN, PARAMS, STDIN, GET_VALUES = 1, 4, 5, 9
PAGE = "<html><body>%s</body></html>\n"
OK = (200, "text/html", PAGE % "Ok")
BAD = (400, "text/html", PAGE % "Bad Request")
NO_PACKET = (408, "text/html", PAGE % "No can packet with the requested pgn is available.")


def serve(sandbox, bus, general=(), **options):
    """The daemon behind nginx; ask(name, root, pgn, path) gives (status, type, body)."""
    sandbox.write_conf("tavro.conf", dict(general, fcgi_port=FCGI_PORT))
    # The shipped resources: /fmstoip/addpgn, removepgn and getpgn on HTTP port 8085.
    for name in ("add", "remove", "get"):
        shutil.copy(os.path.join(SOURCE_DIR, "etc", "%spgn.conf" % name), "/etc/tavro")
    proc = start(sandbox, bus, counts="", args=(), **options)
    wait_for_port(FCGI_PORT)
    nginx = Nginx(sandbox, FCGI_PORT)

    def ask(name, root, pgn="FEF1", path=None):
        status, _, headers, body = nginx.request(
            "POST", path or "/fmstoip/%spgn" % name, "<%s>%s</%s>" % (root, pgn, root))
        return status, headers["Content-Type"], body.decode()
    return proc, ask


def status_kb(pid, key="VmRSS"):
    status = Path("/proc/%d/status" % pid).read_text()
    return int(re.search(r"^%s:\s+(\d+) kB" % key, status, re.M).group(1))


def test_pgn_requests_through_nginx(sandbox, avahi):
    """Requests end to end; then bus bytes and mapping texts that are not
    UTF-8 XML text: every datagram and every PGNGet answer still parses, with U+FFFD in their
    place; then a bus walking the whole PGN space grows RSS by a bounded figure."""
    mapping = sandbox.path("latin1.json")
    Path(mapping).write_bytes(
        b'[{"pgn": 65265, "spns": [{"type": 0, "number": 84, "name": "K\xfchlmittel",'
        b' "offset": 1, "byteSize": 2, "formatGain": 0.00390625, "formatOffset": 0,'
        b' "units": " \xb0C"}]},'
        b' {"pgn": 65260, "spns": [{"type": 2, "number": 237, "name": "VIN"}]}]')
    listener = network(sandbox)
    bus = CanBus(sandbox)
    proc, ask = serve(sandbox, bus, general={"fcgi_address": "127.0.0.1"}, mapping_file=mapping)
    # The web server is on the same device: the vehicle network does not reach the port.
    assert socket.socket().connect_ex(("10.20.0.1", FCGI_PORT)) == errno.ECONNREFUSED

    def sent(*frames):
        """PGNs of the datagrams for the frames; F004, requested, comes last as end marker."""
        listener.clear()
        play(bus, *frames, EEC1)
        listener.wait_for(predicate=lambda d: b"<PGN>F004</PGN>" in d)
        return [frames_of(d)[1][0][0] for d in listener.payloads()]

    def got(pgn, seconds=5):
        """The PGNGet answer's document, once there is one."""
        deadline = time.monotonic() + seconds * SLOW
        while (answer := ask("get", "PGNGet", pgn))[0] != 200 and time.monotonic() < deadline:
            time.sleep(0.1)
        assert answer[:2] == (200, "text/xml"), (pgn, answer)
        return answer[2]

    # Seen on the bus but not requested: kept for the get request, not sent.
    play(bus, CCVS)
    assert frames_of(got("FEF1"))[1] == [("FEF1", "0480140000000000")]
    for answer, asked in ((NO_PACKET, [("get", "PGNGet", p) for p in ("65265", "fef1", "F004")]),
                          (BAD, [("get", "PGNReq"), ("add", "PGNGet"), ("remove", "x")]),
                          ((404, "text/html", PAGE % "Not Found"),
                           [("get", "PGNGet", "FEF1", "/fmstoip/other")])):
        assert [ask(*a) for a in asked] == [answer] * len(asked)
    assert listener.datagrams == []

    assert ask("add", "PGNReq", "F004") == ask("add", "PGNReq") == OK
    assert sent(CCVS) == ["FEF1", "F004"]
    assert ask("add", "PGNReq") == ask("remove", "PGNRem") == ask("remove", "PGNRem") == OK
    assert sent(CCVS) == ["F004"]

    assert [ask("add", "PGNReq", pgn) for pgn in ("FDD1", "FEEC", "FEF1")] == [OK] * 3
    listener.clear()
    # FMS version bytes 30 FE 01 32; a VIN by BAM with a control byte and 0xFF padding.
    vin = b"WDB\x019634031L12" + b"\xff" * 4
    bam = [(0x1CECFF00, bytes([0x20, len(vin), 0, 3, 0xFF, 0xEC, 0xFE, 0]))]
    bam += [(0x1CEBFF00, bytes([i + 1]) + (vin + b"\xff" * 7)[7 * i:7 * i + 7])
            for i in range(3)]
    play(bus, (0x18FDD100, bytes([0x01, 0x30, 0xFE, 0x01, 0x32, 0, 0, 0])), *bam, CCVS)
    datagrams = [d[1] for d in listener.wait_for(3)]
    answers = [got(pgn) for pgn in ("FDD1", "FEEC", "FEF1")]
    texts = [ET.tostring(ET.fromstring(d), encoding="unicode") for d in datagrams + answers]
    assert all('FMSVersion="0\ufffd\ufffd2"' in t for t in texts[1:]), texts
    for pgn, wanted in (("FEEC", "<Value>WDB\ufffd9634031L12\ufffd+</Value>"),
                        ("FEF1", "<Name>K\ufffdhlmittel</Name>.*<Unit> \ufffdC</Unit>")):
        found = [t for t in texts if "<PGN>%s</PGN>" % pgn in t]
        assert len(found) == 2 and all(re.search(wanted, t, re.S) for t in found), found

    before = status_kb(proc.pid)
    # One frame of each of the 65,024 PGNs that are not transport frames, the PGN in its last
    # data bytes (bytes 1 to 4 are what FDD1 carries as FMS version).
    pgns = [pgn for pgn in range(0x10000) if pgn >> 8 not in (0xEB, 0xEC)]
    play(bus, *[(0x18000017 | pgn << 8, b"\x000402" + bytes([0, pgn >> 8, pgn & 0xFF]))
                for pgn in pgns], step=1e-5, timeout=120)
    # The last one, a PGN of the walk, a requested one and the request PGN itself.
    for pgn in ("%04X" % p for p in (pgns[-1], 0x1234, 0xFEF1, 0x00EA)):
        assert frames_of(got(pgn, 30))[1] == [(pgn, "003034303200" + pgn)]
    grown = status_kb(proc.pid) - before
    # A sanitizer's allocator keeps freed memory aside for a while.
    assert grown <= 8 * 1024 or SANITIZED, "RSS grew by %d kB" % grown


def record(kind, request_id, content=b""):
    return struct.pack(">BBHHBx", 1, kind, request_id, len(content), 0) + content


def pair(name, value):
    def length(n):
        return bytes([n]) if n < 128 else struct.pack(">I", n | 0x80000000)
    return length(len(name)) + length(len(value)) + name + value


BEGIN_KEEP = struct.pack(">HB5x", 1, 1)
BUDGET = 16 * 1024 * 1024  # the FastCGI layer's memory budget stated in the README


def fastcgi_cpu(pid):
    fields = threads(pid)["fastcgi"]
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def send(peer, data):
    """Sends what the daemon takes; it may close the connection halfway."""
    with contextlib.suppress(OSError):
        peer.sendall(data)


def test_fastcgi_port_under_attack(sandbox):
    """A device on the vehicle network talks FastCGI to the port past nginx (without
    fcgi_address the veth address reaches it): nginx keeps being answered, memory stays within
    the budget, no spinning."""
    network(sandbox)
    # The MTU of an Ethernet link, so that small receive windows cut segments as on the wire.
    subprocess.run(["ip", "link", "set", "lo", "mtu", "1500"], check=True)
    proc, ask = serve(sandbox, CanBus(sandbox))
    target = ("10.20.0.1", FCGI_PORT)

    def served():
        assert ask("add", "PGNReq") == ask("remove", "PGNRem") == OK, proc.stderr[-2000:]

    served()
    rss_before = status_kb(proc.pid) * 1024

    def survived(peers):
        """Memory within the budget (the sanitizers keep freed memory in quarantine), the
        peers closed by the daemon whatever they send (socket.timeout if it keeps one)."""
        growth = status_kb(proc.pid, "VmHWM") * 1024 - rss_before
        assert SANITIZED or growth < BUDGET, "RSS grew by %d bytes" % growth
        for peer in peers:
            peer.settimeout(10 * SLOW)
            with peer, contextlib.suppress(ConnectionResetError):
                while peer.recv(65536):
                    pass
        served()

    # Lock-out: eight peers never end PARAMS, a ninth tops the total up to just under 8 MiB,
    # each sends an 8-byte record now and then. First with 16 records (as counted once: wire
    # bytes, 1 KiB a request), then with 15, when the ninth goes beyond 8 MiB as counted now.
    for records in (16, 15):
        holders, counted = [], 0
        for n in range(9):
            peer = socket.create_connection(target)
            peer.sendall(record(BEGIN, 1, BEGIN_KEEP))
            top = [8 * 1024 * 1024 - counted - 1024 - 512 - 7] if records == 16 else []
            for i, size in enumerate([65000] * records if n < 8 or not top else top):
                content = pair(b"N%d" % i, b"v" * size)
                send(peer, record(PARAMS, 1, content))
                counted += len(content)
            counted += 1024
            holders.append(peer)
        for _ in range(15):
            served()
            for peer in holders:
                send(peer, record(GET_VALUES, 0))
            time.sleep(0.2)
        survived(holders)
    for bound in ("its connection held more than 1048576", "all connections together held more "
                  "than 8388608"):
        assert "FastCGI request for \"\" ended: %s bytes. Connection closed." % bound in proc.stderr

    # Amplification: nine connections of three requests of 320 KB of 3-byte names, no values.
    params = b"".join(pair(struct.pack(">I", k)[1:], b"") for k in range(64000))
    flooders = []
    for _ in range(9):
        peer = socket.create_connection(target)
        for request_id in (1, 2, 3):
            send(peer, record(BEGIN, request_id, BEGIN_KEEP))
            for pos in range(0, len(params), 64000):
                send(peer, record(PARAMS, request_id, params[pos:pos + 64000]))
            send(peer, record(PARAMS, request_id))
        flooders.append(peer)
        served()
    survived(flooders)

    # Spinning: a peer with a 2 KB receive buffer sends a body, shuts its side, reads nothing.
    peer = socket.socket()
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
    peer.connect(target)
    peer.sendall(record(BEGIN, 1, BEGIN_KEEP) + record(PARAMS, 1, pair(
        b"REQUEST_URI", b"/fmstoip/nothing") + pair(b"SERVER_PORT", b"8085")) + record(PARAMS, 1))
    peer.sendall(record(STDIN, 1, b"s" * 4000) * 40)
    peer.shutdown(socket.SHUT_WR)
    time.sleep(0.5)
    cpu, started = fastcgi_cpu(proc.pid), time.monotonic()
    served()
    time.sleep(3)
    share = (fastcgi_cpu(proc.pid) - cpu) / (time.monotonic() - started)
    assert share < 0.05, "FastCGI thread at %.0f %% of a CPU" % (100 * share)
    # What is still to be sent has its time, then the connection goes.
    survived([peer])
    proc.interrupt()
    assert proc.wait(10) == 2
