"""One tavro-all in the demo's vehicle, through fault after fault in file order: it serves on."""

import os
import re
import shutil
import signal
import socket
import struct
import threading
import time
from pathlib import Path

import pytest

from avahi_peer import parse_resolved
from conftest import SANITIZER_REPORT
from sandbox import SANITIZED, SLOW, Sandbox, run
from vehicle import Vehicle

MARKER = "/tmp/status/watchdog/services-dead"
LEAK_RUN_SECONDS = 120
AVAHI = "DBG : avahi thread finished."
# After the FastCGI front end, each service withdraws its announcements as it is released:
# MqttBroker, Vtoip, Gnss, FmstoipFcgi (three), TimeService, Fmstoip, ModuleInventory.
RELEASE = ["DBG : fcgi thread finished.", AVAHI, "DBG : Vtoip thread finished.", AVAHI, AVAHI,
           AVAHI, AVAHI, AVAHI, AVAHI, "DBG : fmstoip thread finished.",
           "DBG : FmsXMLGenerator thread finished.", AVAHI, AVAHI]
# The service manager's watchdog timeout; fed while no thread stood still for half of it.
WATCHDOG = 8.0 * SLOW
STALLED = (r"^WARN: Thread (fastcgi|fmstoip) \(\d+\) has made no progress for [\d.]+ s: "
           r"watchdog not fed\.$")
AGAIN = r"^NOTE: Thread (fastcgi|fmstoip) \(\d+\) makes progress again\.$"


class ServiceManager(threading.Thread):
    """What a service manager hears on NOTIFY_SOCKET (an abstract socket, as "@name")."""

    def __init__(self):
        super().__init__(daemon=True)
        self.address = "@tavro-test-notify-%d" % os.getpid()
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind("\0" + self.address[1:])
        self.notices = []  # (monotonic time, text)
        self.start()

    def run(self):
        while True:
            self.notices.append((time.monotonic(), self.sock.recv(4096).decode()))

    def since(self, start):
        return [text for when, text in list(self.notices) if when >= start]

    def wait_for(self, text, start, timeout):
        until(lambda: text in self.since(start), timeout,
              lambda: "no %s: %r" % (text, self.since(start)))


@pytest.fixture(scope="module")
def car(tmp_path_factory):
    sandbox = Sandbox(tmp_path_factory.mktemp("all"))
    manager = ServiceManager()
    try:
        vehicle = Vehicle(sandbox, "-vv", nmea_interval=0.25, env={
            "NOTIFY_SOCKET": manager.address, "WATCHDOG_USEC": str(int(WATCHDOG * 1e6))})
        vehicle.started = time.monotonic()
        vehicle.manager = manager
        yield vehicle
    finally:
        sandbox.close()


def until(done, seconds, what):
    deadline = time.monotonic() + seconds
    while not done():
        assert time.monotonic() < deadline, what()
        time.sleep(0.2)


def announced(host=None):
    out = (host.run if host else run)("avahi-browse", "-rptak", check=False)
    return {(r.name, r.type): r for r in map(parse_resolved, out.splitlines()) if r}


def expected_announcements(car):
    # Nine services: the FastCGI front end announces three.
    return {(c["service_name"], "_%s._%s" % (c["service_type"], c["service_protocol"])):
            int(c["service_port"]) for c in car.conf.values() if "service_name" in c}


def serves_everything(car):
    assert car.tavro.running(), car.tavro.stderr
    until(lambda: {k: r.port for k, r in announced().items()} == expected_announcements(car),
          20 * SLOW, lambda: "announced: %r" % announced())
    for root, part in (("FMStoIPDelivery", b"<PGN>FEF1</PGN>"),
                       ("VEHICLEtoIPDelivery", b"<VehicleCapacity>95</VehicleCapacity>"),
                       ("GNSSLocationDelivery", b"<SignalQuality>GPS</SignalQuality>")):
        car.listeners[root].clear()
        car.listeners[root].wait_for(1, 15, lambda d: part in d)
    status, kind, body = car.request("get", "FEF1")
    assert (status, kind) == (200, "text/xml") and "<PGN>FEF1</PGN>" in body


def test_every_service_in_one_process(car):
    assert car.request("add", "FEF1") == (200, "text/html", "<html><body>Ok</body></html>\n")
    serves_everything(car)
    assert announced()[("tavro-fmstoip", "_fmstoip._udp")].txt == [
        "txtversion=1", "version=1.0", "multicast=239.1.1.10"]
    assert re.findall(r"^INFO: Starting (\w+) service\.$", car.tavro.stderr, re.M) == [
        "inventory", "fmstoip", "time", "gnss", "vtoip", "mqttbroker"]
    assert [line for line in car.tavro.lines() if line.startswith(("ERR", "WARN"))] == []


def test_can_and_multicast_interfaces_that_go_and_come_back(car):
    can0 = os.path.join(car.bus.root, "can0")
    shutil.rmtree(can0)
    car.tavro.wait_for(r"^WARN: Can: can0 is gone \(its bus socket was removed\)\. Opening it "
                       r"again every second\.$")
    time.sleep(1.5)  # a few attempts while it is gone, none of them logged
    os.makedirs(can0)
    car.tavro.wait_for(r"^NOTE: Can: can0 is back\.$")
    assert car.tavro.stderr.count("WARN: Can: can0 is gone") == 1
    failed = car.tavro.stderr.count("WARN: Multicast could not be sent!")
    reopened = car.tavro.stderr.count("INFO: Reopening socket!")
    run("ip", "link", "set", "v0", "down")
    try:
        car.tavro.wait_for(r"^WARN: Multicast could not be sent! .*errno: Network is "
                           r"unreachable\(101\)$", count=failed + 1)
        car.tavro.wait_for(r"^INFO: Reopening socket!$", count=reopened + 1)
    finally:
        run("ip", "link", "set", "v0", "up")
    serves_everything(car)


def test_counter_folder_read_only_then_a_hung_write_stops_the_watchdog(car):
    counter = Path(car.conf["fmstoip.conf"]["pgn_counter_file"])
    run("mount", "--bind", counter.parent, counter.parent)
    try:
        run("mount", "-o", "remount,bind,ro", counter.parent)
        assert car.request("add", "F004")[0] == 200
        car.tavro.wait_for(r"^WARN: Cannot write to file: %s$" % re.escape(str(counter)))
        assert counter.read_text() == "FEF1=1\n"
    finally:
        run("umount", counter.parent)
    # The next change writes every count that memory holds.
    assert car.request("add", "0100")[0] == 200
    assert counter.read_text() == "0100=1\nF004=1\nFEF1=1\n"

    # A counter write that never ends, as on a hung file system: a FIFO where the new file is
    # written holds the FastCGI thread, and through the request counts the FMStoIP worker.
    car.manager.wait_for("WATCHDOG=1", time.monotonic(), WATCHDOG)
    notices = car.manager.since(0)
    assert notices[0] == "READY=1" and notices.count("READY=1") == 1
    tmp = str(counter) + ".tmp"
    os.mkfifo(tmp)

    def remove():
        try:
            car.request("remove", "0200")  # not requested: only the counts are written
        except OSError:
            pass  # the answer comes too late

    threading.Thread(target=remove, daemon=True).start()
    car.tavro.wait_for(STALLED, timeout=2 * WATCHDOG / SLOW)
    start = time.monotonic()
    time.sleep(WATCHDOG * 3 / 4)
    assert "WATCHDOG=1" not in car.manager.since(start)
    # A reader lets the write go on; syncing a FIFO fails, so the counter file stays as it was.
    with open(tmp, "rb") as fifo:
        fifo.read()
    car.tavro.wait_for(AGAIN, timeout=WATCHDOG / SLOW)
    car.manager.wait_for("WATCHDOG=1", time.monotonic(), WATCHDOG)
    assert counter.read_text() == "0100=1\nF004=1\nFEF1=1\n" and not os.path.exists(tmp)
    serves_everything(car)


def test_health_marker_toggled_quickly_gpsd_and_avahi_daemon_killed(car):
    os.makedirs(os.path.dirname(MARKER), exist_ok=True)
    for final in (1, 0):
        for _ in range(41):
            if os.path.exists(MARKER):
                os.unlink(MARKER)
            else:
                open(MARKER, "w").close()
            time.sleep(0.02)
        # The state it ends in is announced, whatever came in between.
        car.avahi.wait_for("tavro-inventory", "_inventory._udp", timeout=15,
                           predicate=lambda r: r.txt[-1] == "status=%d" % final)
    failures = car.tavro.stderr.count("NOTE: Reading from socket failed.")
    car.gpsd.proc.stop(signal.SIGKILL)
    car.tavro.wait_for(r"^NOTE: Reading from socket failed\.$", count=failures + 1)
    car.gpsd.start()
    car.avahi.daemon.restart(signal.SIGKILL)
    serves_everything(car)


def test_web_server_that_vanishes_mid_answer(car):
    # A long answer (one per STDIN record) still being written: neither SIGPIPE nor a stall.
    def record(kind, content):
        return struct.pack(">BBHHBx", 1, kind, 1, len(content), 0) + content

    params = b"".join(bytes([len(n), len(v)]) + n + v for n, v in (
        (b"REQUEST_URI", b"/fmstoip/getpgn"), (b"SERVER_PORT", str(car.http_port).encode())))
    stream = (record(1, struct.pack(">HB5x", 1, 0)) + record(4, params) + record(4, b"") +
              record(5, b"<PGNGet>FEF1</PGNGet>") * 20000 + record(5, b""))
    peer = socket.socket()
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    peer.connect(("127.0.0.1", car.fcgi_port))
    peer.settimeout(2 * SLOW)
    try:
        peer.sendall(stream)
    except socket.timeout:
        pass  # the daemon reads no more while its answers wait
    peer.settimeout(5 * SLOW)
    assert peer.recv(4096).startswith(b"\x01\x06\x00\x01")  # STDOUT of request 1
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    peer.close()
    car.tavro.wait_for(r"^WARN: FastCGI connection dropped: write\(\) failed$")
    serves_everything(car)


def test_runs_to_its_end_and_stops_in_order_on_sigterm(car):
    """As an init system stops it: the same orderly shutdown as SIGINT, with status 15."""
    while time.monotonic() < car.started + (LEAK_RUN_SECONDS if SANITIZED else 0):
        assert car.request("add", "F004")[0] == car.request("remove", "F004")[0] == 200
        assert car.request("get", "FEF1")[0] == 200
        time.sleep(0.5)
    counter = Path(car.conf["fmstoip.conf"]["pgn_counter_file"])
    counts = counter.read_text()
    # A second host at the far end of the wire (v1 moves there, its listeners hear no more).
    remote = car.avahi.remote()
    expected = set(expected_announcements(car))
    until(lambda: set(announced(remote)) == expected, 20 * SLOW,
          lambda: "remote host sees: %r" % announced(remote))
    car.tavro.send(signal.SIGTERM)
    assert car.tavro.wait(30) == 15, car.tavro.stderr
    car.nginx.stop()
    assert "Caught signal 15\n" in car.tavro.stdout
    lines = car.tavro.lines()
    shutdown = lines[lines.index("NOTE: Closing program..."):]
    assert [line for line in shutdown if line.endswith("thread finished.")] == RELEASE
    assert car.manager.since(0)[-1] == "STOPPING=1"
    assert counter.read_text() == counts
    until(lambda: not set(announced(remote)) & expected, 10 * SLOW,
          lambda: "still announced: %r" % announced(remote))
    assert not SANITIZER_REPORT.search(car.tavro.stderr), car.tavro.stderr
