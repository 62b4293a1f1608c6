"""tavro-vehicletoip on the virtual CAN bus with the example mapping: what a device on the
vehicle network receives, and when."""

import calendar
import os
import shutil
import time
import xml.etree.ElementTree as ET

from canbus_peer import CanBus
from sandbox import SOURCE_DIR
from vehicle import install_conf

# Frames that etc/vehicletoip-mapping.json reads, on two interfaces, and what they set.
FRAMES = ["vcan0 0CFE6CEE#021000000000590C",  # speed 3161/256 km/h, tachograph normal
          "vcan0 18FEC1EE#73600000F4010000",  # total 24691 x 5 m, trip 500 x 5 m
          "vcan1 18FE4E21#40FFFFFFFFFFFFFF",  # at least 1 bus door enabled
          "vcan1 18FDA521#1405FDFFFFFFFFFF",  # doors 1 and 2 open
          "vcan1 18FF1021#55FFFFFFFFFFFFFF",  # stop request, cab 1, high voltage, in service
          "vcan0 18FF1121#005F0001FFFFFFFF"]  # bus, 95 passengers, first of the set
VALUES = {
    "Odospeed": "12.35", "Ododistancetotal": "123455", "Ododistance": "2500",
    "Odofault": "false", "DoorsStatus": "DoorUnlocked", "ActiveCabin": "Cab1",
    "PresenceHV": "true", "StopRequest": "true", "VehicleType": "Bus", "VehicleCapacity": "95",
    "VehicleNumber": "1234", "VehicleMode": "true", "VehicleOrder": "1"}


def parse(datagram):
    """(time stamp in s, element texts, [(door id, status)]) of one VEHICLEtoIPDelivery."""
    assert datagram.startswith(b'<?xml version="1.0"?><VEHICLEtoIPDelivery version="1.1a">')
    vehicle = ET.fromstring(datagram).find("VEHICLEtoIP")
    values = {e.tag: e.text for e in vehicle if e.tag != "DoorsControl"}
    stamp = calendar.timegm(time.strptime(values.pop("RecordedAtTime"), "%Y-%m-%dT%H:%M:%S"))
    doors = [(d.findtext("DoorID"), d.findtext("DoorStatus")) for d in vehicle.find("DoorsControl")]
    return stamp, values, doors


def test_one_document_of_two_interfaces_every_second_once_complete(sandbox):
    sandbox.veth()
    listener = sandbox.listen("239.1.1.12", 50012, "10.20.0.1")
    bus = CanBus(sandbox)
    bus.add("vcan0")
    bus.add("vcan1")
    shutil.copy(os.path.join(SOURCE_DIR, "etc", "vehicletoip-mapping.json"), "/etc/tavro/")
    sandbox.write_conf("tavro.conf", {"network_interface": "v0"})
    install_conf("vehicletoip.conf", {"can_interface": "vcan0,vcan1"})
    proc = sandbox.tavro("vehicletoip", "-vv", env=bus.env)
    proc.wait_for(r"^DBG : Start can thread\.$", count=2)

    # The document is complete with the last two frames (unit-tested: nothing is sent before);
    # the doors reported before them come with the first document.
    log = bus.write_log("frames.log", ["(0.0) " + f for f in FRAMES])
    assert bus.play("-f", log) == (0, "Sent 6 frames.\n", "")
    got = listener.wait_for(3)
    now = time.time()
    documents = [parse(d[1]) for d in got]
    assert all(values == VALUES and now - 10 <= stamp <= now for stamp, values, _ in documents)
    assert [doors for _, _, doors in documents] == [
        [("1", "Open"), ("2", "Open"), ("3", "Closed")], [], []]
    # At most one a second (the sender sleeps a full second after each).
    assert all(b[0] - a[0] >= 0.9 for a, b in zip(got, got[1:]))

    assert [l for l in proc.lines() if l.startswith(("ERR", "WARN"))] == []
    proc.interrupt()
    assert proc.wait(10) == 2
    assert "DBG : Vtoip thread finished." in proc.lines()
