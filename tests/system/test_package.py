"""The Debian packages, installed with dpkg into overlays of a bare Debian root and run there."""

import os
import shutil

import pytest

from sandbox import run
from test_all import serves_everything
from vehicle import CONF_FILES, Vehicle, install_conf, read_conf

PACKAGES = os.environ.get("TAVRO_PACKAGES", "").split()
BASE = os.environ.get("TAVRO_PACKAGE_ROOT", "")
pytestmark = pytest.mark.skipif(not PACKAGES or not BASE, reason="run by scripts/check package")


def installed(sandbox, arch):
    deb, = [p for p in PACKAGES if p.endswith("_%s.deb" % arch)]
    upper, work, root = (sandbox.path("%s-%s" % (arch, name)) for name in ("upper", "work", "root"))
    for path in (upper, work, root):
        os.makedirs(path)
    run("mount", "-t", "overlay", "overlay", "-o",
        "lowerdir=%s,upperdir=%s,workdir=%s" % (BASE, upper, work), root)
    sandbox.mounts.append(root)
    run("dpkg", "--root=" + root, "-i", deb)

    # An edited configuration survives an upgrade.
    conffiles = run("dpkg-query", "--root=" + root, "-W", "-f", "${Conffiles}", "tavro")
    for name in CONF_FILES + ("fms-mapping.json", "vehicletoip-mapping.json"):
        assert "/etc/tavro/%s " % name in conffiles
    return root


def test_amd64_package_runs_every_service(sandbox):
    root = installed(sandbox, "amd64")
    car = Vehicle(sandbox, "-vv", root=root)
    assert car.request("add", "FEF1")[0] == 200
    serves_everything(car)
    # No "File not found!": every file the configuration names is installed.
    assert [line for line in car.tavro.lines() if line.startswith(("ERR", "WARN"))] == []
    assert car.stop(30) == 2, car.tavro.stderr


def test_armhf_package_announces_time_under_qemu(sandbox, avahi):
    root = installed(sandbox, "armhf")
    shutil.copy("/usr/bin/qemu-arm-static", os.path.join(root, "usr/bin"))
    conf_dir = os.path.join(root, "etc/tavro")
    install_conf("tavro.conf", {"network_interface": "v0"}, conf_dir, conf_dir)
    dbus = root + "/run/dbus"
    os.makedirs(dbus, exist_ok=True)
    run("mount", "--bind", "/run/dbus", dbus)
    sandbox.mounts.append(dbus)
    proc = sandbox.spawn(["chroot", root, "/usr/bin/qemu-arm-static", "-0", "tavro-time",
                          "/usr/bin/tavro-time", "-vv"], name="tavro-time")
    time_conf = read_conf(os.path.join(conf_dir, "time.conf"))
    rec = avahi.wait_for(time_conf["service_name"], "_%s._%s" % (
        time_conf["service_type"], time_conf["service_protocol"]), timeout=30)
    assert (rec.port, rec.address) == (int(time_conf["service_port"]), "10.20.0.1")
    proc.interrupt()
    assert proc.wait(15) == 2, proc.stderr
