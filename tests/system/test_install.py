"""cmake --install as package builds use it, and the systemd units it installs."""

import os
import re
import subprocess
from pathlib import Path

from canbus_peer import BUILD_DIR
from sandbox import run
from vehicle import CONF_FILES

ENTRIES = ("all", "inventory", "fmstoip", "time", "gnss", "vehicletoip", "mqtt")


def install(prefix, **destdir):
    env = dict({k: v for k, v in os.environ.items() if k != "DESTDIR"}, **destdir)
    run("cmake", "--install", BUILD_DIR, "--prefix", prefix, env=env)


def test_staged_install_puts_everything_under_the_stage_and_systemd_accepts_the_units(tmp_path):
    # The prefix of configure time, where links went before: anything written there shows.
    configured = re.search(r"^CMAKE_INSTALL_PREFIX:\w+=(.*)$",
                           Path(BUILD_DIR, "CMakeCache.txt").read_text(), re.M).group(1)
    run("mount", "-t", "tmpfs", "tmpfs", configured)
    try:
        stage = tmp_path / "stage"
        install("/usr", DESTDIR=str(stage))
        assert os.listdir(configured) == []
    finally:
        run("umount", configured)
    installed = {str(p.relative_to(stage)) for p in stage.rglob("*") if not p.is_dir()}
    # The manifest names the files as they will be on the device, without DESTDIR.
    manifest = Path(BUILD_DIR, "install_manifest.txt").read_text().split()
    assert sorted(installed) == sorted(os.path.relpath(p, "/") for p in manifest)
    for entry in ENTRIES:
        assert os.readlink(stage / "usr/bin" / ("tavro-" + entry)) == "tavro"
    assert "usr/lib/systemd/system/tavro@gnss.service.d/gpsd.conf" in installed
    # The files they name: no "File not found!" when test_package runs the package.
    assert {"usr/share/tavro/etc/" + name for name in CONF_FILES} <= installed
    assert not [p for p in installed if p.startswith("etc/")]
    # systemd checks the units under a prefix alone, where the programs they start are.
    prefix = tmp_path / "prefix"
    install(str(prefix))
    units = prefix / "lib/systemd/system"
    names = ["tavro-all.service"] + ["tavro@%s.service" % e for e in ENTRIES if e != "all"]
    res = subprocess.run(["systemd-analyze", "verify"] + [str(units / n) for n in names],
                         capture_output=True, text=True)
    assert (res.returncode, res.stdout, res.stderr) == (0, "", "")
    assert "ExecStart=%s/bin/tavro-all -s" % prefix in (units / "tavro-all.service").read_text()
