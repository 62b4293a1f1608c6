"""The process frame of the real binary: invocation names, options, logging, signals."""

import os
import re
import socket
import time
from pathlib import Path

import pytest

LIST = re.escape("Available services:\n" + "".join(
    "tavro-%s\n" % s for s in "all inventory fmstoip time gnss vehicletoip mqtt".split()))
USAGE = re.escape("""USAGE: /usr/sbin/tavro-time [OPTIONS]

OPTIONS:
  -v[v[v]], --verbose  : verbose
  -q, --quiet          : quiet
  -s, --syslog         : write log to syslog
  -h, --help           : show USAGE
  --version            : show VERSION
""")
CAUGHT = "Caught signal 2\n"
# A line that only each verbosity step lets through: 2, 3, 4 and 8.
STEPS = ["NOTE: Closing program...", "INFO: Starting time service.",
         "DBG : Loading /etc/tavro/tavro.conf", "DBG : Returning 2"]


def run(sandbox, service, *args, **kw):
    proc = sandbox.tavro(service, *args, **kw)
    # Nothing signals readiness at the default verbosity: give start-up a moment.
    time.sleep(0.5)
    proc.interrupt()
    return proc, proc.wait(10)


@pytest.mark.parametrize("argv0,args,status,out,shown", [
    ("tavro-ALL", ["--help"], 1, LIST, 0),
    ("tavro-gnss", ["--version"], 0, r"tavro unknown-version\n.+\n", 0),
    ("/usr/sbin/tavro-time", ["-h"], 1, USAGE, 0),
    ("/usr/sbin/tavro-time", ["-v", "-0"], 1, USAGE, 0),
    ("tavro-time", ["-q", "-v"], 2, CAUGHT, 0),
    ("tavro-time", [], 2, CAUGHT, 1),
    ("tavro-time", ["-v"], 2, CAUGHT, 2),
    ("tavro-time", ["--verbose", "--verbose"], 2, CAUGHT, 3),
    ("tavro-time", ["-vvvv"], 2, CAUGHT, 4),
])
def test_invocation_options_and_verbosity(sandbox, argv0, args, status, out, shown):
    if status == 1:
        os.mkfifo("/etc/tavro/tavro.conf")  # a daemon that read its configuration would hang
    else:
        sandbox.write_conf("time.conf", "service_port=123\n")
    proc, rc = run(sandbox, None, *args, argv0=argv0)
    assert rc == status and re.fullmatch(out, proc.stdout), proc.stdout
    assert [line for line in STEPS if line in proc.lines()] == STEPS[:shown]
    if status == 2 and shown == 0:
        assert proc.stderr == ""


def test_syslog_missing_files_and_bad_ports_are_survived(sandbox):
    # Room for every line (in this namespace only): syslog() would block on a full socket.
    Path("/proc/sys/net/unix/max_dgram_qlen").write_text("1000")
    sandbox.write_conf("tavro.conf", "fcgi_port=9000x\n")
    path, sock = sandbox.syslog_receiver()
    proc, rc = run(sandbox, "fmstoip", "-s", "-vv", dev_log=path)
    assert (rc, proc.stdout, proc.stderr) == (2, CAUGHT, "")
    sock.settimeout(0.1)
    messages = []
    with pytest.raises(socket.timeout):
        while True:
            messages.append(sock.recv(65536).decode())
    # <priority>timestamp ident: text, without a pid; LOG_USER is 8, ERR 3 ... DBG 7.
    lines = [re.fullmatch(r"<(\d+)>.+? tavro-fmstoip: (.*)\n", m, re.S).groups()
             for m in messages]
    for line in (("12", "WARN: File /etc/tavro/fmstoip.conf could not be opened."),
                 ("14", "INFO: Starting fmstoip service."), ("13", "NOTE: Closing program..."),
                 ("11", 'ERR : No valid "service_port" in configuration (""). Service "" not '
                        "announced.")):
        assert line in lines, lines
    # The service's own files (such as the PGN counter file) load after these.
    assert [t for p, t in lines if t.startswith("DBG : Loading /etc/tavro/")] == [
        "DBG : Loading /etc/tavro/" + f for f in
        ("tavro.conf", "fmstoip.conf", "addpgn.conf", "removepgn.conf", "getpgn.conf")]
    assert any(p == "11" and re.match(r'ERR : No valid "fcgi_port" in configuration.*FastCGI '
                                      r"front end not started\.$", t) for p, t in lines), lines
