"""tavro-all with all its peers (avahi-daemon, gpsd, nginx, the virtual CAN bus) under steady
traffic, through one fault or hostile input after another. After each the daemon still serves
everything: announcements, the three multicast documents, PGN requests over HTTP. The tests
share one daemon and run in file order; the last one stops it, and in the sanitizer build
first keeps it running for two minutes in all, so that LeakSanitizer judges a long run."""

import os
import random
import re
import shutil
import signal
import socket
import struct
import time
import xml.etree.ElementTree as ET

import pytest

from avahi_peer import AvahiPeer, parse_resolved
from canbus_peer import CAN_EFF_FLAG, CAN_RTR_FLAG, CanBus
from gpsd_peer import Gpsd, GpsdStandIn, NmeaFeed
from nginx_peer import Nginx, wait_for_port
from sandbox import SANITIZED, SLOW, SOURCE_DIR, Sandbox, run

FCGI_PORT = 9000
COUNTER_DIR = "/var/lib/tavro"
COUNTER_FILE = COUNTER_DIR + "/pgn_counter"
MARKER = "/tmp/status/watchdog/services-dead"
FMS_GROUP, FMS_PORT = "239.10.0.2", 47010
GNSS_GROUP, GNSS_PORT = "239.1.1.11", 50011
VTOIP_GROUP, VTOIP_PORT = "239.10.0.12", 50012
# How long the sanitizer build keeps the daemon running under traffic before its exit.
LEAK_RUN_SECONDS = 120


def service(name, kind, protocol, port, **keys):
    return dict({"service_name": name, "service_type": kind, "service_protocol": protocol,
                 "service_domain": "local", "service_port": port, "service_txtversion": 1,
                 "service_version": "1.0"}, **keys)


def sender(group):
    return {"multicast_addr": group, "network_interface": "v0", "multicast_ttl": 1}


CONFIGURATION = {
    "tavro.conf": {"fcgi_port": FCGI_PORT},
    "inventory.conf": service("tavro-inventory", "inventory", "udp", 80, device_type="OBU",
                              network_interface="v0",
                              moduleinfo_file_path="/tmp/status/moduleinfo.xml"),
    "fmstoip.conf": service("tavro-fmstoip", "fmstoip", "udp", FMS_PORT,
                            pgn_counter_file=COUNTER_FILE, can_interface="can0", period_ms=0,
                            mapping_file=os.path.join(SOURCE_DIR, "tests", "data",
                                                      "fms_mapping.json"),
                            **sender(FMS_GROUP)),
    "time.conf": service("tavro-time", "ntp", "udp", 123),
    "gnss.conf": service("tavro-gnss", "gnsslocation", "udp", GNSS_PORT, gpsd_addr="localhost",
                         gpsd_port=2947, **sender(GNSS_GROUP)),
    "vehicletoip.conf": service("tavro-vehicletoip", "vehicletoip", "udp", VTOIP_PORT,
                                can_interface="can0",
                                mapping_file="/etc/tavro/vehicletoip-mapping.json",
                                **sender(VTOIP_GROUP)),
    "mqttbroker.conf": service("tavro-mqtt", "mqtt", "tcp", 1883, brand="mosquitto",
                               proto="3.1.1", topic="vehicle/status"),
}
for _name in ("add", "remove", "get"):
    CONFIGURATION["%spgn.conf" % _name] = service(
        "tavro-%spgn" % _name, "%spgn" % _name, "tcp", 8085, service_path="/fmstoip/%spgn" % _name)
ANNOUNCED = {(c["service_name"], "_%s._%s" % (c["service_type"], c["service_protocol"]))
             for c in CONFIGURATION.values() if "service_name" in c}

# The bus as the player repeats it: CCVS (requested), EEC1, every VEHICLEtoIP element, a BAM.
TRAFFIC = ["18FEF100#0480140000000000", "0CF00400#F07D7D007DF07D7D", "0CFE6CEE#021000000000590C",
           "18FEC1EE#73600000F4010000", "18FE4E21#40FFFFFFFFFFFFFF", "18FF1021#55FFFFFFFFFFFFFF",
           "18FF1121#005F0001FFFFFFFF", "18FDA521#1405FDFFFFFFFFFF", "1CECFF00#2011000303CAFE00",
           "1CEBFF00#0101020304050607", "1CEBFF00#0208090A0B0C0D0E", "1CEBFF00#030F101112FFFFFF"]


class World:
    """The daemon and its peers, shared by the tests of this file."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.avahi = AvahiPeer(sandbox)
        for key, value in (("all/rp_filter", 0), ("v1/rp_filter", 0), ("v1/accept_local", 1)):
            with open("/proc/sys/net/ipv4/conf/" + key, "w") as f:
                f.write(str(value))
        self.listeners = {name: sandbox.listen(group, port, "10.20.0.2") for name, group, port in
                          (("fms", FMS_GROUP, FMS_PORT), ("gnss", GNSS_GROUP, GNSS_PORT),
                           ("vtoip", VTOIP_GROUP, VTOIP_PORT))}
        sandbox.mount_tmpfs(COUNTER_DIR)
        with open(COUNTER_FILE, "w") as f:
            f.write("FEF1=1\n")
        shutil.copy(os.path.join(SOURCE_DIR, "etc", "vehicletoip-mapping.json"), "/etc/tavro/")
        for name, conf in CONFIGURATION.items():
            sandbox.write_conf(name, conf)
        self.bus = CanBus(sandbox)
        self.can0 = self.bus.add("can0")
        self.feed = NmeaFeed(sandbox, "bus-3d.nmea")
        self.gpsd = Gpsd(sandbox, self.feed).start()
        self.proc = sandbox.tavro("all", "-v", env=self.bus.env)
        self.started = time.monotonic()
        wait_for_port(FCGI_PORT, timeout=10)
        self.nginx = Nginx(sandbox, FCGI_PORT)
        log = self.bus.write_log("traffic.log", ["(0.0) can0 " + f for f in TRAFFIC])
        self.player = self.bus.start_player("-l", "0", "-r", "100", log)

    def ask(self, root, pgn="FEF1"):
        name = {"PGNGet": "get", "PGNReq": "add", "PGNRem": "remove"}[root]
        status, _, headers, body = self.nginx.request(
            "POST", "/fmstoip/%spgn" % name, "<%s>%s</%s>" % (root, pgn, root))
        return status, headers.get("Content-Type"), body.decode()

    def announced(self):
        out = run("avahi-browse", "-rptak", check=False)
        return {(r.name, r.type) for r in map(parse_resolved, out.splitlines()) if r}

    def fresh(self, name, predicate=lambda d: True, timeout=10.0):
        """The next datagram of listener name that satisfies predicate."""
        listener = self.listeners[name]
        listener.clear()
        return listener.wait_for(1, timeout, predicate)[0][1]

    def serves_everything(self):
        assert self.proc.running(), self.proc.stderr
        deadline = time.monotonic() + 20 * SLOW
        while (missing := ANNOUNCED - self.announced()) and time.monotonic() < deadline:
            time.sleep(0.5)
        assert not missing, "not announced: %s" % sorted(missing)
        document = self.fresh("fms", lambda d: b"<PGN>FEF1</PGN>" in d)
        assert ET.fromstring(document).tag == "FMStoIPDelivery"
        assert ET.fromstring(self.fresh("vtoip")).find("VEHICLEtoIP/StopRequest").text == "true"
        gnss = self.fresh("gnss", lambda d: b"<SignalQuality>GPS<" in d, timeout=15)
        assert ET.fromstring(gnss).findtext("GNSSLocation/Latitude/Degree")
        status, kind, body = self.ask("PGNGet")
        assert (status, kind) == (200, "text/xml") and "<PGN>FEF1</PGN>" in body

    def count(self, pattern):
        return len([l for l in self.proc.lines() if l.startswith(pattern)])


@pytest.fixture(scope="module")
def world(tmp_path_factory):
    sandbox = Sandbox(tmp_path_factory.mktemp("faults"))
    try:
        yield World(sandbox)
    finally:
        sandbox.close()


def test_starts_and_serves_everything(world):
    world.serves_everything()


def test_frames_of_every_pdu_format_length_and_kind(world):
    """Raw records no player would send: every PF, length codes up to 15, remote and error
    frames, standard identifiers, and a transport message far longer than J1939 allows."""
    rng = random.Random(7)
    records = []
    for flags in (CAN_EFF_FLAG, CAN_EFF_FLAG | CAN_RTR_FLAG, CAN_EFF_FLAG | 0x20000000, 0):
        for pf in range(256):
            for length in range(16):
                can_id = (0x18 << 24 | pf << 16 | length << 8 | rng.randrange(256) if flags
                          else rng.randrange(0x800))
                records.append(struct.pack("=IB3x8s", can_id | flags, length, rng.randbytes(8)))
    records.append(struct.pack("=IB3x8s", 0x1CECFF00 | CAN_EFF_FLAG, 8,
                               bytes([0x20, 0xFF, 0xFF, 0xFF, 0xFF, 0xEC, 0xFE, 0])))
    records += [struct.pack("=IB3x8s", 0x1CEBFF00 | CAN_EFF_FLAG, 8, bytes([i % 256]) + b"*" * 7)
                for i in range(600)]
    readers = [os.path.join(world.can0, n) for n in os.listdir(world.can0)]
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sock:
        for record in records:
            for reader in readers:
                sock.sendto(record, reader)
    world.serves_everything()


def test_can_interface_that_disappears_and_comes_back(world):
    shutil.rmtree(world.can0)
    world.proc.wait_for(r"^WARN: Can: can0 is gone \(its bus socket was removed\)\. Opening it "
                        r"again every second\.$")
    time.sleep(1.5)  # a few attempts while it is gone, none of them logged
    os.makedirs(world.can0)
    world.proc.wait_for(r"^NOTE: Can: can0 is back\.$")
    assert world.count("WARN: Can: can0 is gone") == 1
    world.serves_everything()


def test_counter_folder_read_only_and_writable_again(world):
    run("mount", "-o", "remount,ro", COUNTER_DIR)
    try:
        assert world.ask("PGNReq", "F004")[0] == 200
        world.proc.wait_for(r"^WARN: Cannot write to file: %s$" % COUNTER_FILE)
        with open(COUNTER_FILE) as f:
            assert f.read() == "FEF1=1\n"
    finally:
        run("mount", "-o", "remount,rw", COUNTER_DIR)
    # The next change writes every count that memory holds.
    assert world.ask("PGNReq", "0100")[0] == 200
    with open(COUNTER_FILE) as f:
        assert f.read() == "0100=1\nF004=1\nFEF1=1\n"
    assert world.ask("PGNRem", "0100")[0] == world.ask("PGNRem", "F004")[0] == 200
    with open(COUNTER_FILE) as f:
        assert f.read() == "FEF1=1\n"
    world.serves_everything()


def test_health_marker_toggled_quickly(world):
    os.makedirs(os.path.dirname(MARKER), exist_ok=True)
    for final in (True, False):
        for i in range(41):
            if i % 2 == 0:
                open(MARKER, "w").close()
            else:
                os.unlink(MARKER)
            time.sleep(0.02)
        if not final:
            os.unlink(MARKER)
        # The state it ends in is announced, whatever came in between.
        world.avahi.wait_for("tavro-inventory", "_inventory._udp", timeout=15,
                             predicate=lambda r: r.txt[-1] == "status=%d" % final)
    world.serves_everything()


def test_gpsd_killed_replaced_by_a_hostile_one_and_restarted(world):
    failures = world.count("NOTE: Reading from socket failed.")
    refused = world.count("WARN: Error while connecting to Gnss socket")
    world.gpsd.proc.stop(signal.SIGKILL)
    world.proc.wait_for(r"^NOTE: Reading from socket failed\.$", count=failures + 1)
    world.proc.wait_for(r"^WARN: Error while connecting to Gnss socket", count=refused + 1)
    # Megabytes without a line end, nesting beyond the bound, then a good report.
    report = b'{"class":"TPV","mode":2,"lat":12.5,"lon":-7.25,"time":"2030-01-02T03:04:05Z"}\n'
    stand_in = GpsdStandIn(world.sandbox, [b"x" * (1 << 20)] * 3 + [b"\n", b"[" * 1000 + b"\n",
                                                                     report])
    try:
        document = world.fresh("gnss", lambda d: b"<Degree>12.5<" in d, timeout=30)
        assert ET.fromstring(document).findtext("GNSSLocation/Longitude/Direction") == "W"
        assert stand_in.watches[0].startswith(b"?WATCH=")
        world.proc.wait_for(r"^WARN: Dropping gpsd line longer than 65536 bytes\.$")
        world.proc.wait_for(r"^ERR : Exceeded stackLimit")
    finally:
        stand_in.close()
        world.gpsd.start()
    world.serves_everything()


def test_web_server_that_vanishes_mid_response(world):
    # nginx killed while requests are on their way.
    request = ("POST /fmstoip/getpgn HTTP/1.1\r\nHost: x\r\nContent-Length: 21\r\n\r\n"
               "<PGNGet>FEF1</PGNGet>").encode()
    clients = []
    for _ in range(200):
        client = socket.socket()
        client.setblocking(False)
        client.connect_ex(("127.0.0.1", 8085))
        clients.append(client)
    time.sleep(0.05)
    for client in clients:
        try:
            client.send(request)
        except OSError:
            pass
    world.nginx.kill()
    for client in clients:
        client.close()
    world.nginx = Nginx(world.sandbox, FCGI_PORT)
    # A web server that goes in the middle of a long answer (one per STDIN record): the
    # daemon still writes to it, and must neither die of SIGPIPE nor stall.
    peer = socket.socket()
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    peer.connect(("127.0.0.1", FCGI_PORT))
    peer.setblocking(False)
    stream = fcgi_request("/fmstoip/getpgn", [b"<PGNGet>FEF1</PGNGet>"] * 20000)
    sent, deadline = 0, time.monotonic() + 2 * SLOW
    while sent < len(stream) and time.monotonic() < deadline:
        try:
            sent += peer.send(stream[sent:])
        except BlockingIOError:
            time.sleep(0.01)
    peer.settimeout(5 * SLOW)
    assert peer.recv(4096).startswith(b"\x01\x06\x00\x01")  # STDOUT of request 1
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()
    world.proc.wait_for(r"^WARN: FastCGI connection dropped: write\(\) failed$")
    world.serves_everything()


def fcgi_request(uri, records):
    """A FastCGI request of a web server on port 8085 (no KEEP_CONN), its body in the given
    STDIN records."""
    def record(kind, content):
        return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content

    params = b""
    for name, value in ((b"REQUEST_URI", uri.encode()), (b"SERVER_PORT", b"8085"),
                        (b"REQUEST_METHOD", b"POST")):
        params += bytes([len(name), len(value)]) + name + value
    return (record(1, struct.pack(">HB5x", 1, 0)) + record(4, params) + record(4, b"") +
            b"".join(record(5, r) for r in records) + record(5, b""))


def test_fastcgi_streams_of_the_fuzz_corpus(world):
    corpus = os.path.join(SOURCE_DIR, "tests", "fuzz", "corpus", "fastcgi")
    for name in sorted(os.listdir(corpus)):
        with open(os.path.join(corpus, name), "rb") as f:
            stream = f.read()
        with socket.create_connection(("127.0.0.1", FCGI_PORT), timeout=2 * SLOW) as peer:
            peer.sendall(stream)
            peer.shutdown(socket.SHUT_WR)
            try:
                while peer.recv(65536):
                    pass
            except socket.timeout:
                pass  # a request still waiting for the rest of its body
    world.serves_everything()


def test_multicast_interface_down_and_up(world):
    failed = "WARN: Multicast could not be sent! (port = %d" % GNSS_PORT
    reports = world.count(failed)
    run("ip", "link", "set", "v0", "down")
    try:
        world.proc.wait_for("^" + re.escape(failed), count=reports + 1)
        time.sleep(1)
    finally:
        run("ip", "link", "set", "v0", "up")
    world.serves_everything()


def test_avahi_daemon_killed_and_restarted(world):
    world.avahi.daemon.restart(signal.SIGKILL)
    world.serves_everything()


def test_runs_to_its_end_without_leaks(world):
    # The sanitizer build keeps the daemon busy for two minutes in all before LeakSanitizer looks.
    end = world.started + (LEAK_RUN_SECONDS if SANITIZED else 0)
    while time.monotonic() < end:
        assert world.ask("PGNReq", "F004")[0] == world.ask("PGNRem", "F004")[0] == 200
        assert world.ask("PGNGet")[0] == 200
        time.sleep(0.5)
    world.serves_everything()
    world.player.interrupt()
    world.proc.interrupt()
    assert world.proc.wait(30) == 2, world.proc.stderr
    for sign in ("LeakSanitizer", "AddressSanitizer", "runtime error"):
        assert sign not in world.proc.stderr
