"""The multicast sender on a real interface: what leaves it, and recovery when it goes down."""

import os
import subprocess
import time

import pytest

from sandbox import SOURCE_DIR, Process

GROUP = "239.10.0.1"
PORT = 47000


class Driver(Process):
    """tests/helpers/multicast_driver: one MulticastSender fed from standard input."""

    def __init__(self, group, port, interface, ttl, verbosity=2):
        build = os.environ.get("TAVRO_BUILD_DIR", os.path.join(SOURCE_DIR, "build", "plain"))
        binary = os.path.join(build, "tests", "helpers", "multicast_driver")
        env = dict(os.environ)
        env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        env.setdefault("LSAN_OPTIONS", "suppressions=%s"
                       % os.path.join(SOURCE_DIR, "tests", "lsan.supp"))
        super().__init__([binary, group, str(port), interface, str(ttl), str(verbosity)],
                         env=env, stdin=subprocess.PIPE, name="multicast_driver")
        self.answers = 0

    def send(self, data, context="-"):
        """Sends one datagram; returns True when the sender reports it as sent."""
        self.popen.stdin.write(b"send %s %s\n" % (context.encode(), data.hex().encode() or b""))
        self.popen.stdin.flush()
        self.answers += 1
        return self.wait_for(r"^(sent|failed)$", stream="stdout", count=self.answers)[1] == "sent"

    def stop(self, *args, **kw):
        if self.popen.stdin and not self.popen.stdin.closed:
            self.popen.stdin.close()
        super().stop(*args, **kw)


def link(sandbox):
    """The veth pair; v1 takes datagrams whose source is v0's address, which is local too."""
    sandbox.veth()
    for key in ("conf/all/rp_filter", "conf/v1/rp_filter", "conf/v1/accept_local"):
        with open("/proc/sys/net/ipv4/" + key, "w") as f:
            f.write("0" if key.endswith("rp_filter") else "1")


@pytest.fixture
def driver(sandbox):
    started = []

    def start(*args, **kw):
        proc = Driver(*args, **kw)
        sandbox.processes.append(proc)
        started.append(proc)
        return proc

    yield start
    for proc in started:
        proc.stop()


def test_datagram_leaves_unchanged_with_its_ttl(sandbox, driver):
    link(sandbox)
    listener = sandbox.listen(GROUP, PORT, "10.20.0.2")
    # TTL 0 (what a missing multicast_ttl gives) is used as it is, not replaced by a default.
    for ttl in (0, 3, 255):
        sender = driver(GROUP, PORT, "v0", ttl)
        assert sender.send(b"<ttl%d/>" % ttl)
    payload = b"<?xml version=\"1.0\"?><a>\n\x00\xff&amp;</a>\r\n"
    assert sender.send(payload, "gnss")
    listener.wait_for(4)
    time.sleep(0.2)
    assert [(d[1], d[2]) for d in listener.datagrams] == [
        (b"<ttl0/>", 0), (b"<ttl3/>", 3), (b"<ttl255/>", 255), (payload, 255)]


def test_port_text_is_cut_to_sixteen_bits(sandbox, driver):
    link(sandbox)
    listener = sandbox.listen(GROUP, 4464, "10.20.0.2")
    sender = driver(GROUP, "70000", "v0", 1)
    assert sender.send(b"<p/>")
    assert listener.wait_for(1)[0][1] == b"<p/>"


def test_interface_down_reopens_and_sending_resumes(sandbox, driver):
    link(sandbox)
    listener = sandbox.listen(GROUP, PORT, "10.20.0.2")
    sender = driver(GROUP, PORT, "v0", 2, verbosity=3)
    sender.wait_for(r"^NOTE: ifaddr: 10\.20\.0\.1$")
    assert sender.send(b"<before/>")
    listener.wait_for(1)

    subprocess.run(["ip", "link", "set", "v0", "down"], check=True)
    assert not sender.send(b"<lost/>")
    sender.wait_for(r"^WARN: Multicast could not be sent! \(port = 47000interface = v0 \) "
                    r"errno: Network is unreachable\(101\)\nINFO: Reopening socket!\n"
                    r"NOTE: ifaddr: 10\.20\.0\.1$")
    # Every failed send reopens once, without delay.
    assert not sender.send(b"<lost/>")
    sender.wait_for(r"^INFO: Reopening socket!$", count=2)

    subprocess.run(["ip", "link", "set", "v0", "up"], check=True)
    for attempt in range(50):
        if sender.send(b"<after%d/>" % attempt):
            break
        time.sleep(0.1)
    else:
        pytest.fail("sending did not resume:\n" + sender.stderr)
    got = listener.wait_for(2)
    assert got[0][1] == b"<before/>"
    assert got[1][1].startswith(b"<after")
    assert b"<lost/>" not in listener.payloads()
