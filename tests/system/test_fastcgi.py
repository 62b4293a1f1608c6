"""The FastCGI front end behind a real nginx, and in the daemon itself."""

import os
import socket
import struct
import time

import pytest

from nginx_peer import Nginx, wait_for_port
from sandbox import SOURCE_DIR

BUILD_DIR = os.environ.get("TAVRO_BUILD_DIR", os.path.join(SOURCE_DIR, "build", "plain"))
HOST = os.path.join(BUILD_DIR, "tests", "helpers", "fcgi_host")
FCGI_PORT = 9000


def start_host(sandbox, verbosity=3):
    env = dict(os.environ)
    env.setdefault("LSAN_OPTIONS", "suppressions=%s"
                   % os.path.join(SOURCE_DIR, "tests", "lsan.supp"))
    proc = sandbox.spawn([HOST, str(FCGI_PORT), str(verbosity)], env=env, name="fcgi_host")
    wait_for_port(FCGI_PORT)
    return proc


@pytest.fixture
def web(sandbox):
    host = start_host(sandbox)
    nginx = Nginx(sandbox, FCGI_PORT, http_ports=(8085, 8086))
    yield host, nginx
    host.interrupt()
    assert host.wait(10) == 0


def fields(body):
    """The key=value lines of the test hook's answer, and the echoed body."""
    head, _, echoed = body.partition(b"\n\n")
    values = dict(line.split("=", 1) for line in head.decode().splitlines())
    return values, echoed


def record_sizes(values):
    return [int(v) for v in values["records"].split(",") if v]


def test_requests_through_nginx(web):
    host, nginx = web
    status, _, headers, body = nginx.request("GET", "/hello?x=1")
    assert status == 200
    assert headers["Content-Type"] == "text/plain"
    values, echoed = fields(body)
    assert values["method"] == "GET"
    assert values["uri"] == "/hello?x=1"
    assert values["server_port"] == "8085"
    # No body: no STDIN data reached the hook.
    assert values["records"] == ""
    assert echoed == b""

    xml = b"<PGNReq>FEF1</PGNReq>"
    status, _, _, body = nginx.request("POST", "/pgn", body=xml,
                                       headers={"Content-Type": "text/xml"})
    assert status == 200
    values, echoed = fields(body)
    assert values["content_length"] == str(len(xml))
    assert record_sizes(values) == [len(xml)]
    assert echoed == xml
    # nginx logs what comes as STDERR: the body with every byte one higher.
    shifted = bytes((b + 1) % 256 for b in xml).decode()
    nginx.process.wait_for(r'FastCGI sent in stderr: "%s"' % shifted.replace("?", r"\?"))


def test_large_and_chunked_bodies_arrive_whole(web):
    _, nginx = web
    payload = bytes(range(256)) * 400  # 102400 bytes
    status, _, _, body = nginx.request("POST", "/big", body=payload)
    assert status == 200
    values, echoed = fields(body)
    sizes = record_sizes(values)
    assert echoed == payload
    assert sum(sizes) == len(payload)
    # nginx cuts large bodies into several STDIN records; each one reached the hook once.
    assert len(sizes) > 1
    assert max(sizes) <= 65535

    pieces = [b"a" * 1000, b"b" * 5000, b"c"]
    # An iterable body goes out chunked; nginx de-chunks it before it passes it on.
    status, _, _, body = nginx.request("POST", "/chunked", body=iter(pieces))
    assert status == 200
    values, echoed = fields(body)
    assert echoed == b"".join(pieces)


def test_kept_connections_serve_request_after_request(web):
    _, nginx = web
    for i in range(6):
        status, _, _, body = nginx.request("POST", "/keep/%d" % i, body=b"n%d" % i)
        assert status == 200
        values, echoed = fields(body)
        assert values["uri"] == "/keep/%d" % i
        assert echoed == b"n%d" % i
    assert "upstream prematurely closed" not in nginx.log


def test_status_line_and_port_selection(web):
    host, nginx = web
    status, reason, _, body = nginx.request("GET", "/status/404%20Not%20Found")
    assert (status, reason) == (404, "Not Found")
    assert body == b"status 404 Not Found\n"
    # Without a reason phrase nginx sends an empty one.
    status, reason, _, _ = nginx.request("GET", "/status/403")
    assert (status, reason) == (403, "")
    # Nothing is registered for 8086: an empty answer, which nginx cannot turn into a reply.
    status, _, _, _ = nginx.request("GET", "/hello", port=8086)
    assert status == 502
    assert host.running()
    status, _, _, _ = nginx.request("GET", "/hello")
    assert status == 200


def test_vanished_client(web):
    host, nginx = web
    # The client leaves in the middle of a 16 MiB answer; nginx drops the FastCGI connection.
    sock = socket.create_connection(("127.0.0.1", 8085))
    sock.sendall(b"GET /huge HTTP/1.1\r\nHost: x\r\n\r\n")
    assert sock.recv(4096).startswith(b"HTTP/1.1 200")
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()
    host.wait_for(r"^WARN: FastCGI connection dropped: write\(\) failed$")
    assert host.running()
    status, _, _, _ = nginx.request("GET", "/after")
    assert status == 200


def test_hostile_connections_do_not_lock_out_nginx(web):
    host, nginx = web
    import resource
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    count = 1500
    if soft < count + 200:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, count + 200), hard))
        count = min(count, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 200)
    socks = []
    try:
        for _ in range(count):
            s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            s.setblocking(False)
            s.connect_ex(("127.0.0.1", FCGI_PORT))
            socks.append(s)
        time.sleep(0.5)
        for s in socks:
            try:
                # Half a record header, then silence.
                s.send(b"\x01\x05\x00\x01")
            except OSError:
                pass
        status, _, _, body = nginx.request("POST", "/through", body=b"still here")
        assert status == 200
        assert fields(body)[1] == b"still here"
        assert host.running()
    finally:
        for s in socks:
            s.close()


def test_answer_before_the_body_is_complete(web):
    _, nginx = web
    status, _, _, body = nginx.request("POST", "/early", body=b"x" * 10)
    assert status == 200
    assert body == b"early\n"


# --- the daemon itself ------------------------------------------------------------------

def get_values(port):
    """Asks the FastCGI port for FCGI_MAX_CONNS and returns the answer's records."""
    names = b"\x0e\x00FCGI_MAX_CONNS"
    msg = struct.pack(">BBHHBB", 1, 9, 0, len(names), 0, 0) + names
    with socket.create_connection(("127.0.0.1", port), timeout=5) as s:
        s.sendall(msg)
        data = s.recv(4096)
    return data


def test_daemon_serves_fastcgi_and_stops(sandbox):
    sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
    proc = sandbox.tavro("fmstoip", "-vv")
    wait_for_port(FCGI_PORT)
    answer = get_values(FCGI_PORT)
    assert answer[:2] == b"\x01\x0a"
    assert answer[8:] == b"\x0e\x03FCGI_MAX_CONNS100"

    nginx = Nginx(sandbox, FCGI_PORT)
    nginx.request("GET", "/fmstoip/getpgn")
    proc.wait_for(r"^DBG : 8085$")

    proc.interrupt()
    assert proc.wait(5) == 2
    lines = proc.lines()
    closing = lines.index("NOTE: Closing program...")
    assert lines.index("DBG : fcgi thread finished.") == closing + 1


def test_daemon_retries_a_taken_port_and_still_stops_at_once(sandbox):
    blocker = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    blocker.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    blocker.bind(("0.0.0.0", FCGI_PORT))
    blocker.listen(1)
    try:
        sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
        proc = sandbox.tavro("fmstoip", "-vv")
        proc.wait_for(r"^INFO: Bind to fcgi socket failed\. retrying\.\.\.$", count=2)
        proc.interrupt()
        assert proc.wait(5) == 2
        assert "DBG : fcgi thread finished." in proc.lines()
    finally:
        blocker.close()


def test_daemon_takes_the_port_once_it_is_free(sandbox):
    blocker = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    blocker.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    blocker.bind(("0.0.0.0", FCGI_PORT))
    blocker.listen(1)
    sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
    proc = sandbox.tavro("fmstoip", "-v")
    proc.wait_for(r"^INFO: Bind to fcgi socket failed\. retrying\.\.\.$")
    blocker.close()
    wait_for_port(FCGI_PORT, timeout=5)
    assert get_values(FCGI_PORT)[1] == 10
    proc.interrupt()
    assert proc.wait(5) == 2
