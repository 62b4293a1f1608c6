"""The module inventory: its announcement, the module file, and the health marker."""

import os
import time
from pathlib import Path

from avahi_peer import AvahiPeer
from sandbox import run
from vehicle import install_conf

MARKER = "/tmp/status/watchdog/services-dead"
MAC = "00:11:22:33:44:55"
FILE = Path("/tmp/status/moduleinfo.xml")
MODULE_FILE = """<?xml version="1.0"?>
<ModulesDelivery version="1.1a">
\t<Module>
\t\t<Type>OnboardUnit</Type>
\t\t<Model>tavro-box</Model>
\t\t<Manufacturer>Bus&amp;Tram</Manufacturer>
\t\t<SerialNumber>0000001</SerialNumber>
\t\t<SoftwareVersion>1.0.0</SoftwareVersion>
\t\t<HardwareVersion>A</HardwareVersion>
\t\t<MACAddress>00:11:22:33:44:55</MACAddress>
\t\t<Status>1</Status>
\t</Module>
</ModulesDelivery>
"""


TXT = ["txtversion=1", "version=1.0", "type=OnboardUnit", "model=tavro-box",
       "manufacturer=Bus&Tram", "serialnumber=0000001", "softwareversion=1.0.0",
       "hardwareversion=A", "macaddress=" + MAC]


def test_marker_at_start_removed_while_avahi_is_away_and_set_again(sandbox):
    peer = AvahiPeer(sandbox, start=False)
    run("ip", "link", "set", "v0", "address", MAC)
    # /sys shows the network namespace of whoever mounted it.
    sandbox.mount_sysfs()
    install_conf("inventory.conf", {"device_manufacturer": "Bus&Tram", "network_interface": "v0",
                                    "moduleinfo_file_path": FILE})
    os.makedirs(os.path.dirname(MARKER))
    open(MARKER, "w").close()
    # The file is a link with a mode of its own: replaced, it stays both.
    target = Path(sandbox.path("module.xml"))
    target.write_text("old")
    target.chmod(0o640)
    FILE.symlink_to(target)
    proc = sandbox.tavro("inventory", "-vv")
    proc.wait_for(r"^NOTE: waiting for avahi to start\.\.\.$")
    assert FILE.read_text() == MODULE_FILE
    assert FILE.is_symlink() and target.stat().st_mode & 0o7777 == 0o640

    # The watchdog replaces the status while the daemon is away: the call must return, or
    # the service could not be shut down.
    os.unlink(MARKER)
    time.sleep(1.5)
    peer.daemon.start()
    watch = peer.watch("_inventory._udp")
    first = watch.wait_resolved("tavro-inventory")
    assert (first.port, first.txt) == (80, TXT + ["status=0"])
    open(MARKER, "w").close()
    peer.wait_for("tavro-inventory", "_inventory._udp",
                  predicate=lambda r: r.txt == TXT + ["status=1"])
    time.sleep(1.5)
    assert proc.lines().count("DBG : AVAHI_ENTRY_GROUP_ESTABLISHED") == 2, "one per change"
    proc.interrupt()
    assert proc.wait(5) == 2
    # Written once at start: the file keeps the status of the start.
    assert proc.lines().count("DBG : Writing to file: /tmp/status/moduleinfo.xml") == 1
    assert FILE.read_text() == MODULE_FILE
    watch.wait_removed("tavro-inventory")


def test_module_file_that_cannot_be_written(sandbox):
    install_conf("inventory.conf", {"moduleinfo_file_path": "/tmp/status/missing/moduleinfo.xml"})
    proc = sandbox.tavro("inventory", "-vv")
    proc.wait_for(r"^WARN: Cannot write to file: /tmp/status/missing/moduleinfo\.xml$")
    proc.wait_for(r"^WARN: open /tmp/status/missing/moduleinfo\.xml\.tmp failed: No such file")
    proc.interrupt()
    assert proc.wait(5) == 2
    assert not any(line.startswith("DBG : Writing to file:") for line in proc.lines())
