"""The process frame of the real binary: invocation names, options, logging, signals."""

import os
import re
import socket
import time

import pytest

LIST = "Available services:\n" + "".join(
    "tavro-%s\n" % s for s in "all inventory fmstoip time gnss vehicletoip mqtt".split())
USAGE = """USAGE: /usr/sbin/tavro-time [OPTIONS]

OPTIONS:
  -v[v[v]], --verbose  : verbose
  -q, --quiet          : quiet
  -s, --syslog         : write log to syslog
  -h, --help           : show USAGE
  --version            : show VERSION
"""
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
    ("tavro", ["--version"], 1, LIST, 0),
    ("/usr/sbin/tavro-time", ["-h"], 1, USAGE, 0),
    ("/usr/sbin/tavro-time", ["-x"], 1, USAGE, 0),
    ("/usr/sbin/tavro-time", ["-v", "-0"], 1, USAGE, 0),
    ("/usr/sbin/tavro-time", ["-3"], 1, USAGE, 0),
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
    assert (rc, proc.stdout) == (status, out)
    assert [line for line in STEPS if line in proc.lines()] == STEPS[:shown]
    if status == 2 and shown == 0:
        assert proc.stderr == ""


def test_version(sandbox):
    proc, rc = run(sandbox, "gnss", "--version")
    assert rc == 0 and re.fullmatch(r"tavro unknown-version\n.+\n", proc.stdout), proc.stdout


def test_syslog_gets_every_line_and_missing_files_are_survived(sandbox):
    # Room for every line (in this namespace only): syslog() would block on a full socket.
    with open("/proc/sys/net/unix/max_dgram_qlen", "w") as f:
        f.write("1000")
    path, sock = sandbox.syslog_receiver()
    proc, rc = run(sandbox, "gnss", "-s", "-v", dev_log=path)
    assert (rc, proc.stdout, proc.stderr) == (2, CAUGHT, "")
    sock.settimeout(0.1)
    messages = []
    with pytest.raises(socket.timeout):
        while True:
            messages.append(sock.recv(65536).decode())
    # <priority>timestamp ident: text, without a pid; LOG_USER is 8, INFO 6, NOTE 5, WARN 4.
    for line in ("<12>WARN: File /etc/tavro/tavro.conf could not be opened.",
                 "<12>WARN: File /etc/tavro/gnss.conf could not be opened.",
                 "<14>INFO: Starting gnss service.", "<13>NOTE: Closing program..."):
        priority, text = line.split(">", 1)
        assert any(m.startswith(priority + ">") and m.endswith(" tavro-gnss: %s\n" % text)
                   for m in messages), messages


def test_fcgi_port_must_be_a_number(sandbox):
    sandbox.write_conf("tavro.conf", "fcgi_port=9000x\n")
    proc, rc = run(sandbox, "fmstoip", "-vv")
    assert rc == 2
    # The service's own files (such as the PGN counter file) load after these.
    assert [l for l in proc.lines() if l.startswith("DBG : Loading /etc/tavro/")] == [
        "DBG : Loading /etc/tavro/" + f for f in
        ("tavro.conf", "fmstoip.conf", "addpgn.conf", "removepgn.conf", "getpgn.conf")]
    assert re.search(r'^ERR : No valid "fcgi_port" in configuration.*FastCGI front end not '
                     r'started\.$', proc.stderr, re.M), proc.stderr
