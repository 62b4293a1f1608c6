"""The MQTT broker's announcement through a real avahi-daemon that goes and comes back."""

import os
import signal

import pytest

from sandbox import SOURCE_DIR
from vehicle import read_conf

MQTT = read_conf(os.path.join(SOURCE_DIR, "etc", "mqttbroker.conf"))


@pytest.mark.emulated
def test_seen_from_another_host_after_avahi_restart_and_withdrawn_on_sigint(sandbox, avahi):
    remote = avahi.remote()
    sandbox.write_conf("mqttbroker.conf", dict(
        {k: v for k, v in MQTT.items() if k != "topic"}, service_path="/broker"))
    proc = sandbox.tavro("mqtt", "-vv")
    proc.wait_for(r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$")

    # Killed hard, so no goodbye is sent, and started again: the client fails and the
    # publisher announces anew with a fresh one, without a restart of tavro.
    avahi.daemon.restart(signal.SIGKILL)
    proc.wait_for(r"^DBG : AVAHI_CLIENT_FAILURE$")
    proc.wait_for(r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$", count=2)
    watch = avahi.watch("_mqtt._tcp")
    rec = remote.wait_for("tavro-mqtt", "_mqtt._tcp")
    assert (rec.interface, rec.protocol, rec.port, rec.host, rec.address, rec.txt) == (
        "v1", "IPv4", int(MQTT["service_port"]), "tavro-test.local", "10.20.0.1",
        ["txtversion=1", "version=1.0", "path=/broker", "brand=mosquitto", "proto=3.1.1",
         "topic="])
    assert 'WARN: Value "topic" not found in configuration.' in proc.lines()
    proc.interrupt()
    assert proc.wait(5) == 2
    watch.wait_removed("tavro-mqtt")


@pytest.mark.emulated
def test_without_system_bus_the_process_ends(sandbox):
    sandbox.system_bus = False
    sandbox.write_conf("mqttbroker.conf", MQTT)
    proc = sandbox.tavro("mqtt")
    assert proc.wait(5) == 1
    assert proc.lines()[-2:] == ["ERR : avahi_client_new() failed.",
                                 "ERR : Is the avahi-daemon running?"]
