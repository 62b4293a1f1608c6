"""The FastCGI front end behind a real nginx, and in the daemon itself."""

import os
import resource
import socket
import struct

import pytest

from nginx_peer import Nginx, wait_for_port
from sandbox import SOURCE_DIR

BUILD_DIR = os.environ.get("TAVRO_BUILD_DIR", os.path.join(SOURCE_DIR, "build", "plain"))
HOST = os.path.join(BUILD_DIR, "tests", "helpers", "fcgi_host")
FCGI_PORT = 9000


@pytest.fixture
def web(sandbox):
    env = dict(os.environ, LSAN_OPTIONS="suppressions=%s"
               % os.path.join(SOURCE_DIR, "tests", "lsan.supp"))
    host = sandbox.spawn([HOST, str(FCGI_PORT), "2"], env=env, name="fcgi_host")
    wait_for_port(FCGI_PORT)
    nginx = Nginx(sandbox, FCGI_PORT, http_ports=(8085, 8086))
    yield host, nginx
    host.interrupt()
    assert host.wait(10) == 0


def echo(nginx, path, body=None, **kw):
    """The test hook's key=value lines, the sizes of the STDIN records, and the echoed body."""
    status, _, _, data = nginx.request("POST" if body is not None else "GET", path, body, **kw)
    assert status == 200
    head, _, echoed = data.partition(b"\n\n")
    values = dict(line.split("=", 1) for line in head.decode().splitlines())
    return values, [int(v) for v in values["records"].split(",") if v], echoed


def test_requests_and_bodies(web):
    _, nginx = web
    values, sizes, echoed = echo(nginx, "/hello?x=1")
    assert (values["method"], values["uri"], values["server_port"]) == ("GET", "/hello?x=1", "8085")
    assert (sizes, echoed) == ([], b"")

    xml = b"<PGNReq>FEF1</PGNReq>"
    values, sizes, echoed = echo(nginx, "/pgn", xml)
    assert (values["content_length"], sizes, echoed) == (str(len(xml)), [len(xml)], xml)
    # nginx logs the STDERR stream: the body with every byte one higher.
    shifted = bytes(b + 1 for b in xml).decode()
    nginx.process.wait_for(r'FastCGI sent in stderr: "%s"' % shifted.replace("?", r"\?"))

    # Large bodies come in several STDIN records, each handed to the hook once.
    payload = bytes(range(256)) * 400
    _, sizes, echoed = echo(nginx, "/big", payload)
    assert echoed == payload
    assert len(sizes) > 1 and sum(sizes) == len(payload)
    # An iterable body goes out chunked; nginx de-chunks it.
    _, _, echoed = echo(nginx, "/chunked", iter([b"a" * 1000, b"b" * 5000, b"c"]))
    assert echoed == b"a" * 1000 + b"b" * 5000 + b"c"


def test_status_lines_ports_and_kept_connections(web):
    host, nginx = web
    assert nginx.request("GET", "/status/404%20Not%20Found")[:2] == (404, "Not Found")
    assert nginx.request("GET", "/status/403")[:2] == (403, "")
    # Nothing is registered for 8086: an empty answer, which nginx cannot pass on.
    assert nginx.request("GET", "/hello", port=8086)[0] == 502
    # An answer and END_REQUEST before the body is complete.
    assert nginx.request("POST", "/early", b"x" * 10)[::3] == (200, b"early\n")
    for i in range(6):
        values, _, echoed = echo(nginx, "/keep/%d" % i, b"n%d" % i)
        assert (values["uri"], echoed) == ("/keep/%d" % i, b"n%d" % i)
    assert "upstream prematurely closed" not in nginx.log
    assert host.running()


def test_vanished_client_and_hostile_peers(web):
    host, nginx = web
    # The client leaves in the middle of a 16 MiB answer; nginx drops the FastCGI connection.
    sock = socket.create_connection(("127.0.0.1", 8085))
    sock.sendall(b"GET /huge HTTP/1.1\r\nHost: x\r\n\r\n")
    assert sock.recv(4096).startswith(b"HTTP/1.1 200")
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()
    host.wait_for(r"^WARN: FastCGI connection dropped: write\(\) failed$")

    # Many peers that connect, send half a header and keep quiet do not lock nginx out.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(hard, 2000)), hard))
    count = min(1500, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 200)
    peers = []
    try:
        for _ in range(count):
            peer = socket.socket()
            peer.setblocking(False)
            peer.connect_ex(("127.0.0.1", FCGI_PORT))
            peers.append(peer)
        for peer in peers:
            try:
                peer.send(b"\x01\x05\x00\x01")
            except OSError:
                pass
        assert echo(nginx, "/through", b"still here")[2] == b"still here"
    finally:
        for peer in peers:
            peer.close()
    assert host.running()


def get_values(port):
    names = b"\x0e\x00FCGI_MAX_CONNS"
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(struct.pack(">BBHHBB", 1, 9, 0, len(names), 0, 0) + names)
        return s.recv(4096)


def test_daemon_serves_fastcgi_and_stops(sandbox):
    sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
    proc = sandbox.tavro("fmstoip", "-vv")
    wait_for_port(FCGI_PORT)
    assert get_values(FCGI_PORT) == b"\x01\x0a\x00\x00\x00\x13\x00\x00\x0e\x03FCGI_MAX_CONNS100"
    Nginx(sandbox, FCGI_PORT).request("GET", "/fmstoip/getpgn")
    proc.wait_for(r"^DBG : 8085$")
    proc.interrupt()
    assert proc.wait(5) == 2
    lines = proc.lines()
    assert lines.index("DBG : fcgi thread finished.") == lines.index("NOTE: Closing program...") + 1


def test_daemon_stops_while_the_port_is_taken(sandbox):
    with socket.socket() as blocker:
        blocker.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        blocker.bind(("0.0.0.0", FCGI_PORT))
        blocker.listen(1)
        sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
        proc = sandbox.tavro("fmstoip", "-vv")
        proc.wait_for(r"^INFO: Bind to fcgi socket failed\. retrying\.\.\.$", count=2)
        proc.interrupt()
        assert proc.wait(5) == 2
        assert "DBG : fcgi thread finished." in proc.lines()
