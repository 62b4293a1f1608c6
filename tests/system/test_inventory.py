"""The module inventory: its announcement, the module file, and the health marker."""

import os
import time

from sandbox import run

MARKER = "/tmp/status/watchdog/services-dead"
MAC = "00:11:22:33:44:55"
INVENTORY = {
    "service_name": "tavro-inventory",
    "service_type": "inventory",
    "service_protocol": "udp",
    "service_port": 80,
    "service_txtversion": 1,
    "service_version": "1.0",
    "device_type": "OnboardUnit",
    "device_model": "tavro-box",
    "device_manufacturer": "Bus&Tram",
    "device_serial": "0042",
    "device_software_rev": "1.2.3",
    "device_hardware_rev": "B",
    "network_interface": "v0",
    "moduleinfo_file_path": "/tmp/status/moduleinfo.xml",
}


def expected_file(status):
    return ('<?xml version="1.0"?>\n'
            '<ModulesDelivery version="1.1a">\n'
            '\t<Module>\n'
            '\t\t<Type>OnboardUnit</Type>\n'
            '\t\t<Model>tavro-box</Model>\n'
            '\t\t<Manufacturer>Bus&amp;Tram</Manufacturer>\n'
            '\t\t<SerialNumber>0042</SerialNumber>\n'
            '\t\t<SoftwareVersion>1.2.3</SoftwareVersion>\n'
            '\t\t<HardwareVersion>B</HardwareVersion>\n'
            '\t\t<MACAddress>%s</MACAddress>\n'
            '\t\t<Status>%d</Status>\n'
            '\t</Module>\n'
            '</ModulesDelivery>\n' % (MAC, status))


def txt(status):
    return ["txtversion=1", "version=1.0", "type=OnboardUnit", "model=tavro-box",
            "manufacturer=Bus&Tram", "serialnumber=0042", "softwareversion=1.2.3",
            "hardwareversion=B", "macaddress=" + MAC, "status=%d" % status]


def start(sandbox, avahi, *args):
    run("ip", "link", "set", "v0", "address", MAC)
    # /sys shows the network namespace of whoever mounted it.
    sandbox.mount_sysfs()
    sandbox.write_conf("inventory.conf", INVENTORY)
    return sandbox.tavro("inventory", *args)


def test_marker_changes_status_record(sandbox, avahi):
    watch = avahi.watch("_inventory._udp")
    proc = start(sandbox, avahi, "-vv")
    first = watch.wait_resolved("tavro-inventory")
    assert first.txt == txt(0)
    assert first.port == 80
    with open(INVENTORY["moduleinfo_file_path"]) as f:
        assert f.read() == expected_file(0)

    os.makedirs(os.path.dirname(MARKER))
    open(MARKER, "w").close()
    started = time.monotonic()
    avahi.wait_for("tavro-inventory", "_inventory._udp", predicate=lambda r: r.txt == txt(1))
    print("status=1 seen after %.1f s" % (time.monotonic() - started))
    os.unlink(MARKER)
    avahi.wait_for("tavro-inventory", "_inventory._udp", predicate=lambda r: r.txt == txt(0))
    # One re-publication per change.
    proc.wait_for(r"^DBG : AVAHI_ENTRY_GROUP_ESTABLISHED$", count=3)
    time.sleep(1.5)
    assert proc.lines().count("DBG : AVAHI_ENTRY_GROUP_ESTABLISHED") == 3
    # Written once at start: the file keeps the status of the start.
    with open(INVENTORY["moduleinfo_file_path"]) as f:
        assert f.read() == expected_file(0)
    proc.interrupt()
    assert proc.wait(5) == 2
    assert proc.lines().count("DBG : Writing to file: /tmp/status/moduleinfo.xml") == 1


def test_marker_present_at_start(sandbox, avahi):
    os.makedirs(os.path.dirname(MARKER))
    open(MARKER, "w").close()
    watch = avahi.watch("_inventory._udp")
    proc = start(sandbox, avahi, "-vv")
    assert watch.wait_resolved("tavro-inventory").txt == txt(1)
    with open(INVENTORY["moduleinfo_file_path"]) as f:
        assert f.read() == expected_file(1)
    # The first checks find what the start found: no re-publication.
    time.sleep(2.5)
    assert proc.lines().count("DBG : AVAHI_ENTRY_GROUP_ESTABLISHED") == 1
    proc.interrupt()
    assert proc.wait(5) == 2


def test_missing_keys_and_unwritable_file(sandbox, avahi):
    sandbox.write_conf("inventory.conf", {k: v for k, v in INVENTORY.items()
                                          if k not in ("moduleinfo_file_path", "device_model",
                                                       "network_interface")})
    watch = avahi.watch("_inventory._udp")
    proc = sandbox.tavro("inventory")
    rec = watch.wait_resolved("tavro-inventory")
    assert "model=" in rec.txt and "macaddress=" in rec.txt
    proc.wait_for(r"^WARN: Cannot write to file: $")
    for key in ("device_model", "network_interface", "moduleinfo_file_path"):
        assert proc.lines().count('WARN: Value "%s" not found in configuration.' % key) == 1
    proc.interrupt()
    assert proc.wait(5) == 2
