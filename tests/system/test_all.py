"""tavro-all: every service in one process, with the demo's vehicle (demo/vehicle.py) around
it: what a device on the vehicle network gets, and the order of the shutdown."""

import os
import re
import sys
import time

from sandbox import SLOW, SOURCE_DIR

sys.path.insert(0, os.path.join(SOURCE_DIR, "demo"))
from vehicle import Vehicle

ANNOUNCED = {
    "tavro-inventory": ("_inventory._udp", 80), "tavro-fmstoip": ("_fmstoip._udp", 50010),
    "tavro-addpgn": ("_addpgn._tcp", 8085), "tavro-removepgn": ("_removepgn._tcp", 8085),
    "tavro-getpgn": ("_getpgn._tcp", 8085), "tavro-time": ("_ntp._udp", 123),
    "tavro-gnss": ("_gnsslocation._udp", 50011), "tavro-vehicletoip": ("_vehicletoip._udp", 50012),
    "tavro-mqtt": ("_mqtt._tcp", 1883)}
AVAHI = "DBG : avahi thread finished."
# After the FastCGI front end, each service withdraws its announcements as it is released:
# MqttBroker, Vtoip, Gnss, FmstoipFcgi (three), TimeService, Fmstoip, ModuleInventory.
RELEASE = ["DBG : fcgi thread finished.", AVAHI, "DBG : Vtoip thread finished.", AVAHI, AVAHI,
           AVAHI, AVAHI, AVAHI, AVAHI, "DBG : fmstoip thread finished.",
           "DBG : FmsXMLGenerator thread finished.", AVAHI, AVAHI]


def test_every_service_in_one_process(sandbox):
    vehicle = Vehicle(sandbox, "-vv", nmea_interval=0.25)
    listeners = vehicle.listeners
    assert vehicle.request("add", "FEF1") == (200, "text/html", "<html><body>Ok</body></html>\n")
    listeners["FMStoIPDelivery"].wait_for(predicate=lambda d: b"<PGN>FEF1</PGN>" in d)
    listeners["VEHICLEtoIPDelivery"].wait_for(
        predicate=lambda d: b"<VehicleCapacity>95</VehicleCapacity>" in d)
    listeners["GNSSLocationDelivery"].wait_for(
        predicate=lambda d: b"<SignalQuality>GPS</SignalQuality>" in d)
    status, kind, body = vehicle.request("get", "F004")
    assert (status, kind) == (200, "text/xml") and "<Name>Engine speed</Name>" in body

    deadline = time.monotonic() + 10 * SLOW
    while True:
        seen = vehicle.services()
        if {name: (stype, rec.port) for (name, stype), rec in seen.items()} == ANNOUNCED:
            break
        assert time.monotonic() < deadline, "announced: %r" % seen
        time.sleep(0.2)
    with open("/sys/class/net/v0/address") as f:
        mac = f.read().strip()
    inventory = seen[("tavro-inventory", "_inventory._udp")]
    assert inventory.txt[-2:] == ["macaddress=" + mac, "status=0"]

    tavro = vehicle.tavro
    assert vehicle.stop() == 2
    lines = tavro.lines()
    assert re.findall(r"^INFO: Starting (\w+) service\.$", tavro.stderr, re.M) == [
        "inventory", "fmstoip", "time", "gnss", "vtoip", "mqttbroker"]
    shutdown = lines[lines.index("NOTE: Closing program..."):]
    assert [line for line in shutdown if line.endswith("thread finished.")] == RELEASE
    assert [line for line in lines if line.startswith(("ERR", "WARN"))] == []
