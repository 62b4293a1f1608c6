"""The process frame of the real binary: invocation names, options, logging, signals."""

import os
import signal
import socket
import threading
import time

import pytest

SERVICES = ["tavro-all", "tavro-inventory", "tavro-fmstoip", "tavro-time", "tavro-gnss",
            "tavro-vehicletoip", "tavro-mqtt"]
USAGE_OPTIONS = [
    "OPTIONS:",
    "  -v[v[v]], --verbose  : verbose",
    "  -q, --quiet          : quiet",
    "  -s, --syslog         : write log to syslog",
    "  -h, --help           : show USAGE",
    "  --version            : show VERSION",
]


def block_config(sandbox):
    """A FIFO as general file: a daemon that reads its configuration would hang on it."""
    os.mkfifo("/etc/tavro/tavro.conf")


@pytest.mark.parametrize("argv0,args", [
    ("tavro", []), ("tavro-ALL", []), ("tavro", ["--help"]), ("tavro-ALL", ["--version"]),
    ("/usr/sbin/tavro", ["-v"]), ("", []), ("/opt/tavro-all.old", []),
])
def test_unknown_invocation_lists_services(sandbox, argv0, args):
    block_config(sandbox)
    proc = sandbox.tavro(None, *args, argv0=argv0)
    assert proc.wait(5) == 1
    assert proc.stdout.splitlines() == ["Available services:"] + SERVICES


@pytest.mark.parametrize("args", [["-h"], ["--help"], ["-x"], ["-0"], ["-3"], ["-v", "-h"]])
def test_usage(sandbox, args):
    block_config(sandbox)
    proc = sandbox.tavro(None, *args, argv0="/usr/sbin/tavro-time")
    assert proc.wait(5) == 1
    assert proc.stdout.splitlines() == ["USAGE: /usr/sbin/tavro-time [OPTIONS]", ""] + USAGE_OPTIONS


def test_version(sandbox):
    block_config(sandbox)
    proc = sandbox.tavro("gnss", "--version")
    assert proc.wait(5) == 0
    lines = proc.stdout.splitlines()
    assert len(lines) == 2
    assert lines[0] == "tavro unknown-version"
    assert lines[1]


def start_and_interrupt(sandbox, service, *args, settle="Starting|Loading|Closing", **kw):
    proc = sandbox.tavro(service, *args, **kw)
    # Nothing signals readiness at the default verbosity: give start-up a moment.
    time.sleep(0.5)
    proc.interrupt()
    rc = proc.wait(10)
    return proc, rc


def test_sigint_ends_with_signal_number(sandbox):
    proc, rc = start_and_interrupt(sandbox, "time")
    assert rc == 2
    assert proc.stdout == "Caught signal 2\n"
    assert "NOTE: Closing program...\n" in proc.stderr


def test_all_starts_services_in_order(sandbox):
    proc, rc = start_and_interrupt(sandbox, "all", "-v")
    assert rc == 2
    infos = [l for l in proc.lines() if l.startswith("INFO: Starting")]
    assert infos == [
        "INFO: Starting inventory service.",
        "INFO: Starting fmstoip service.",
        "INFO: Starting time service.",
        "INFO: Starting gnss service.",
        "INFO: Starting vtoip service.",
        "INFO: Starting mqttbroker service.",
    ]


def test_missing_configuration_files_warn_and_run_on(sandbox):
    proc, rc = start_and_interrupt(sandbox, "mqtt")
    assert rc == 2
    assert "WARN: File /etc/tavro/tavro.conf could not be opened." in proc.lines()
    assert "WARN: File /etc/tavro/mqttbroker.conf could not be opened." in proc.lines()


def test_service_files_load_in_order(sandbox):
    sandbox.write_conf("tavro.conf", {"fcgi_port": 9000})
    proc, rc = start_and_interrupt(sandbox, "fmstoip", "-vv")
    assert rc == 2
    # The service's own files (such as the PGN counter file) load after these.
    loads = [l for l in proc.lines() if l.startswith("DBG : Loading /etc/tavro/")]
    assert loads == ["DBG : Loading /etc/tavro/" + f for f in
                     ("tavro.conf", "fmstoip.conf", "addpgn.conf", "removepgn.conf",
                      "getpgn.conf")]


@pytest.mark.parametrize("args,expected", [
    ([], 2), (["-v"], 3), (["-vv"], 4), (["-vvv"], 8), (["-vvvv"], 8),
    (["-v", "-q"], 0), (["-q", "-v"], 0), (["-qv"], 0), (["--quiet"], 0),
    (["--verbose", "--verbose"], 4),
])
def test_verbosity_steps(sandbox, args, expected):
    # A port, so that the only error a time service could log is not there.
    sandbox.write_conf("time.conf", "service_port=123\n")
    proc, rc = start_and_interrupt(sandbox, "time", *args)
    assert rc == 2
    lines = proc.lines()
    # Each step shows by the lines that only it lets through.
    assert ("NOTE: Closing program..." in lines) == (expected >= 2)
    assert ("INFO: Starting time service." in lines) == (expected >= 3)
    assert ("DBG : Loading /etc/tavro/tavro.conf" in lines) == (expected >= 4)
    assert ("DBG : Returning 2" in lines) == (expected >= 8)
    if expected == 0:
        assert proc.stderr == ""


@pytest.mark.parametrize("port", [None, "", "http", "9000x", "99999999999"])
def test_fcgi_port_must_be_a_number(sandbox, port):
    if port is not None:
        sandbox.write_conf("tavro.conf", "fcgi_port=%s\n" % port)
    proc, rc = start_and_interrupt(sandbox, "fmstoip")
    assert rc == 2
    errors = [l for l in proc.lines() if "fcgi_port" in l]
    assert errors[-1].startswith("ERR : No valid \"fcgi_port\" in configuration")
    assert errors[-1].endswith("FastCGI front end not started.")


def test_syslog(sandbox):
    path, sock = sandbox.syslog_receiver()
    sock.settimeout(0.5)
    messages, done = [], threading.Event()

    def receive():
        # Read all along, as a syslog daemon does: once the socket's queue (10 datagrams) is
        # full, syslog() blocks the daemon.
        while True:
            try:
                messages.append(sock.recv(65536).decode())
            except socket.timeout:
                if done.is_set():
                    return

    receiver = threading.Thread(target=receive)
    receiver.start()
    proc, rc = start_and_interrupt(sandbox, "gnss", "-s", "-v", dev_log=path)
    done.set()
    receiver.join()
    assert rc == 2
    assert proc.stderr == ""
    assert proc.stdout == "Caught signal 2\n"
    # <priority>timestamp ident: text -- LOG_USER is 8; INFO 6, NOTE 5, WARN 4.
    assert any(m.startswith("<14>") and " tavro-gnss: INFO: Starting gnss service.\n" in m
               for m in messages), messages
    assert any(m.startswith("<13>") and " tavro-gnss: NOTE: Closing program...\n" in m
               for m in messages), messages
    assert any(m.startswith("<12>") and "tavro-gnss: WARN: File /etc/tavro/gnss.conf could "
               "not be opened.\n" in m for m in messages), messages
    # No pid after the ident.
    assert not any("tavro-gnss[" in m for m in messages)


def test_sigterm_keeps_default_action(sandbox):
    proc = sandbox.tavro("time")
    time.sleep(0.3)
    proc.send(signal.SIGTERM)
    assert proc.wait(5) == -signal.SIGTERM
