"""tavro-vehicletoip on the virtual CAN bus with the example mapping: what a device on the
vehicle network receives, and when."""

import calendar
import os
import shutil
import time
import xml.etree.ElementTree as ET

import pytest

from canbus_peer import CanBus
from sandbox import SOURCE_DIR

GROUP = "239.10.0.12"
PORT = 50012
CONF = {
    "service_name": "tavro-vehicletoip",
    "service_type": "vehicletoip",
    "service_protocol": "udp",
    "service_domain": "local",
    "service_port": PORT,
    "service_txtversion": 1,
    "service_version": "1.0",
    "multicast_addr": GROUP,
    "multicast_ttl": 1,
    "mapping_file": "/etc/tavro/vehicletoip-mapping.json",
    "can_interface": "vcan0",
}

# Frames that etc/vehicletoip-mapping.json reads, one line each: (candump frame, what it sets).
TCO1 = "0CFE6CEE#021000000000590C"  # speed 3161/256 km/h, tachograph performance normal
VDHR = "18FEC1EE#73600000F4010000"  # total 24691 x 5 m, trip 500 x 5 m
DC1 = "18FE4E21#40FFFFFFFFFFFFFF"  # at least 1 bus door enabled
BODY = "18FF1021#55FFFFFFFFFFFFFF"  # stop request, cab 1, high voltage, in service
DESCRIPTION = "18FF1121#005F0001FFFFFFFF"  # bus, 95 passengers, first of the set
DOORS_1_2_OPEN = "18FDA521#1405FDFFFFFFFFFF"
DOOR_3_OPEN = "18FDA521#1044FDFFFFFFFFFF"

VALUES = {
    "Odospeed": "12.35", "Ododistancetotal": "123455", "Ododistance": "2500",
    "Odofault": "false", "DoorsStatus": "DoorUnlocked", "ActiveCabin": "Cab1",
    "PresenceHV": "true", "StopRequest": "true", "VehicleType": "Bus", "VehicleCapacity": "95",
    "VehicleNumber": "1234", "VehicleMode": "true", "VehicleOrder": "1",
}


def parse(datagram):
    """(time stamp in s, element texts, [(door id, status)]) of one VEHICLEtoIPDelivery."""
    assert datagram.startswith(b'<?xml version="1.0"?><VEHICLEtoIPDelivery version="1.1a">')
    vehicle = ET.fromstring(datagram).find("VEHICLEtoIP")
    values = {e.tag: e.text for e in vehicle if e.tag != "DoorsControl"}
    stamp = calendar.timegm(time.strptime(values.pop("RecordedAtTime"), "%Y-%m-%dT%H:%M:%S"))
    doors = [(d.findtext("DoorID"), d.findtext("DoorStatus")) for d in vehicle.find("DoorsControl")]
    return stamp, values, doors


@pytest.fixture
def vehicle(sandbox):
    """The bus vcan0 and a started tavro-vehicletoip reading it with the example mapping."""
    bus = CanBus(sandbox)
    bus.add("vcan0")
    shutil.copy(os.path.join(SOURCE_DIR, "etc", "vehicletoip-mapping.json"), "/etc/tavro/")
    sandbox.write_conf("tavro.conf", {"network_interface": "v0"})
    sandbox.write_conf("vehicletoip.conf", CONF)

    def start():
        proc = sandbox.tavro("vehicletoip", "-vv", env=bus.env)
        proc.wait_for(r"^DBG : Start can thread\.$")
        return proc

    bus.start = start
    yield bus
    bus.close()


def play(bus, *frames):
    rc, out, err = bus.play("-f", bus.write_log("frames.log", ["(0.0) vcan0 " + f for f in frames]))
    assert (rc, err) == (0, "")


def test_document_every_second_once_complete(sandbox, avahi, vehicle):
    listener = sandbox.listen(GROUP, PORT, "10.20.0.1")
    proc = vehicle.start()
    rec = avahi.wait_for("tavro-vehicletoip", "_vehicletoip._udp")
    assert (rec.port, rec.txt) == (PORT, ["txtversion=1", "version=1.0", "multicast=" + GROUP])

    # Without the vehicle description three elements have no value yet: nothing is sent.
    play(vehicle, TCO1, VDHR, DC1, BODY, DOORS_1_2_OPEN)
    time.sleep(2.5)
    assert listener.payloads() == []

    play(vehicle, DESCRIPTION)
    got = listener.wait_for(3)
    now = time.time()
    documents = [parse(d[1]) for d in got]
    assert all(values == VALUES for _, values, _ in documents)
    assert all(now - 10 <= stamp <= now for stamp, _, _ in documents)
    # Doors reported before the document was complete come with the first one, then no more.
    assert [doors for _, _, doors in documents] == [
        [("1", "Open"), ("2", "Open"), ("3", "Closed")], [], []]
    # At most one a second (the sender sleeps a full second after each).
    assert all(b[0] - a[0] >= 0.9 for a, b in zip(got, got[1:]))

    play(vehicle, DOOR_3_OPEN)
    with_doors = listener.wait_for(2, predicate=lambda d: parse(d)[2] != [])
    assert parse(with_doors[-1][1])[2] == [("1", "Closed"), ("2", "Closed"), ("3", "Open")]
    after = listener.wait_for(len(listener.payloads()) + 1)[-1]
    assert parse(after[1])[2] == []
    assert [l for l in proc.lines() if l.startswith(("ERR", "WARN"))] == []

    proc.interrupt()
    assert proc.wait(10) == 2
    assert "DBG : Vtoip thread finished." in proc.lines()


def test_demo_log_feeds_every_element(sandbox, vehicle):
    sandbox.veth()
    listener = sandbox.listen(GROUP, PORT, "10.20.0.1")
    proc = vehicle.start()
    log = os.path.join(SOURCE_DIR, "demo", "bus.candump")
    rc, out, err = vehicle.play("-f", "-m", "can0=vcan0", log)
    with open(log) as f:
        frames = sum(not line.startswith("#") for line in f)
    assert (rc, out, err) == (0, "Sent %d frames.\n" % frames, "")
    # The bus has arrived at the stop: doors released, stop request cleared.
    _, values, _ = parse(listener.wait_for(1)[0][1])
    assert values == dict(VALUES, Odospeed="0.00", Ododistancetotal="245318740",
                          Ododistance="18540", StopRequest="false")
    proc.interrupt()
    assert proc.wait(10) == 2
