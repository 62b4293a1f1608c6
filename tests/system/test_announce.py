"""mDNS/DNS-SD announcements of the time service and the MQTT broker, seen through a real
avahi-daemon, and the publisher's recovery when the daemon comes, goes and comes back."""

import os
import signal
import subprocess

import pytest

from avahi_peer import AvahiPeer
from canbus_peer import BUILD_DIR
from sandbox import SOURCE_DIR
from vehicle import read_conf

MQTT, TIME = (read_conf(os.path.join(SOURCE_DIR, "etc", name))
              for name in ("mqttbroker.conf", "time.conf"))
WAITING = r"^NOTE: waiting for avahi to start\.\.\.$"
ESTABLISHED = r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$"


@pytest.mark.emulated
def test_announcement_seen_from_another_host(sandbox, avahi):
    remote = avahi.remote()
    sandbox.write_conf("tavro.conf", "")
    sandbox.write_conf("time.conf", TIME)
    proc = sandbox.tavro("time")
    rec = remote.wait_for(TIME["service_name"], "_%s._%s" % (TIME["service_type"],
                                                             TIME["service_protocol"]))
    assert (rec.interface, rec.protocol, rec.port, rec.host, rec.address, rec.txt) == (
        "v1", "IPv4", int(TIME["service_port"]), "tavro-test.local", "10.20.0.1",
        ["txtversion=1", "version=1.0"])
    assert not [line for line in proc.lines() if line.startswith("WARN")]
    proc.interrupt()
    assert proc.wait(5) == 2


def test_waits_for_avahi_survives_its_restart_and_withdraws_on_sigint(sandbox):
    peer = AvahiPeer(sandbox, start=False)
    sandbox.write_conf("mqttbroker.conf", dict(
        {k: v for k, v in MQTT.items() if k != "topic"}, service_path="/broker"))
    proc = sandbox.tavro("mqtt", "-vv")
    proc.wait_for(WAITING)
    peer.daemon.start()
    proc.wait_for(ESTABLISHED)

    # Killed hard, so no goodbye is sent, and started again: the client fails and the
    # publisher announces anew with a fresh one, without a restart of tavro.
    peer.daemon.restart(signal.SIGKILL)
    # A second NOTE of waiting, if the new client waits, is only counted (10 s window).
    proc.wait_for(r"^DBG : AVAHI_CLIENT_FAILURE$")
    proc.wait_for(ESTABLISHED, count=2)
    watch = peer.watch("_mqtt._tcp")
    assert watch.wait_resolved("tavro-mqtt").txt == [
        "txtversion=1", "version=1.0", "path=/broker", "brand=mosquitto", "proto=3.1.1", "topic="]
    assert 'WARN: Value "topic" not found in configuration.' in proc.lines()
    proc.interrupt()
    assert proc.wait(2) == 2
    assert proc.stdout == "Caught signal 2\n"
    assert "DBG : avahi thread finished." in proc.lines()
    watch.wait_removed("tavro-mqtt")


@pytest.mark.emulated
def test_without_system_bus_the_process_ends(sandbox):
    sandbox.system_bus = False
    sandbox.write_conf("time.conf", TIME)
    proc = sandbox.tavro("time")
    assert proc.wait(5) == 1
    assert proc.lines()[-2:] == ["ERR : avahi_client_new() failed.",
                                 "ERR : Is the avahi-daemon running?"]


def test_replace_last_txt_before_and_after_avahi_runs(sandbox):
    peer = AvahiPeer(sandbox, start=False)
    proc = sandbox.spawn([os.path.join(BUILD_DIR, "tests", "helpers", "avahi_publish"), "Probe",
                          "tavrotest", "udp", "4000", "txtversion=1", "status=0"],
                         stdin=subprocess.PIPE)

    def replace(values, answers):
        proc.popen.stdin.write(("status %s\n" % values).encode())
        proc.popen.stdin.flush()
        proc.wait_for("^done$", stream="stdout", timeout=3, count=answers)

    # The inventory watchdog replaces its record from its own thread: the call must return
    # while the daemon is away, or the service could not be shut down.
    proc.wait_for(WAITING)
    replace("1", 1)
    peer.daemon.start()
    watch = peer.watch("_tavrotest._udp")
    assert watch.wait_resolved("Probe").txt == ["txtversion=1", "status=1"]

    # Twice back to back: the latest list is announced, the one between never shows.
    replace("degraded ok", 2)
    peer.wait_for("Probe", "_tavrotest._udp", predicate=lambda r: r.txt[-1] == "status=ok")
    assert {tuple(r.txt) for r in watch.resolved("Probe")} <= {
        ("txtversion=1", "status=1"), ("txtversion=1", "status=ok")}
    proc.popen.stdin.close()
    assert proc.wait(3) == 0
    watch.wait_removed("Probe")
