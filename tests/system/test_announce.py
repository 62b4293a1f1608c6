"""mDNS/DNS-SD announcements of the time service and the MQTT broker, seen through a real
avahi-daemon, and the publisher's recovery when the daemon comes, goes and comes back."""

import os
import signal
import subprocess
import time

import pytest

from avahi_peer import AvahiPeer

BUILD_DIR = os.environ.get("TAVRO_BUILD_DIR", os.path.join(os.path.dirname(__file__), "..", "..",
                                                            "build", "plain"))
PUBLISH = os.path.join(BUILD_DIR, "tests", "helpers", "avahi_publish")

MQTT = {
    "service_name": "tavro-mqtt",
    "service_type": "mqtt",
    "service_protocol": "tcp",
    "service_domain": "local",
    "service_port": 1883,
    "service_txtversion": 1,
    "service_version": "1.0",
    "brand": "mosquitto",
    "proto": "3.1.1",
    "topic": "vehicle/status",
}

TIME = {
    "service_name": "tavro-time",
    "service_type": "ntp",
    "service_protocol": "udp",
    "service_domain": "local",
    "service_port": 123,
    "service_txtversion": 1,
    "service_version": "1.0",
}


def without(conf, *keys):
    return {k: v for k, v in conf.items() if k not in keys}


def warnings_for(proc, key):
    return [l for l in proc.lines() if l == 'WARN: Value "%s" not found in configuration.' % key]


@pytest.mark.parametrize("service,conf,txt", [
    ("mqtt", dict(MQTT, service_path="/broker"),
     ["txtversion=1", "version=1.0", "path=/broker", "brand=mosquitto", "proto=3.1.1",
      "topic=vehicle/status"]),
    ("mqtt", MQTT,
     ["txtversion=1", "version=1.0", "brand=mosquitto", "proto=3.1.1", "topic=vehicle/status"]),
    ("mqtt", without(MQTT, "topic"),
     ["txtversion=1", "version=1.0", "brand=mosquitto", "proto=3.1.1", "topic="]),
    pytest.param("time", TIME, ["txtversion=1", "version=1.0"], marks=pytest.mark.emulated),
])
def test_announcement(sandbox, avahi, service, conf, txt):
    remote = avahi.remote()
    sandbox.write_conf({"mqtt": "mqttbroker.conf", "time": "time.conf"}[service], conf)
    proc = sandbox.tavro(service)
    # As another host on the vehicle network sees it.
    kind = "_%s._%s" % (conf["service_type"], conf["service_protocol"])
    rec = remote.wait_for(conf["service_name"], kind)
    assert (rec.interface, rec.protocol, rec.port) == ("v1", "IPv4", conf["service_port"])
    assert (rec.host, rec.address) == ("tavro-test.local", "10.20.0.1")
    assert rec.txt == txt
    assert len(warnings_for(proc, "topic")) == (service == "mqtt" and "topic" not in conf)
    assert warnings_for(proc, "service_path") == []
    proc.interrupt()
    assert proc.wait(5) == 2


def test_all_shares_the_general_instance_name(sandbox, avahi):
    sandbox.write_conf("tavro.conf", {"service_name": "vehicle-42", "fcgi_port": 9000})
    sandbox.write_conf("time.conf", TIME)
    sandbox.write_conf("mqttbroker.conf", MQTT)
    proc = sandbox.tavro("all", "-vv")
    rec = avahi.wait_for("vehicle-42", "_ntp._udp")
    # The time service carries the standard records only.
    assert (rec.port, rec.txt) == (123, ["txtversion=1", "version=1.0"])
    assert avahi.wait_for("vehicle-42", "_mqtt._tcp").port == 1883
    proc.interrupt()
    assert proc.wait(10) == 2
    assert "DBG : avahi thread finished." in proc.lines()


def test_waits_for_avahi_survives_its_restart_and_withdraws_on_sigint(sandbox):
    peer = AvahiPeer(sandbox, start=False)
    sandbox.write_conf("mqttbroker.conf", MQTT)
    proc = sandbox.tavro("mqtt", "-vv")
    proc.wait_for(r"^NOTE: waiting for avahi to start\.\.\.$")
    time.sleep(1.5)  # a few poll turns without a daemon
    assert proc.running()

    peer.daemon.start()
    peer.wait_for("tavro-mqtt", "_mqtt._tcp")
    proc.wait_for(r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$")

    # Killed hard, so no goodbye is sent, and started again: the client fails and the
    # publisher announces anew with a fresh one, without a restart of tavro.
    peer.daemon.restart(signal.SIGKILL)
    proc.wait_for(r"^DBG : AVAHI_CLIENT_FAILURE$")
    rec = peer.wait_for("tavro-mqtt", "_mqtt._tcp")
    assert rec.txt[-1] == "topic=vehicle/status"
    proc.wait_for(r"^NOTE: waiting for avahi to start\.\.\.$", count=2)
    proc.wait_for(r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$", count=2)

    watch = peer.watch("_mqtt._tcp")
    watch.wait_resolved("tavro-mqtt")
    proc.interrupt()
    assert proc.wait(3) == 2
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


def test_bad_service_type_is_reported(sandbox, avahi):
    sandbox.write_conf("time.conf", dict(TIME, service_type="x"))
    proc = sandbox.tavro("time")
    proc.wait_for(r'^WARN: Service "tavro-time" of type _x\._udp not announced: .+$')
    proc.interrupt()
    assert proc.wait(3) == 2


def test_name_collision_leaves_service_unannounced(sandbox, avahi):
    remote = avahi.remote()
    remote.publish("tavro-time", "_ntp._udp", 4123)
    remote.wait_for("tavro-time", "_ntp._udp")
    sandbox.write_conf("time.conf", TIME)
    proc = sandbox.tavro("time", "-vv")
    proc.wait_for(r"^DBG : Service name collision$")
    time.sleep(1.5)
    # No other name is tried, and the remote host still sees only its own service.
    assert proc.running()
    assert proc.stderr.count("ifname:") == 1
    assert [(r.name, r.port) for r in remote.browse("_ntp._udp")] == [("tavro-time", 4123)]
    proc.interrupt()
    assert proc.wait(3) == 2


def publisher(sandbox, *args):
    return sandbox.spawn([PUBLISH, "-v", "4"] + list(args), stdin=subprocess.PIPE,
                         name="avahi_publish")


def command(proc, line):
    proc.popen.stdin.write((line + "\n").encode())
    proc.popen.stdin.flush()


def test_replace_last_txt_twice_publishes_the_latest_list(sandbox, avahi):
    proc = publisher(sandbox, "Status Probe", "tavrotest", "udp", "4000", "txtversion=1",
                     "status=starting")
    watch = avahi.watch("_tavrotest._udp")
    rec = watch.wait_resolved("Status Probe")
    assert rec.txt == ["txtversion=1", "status=starting"]

    command(proc, "replace2 status degraded ok")
    proc.wait_for("^done replace2$", stream="stdout")
    # One re-publication per call, each with the list as it is then.
    proc.wait_for(r"^DBG : ifname:  ifindex: 4294967295$", count=3)
    avahi.wait_for("Status Probe", "_tavrotest._udp",
                   predicate=lambda r: r.txt == ["txtversion=1", "status=ok"])
    assert all("status=degraded" not in r.txt for r in watch.resolved("Status Probe"))
    assert all(len(r.txt) == 2 for r in watch.resolved("Status Probe"))

    proc.popen.stdin.close()
    assert proc.wait(3) == 0
    watch.wait_removed("Status Probe")


def test_recreated_interface_is_published_on_again(sandbox, avahi):
    proc = publisher(sandbox, "-i", "v0", "Iface Probe", "tavrotest", "tcp", "4001", "a=1")
    first = int(proc.wait_for(r"^DBG : ifname: v0 ifindex: (\d+)$").group(1))
    avahi.wait_for("Iface Probe", "_tavrotest._tcp")

    subprocess.run(["ip", "link", "del", "v0"], check=True)
    sandbox.links.remove("v0")
    sandbox.veth()
    second = int(proc.wait_for(r"^DBG : ifname: v0 ifindex: (\d+)$", count=2).group(1))
    assert second != first
    rec = avahi.wait_for("Iface Probe", "_tavrotest._tcp", timeout=15)
    assert (rec.interface, rec.port, rec.txt) == ("v0", 4001, ["a=1"])
    proc.popen.stdin.close()
    assert proc.wait(3) == 0


def test_replace_last_txt_does_not_wait_for_avahi(sandbox):
    # The inventory watchdog replaces its record from its own thread; that call must return
    # while the daemon is away, or the service could not be shut down.
    peer = AvahiPeer(sandbox, start=False)
    proc = publisher(sandbox, "Waiting Probe", "tavrotest", "udp", "4002", "status=0")
    proc.wait_for(r"^NOTE: waiting for avahi to start\.\.\.$")
    command(proc, "replace status 1")
    proc.wait_for("^done replace$", stream="stdout", timeout=3)
    peer.daemon.start()
    rec = peer.wait_for("Waiting Probe", "_tavrotest._udp",
                        predicate=lambda r: r.txt == ["status=1"])
    assert rec.port == 4002
    proc.popen.stdin.close()
    assert proc.wait(3) == 0
