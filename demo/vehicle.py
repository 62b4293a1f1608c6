"""A whole vehicle around tavro-all, for the demo and its end-to-end test.

Runs in namespaces of its own (scripts/sandbox/sandboxed), with the harness of the system tests:
the example configuration of etc/ on a tmpfs over /etc/tavro with the few values a
namespace needs, a system D-Bus and avahi-daemon on the veth end v0, gpsd fed with
demo/bus-trip.nmea, nginx in front of fcgi_port, tavro-canplayer looping demo/bus.candump on
the virtual CAN bus can0, and a multicast listener per data service on v1, the far end of the
wire, where another device of the vehicle network would be.
"""

import http.client
import os
import re
import shutil
import sys
import time

DEMO_DIR = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(DEMO_DIR, "..", "scripts", "sandbox"))

from avahi_peer import AvahiPeer, _unescape, parse_resolved
from canbus_peer import CanBus
from gpsd_peer import Gpsd, NmeaFeed
from nginx_peer import Nginx, wait_for_port
from sandbox import SLOW, SOURCE_DIR, run

CONF_FILES = ("tavro.conf", "inventory.conf", "fmstoip.conf", "addpgn.conf", "removepgn.conf",
              "getpgn.conf", "time.conf", "gnss.conf", "vehicletoip.conf", "mqttbroker.conf")
# The data services and the roots of their documents.
DATA_SERVICES = (("gnss.conf", "GNSSLocationDelivery"), ("vehicletoip.conf", "VEHICLEtoIPDelivery"),
                 ("fmstoip.conf", "FMStoIPDelivery"))
# The PGN resources of fmstoip: configuration file and root element of the request body.
PGN_REQUESTS = {"add": ("addpgn.conf", "PGNReq"), "remove": ("removepgn.conf", "PGNRem"),
                "get": ("getpgn.conf", "PGNGet")}


def read_conf(path):
    """key -> value of a key=value file, as tavro reads it (blanks removed, # comments)."""
    values = {}
    with open(path) as f:
        for line in f:
            line = re.sub(r"\s", "", line.split("#")[0])
            if "=" in line:
                key, value = line.split("=", 1)
                values[key] = value
    return values


def install_conf(name, changes, source=os.path.join(SOURCE_DIR, "etc"), target="/etc/tavro"):
    """Copies source/<name> to target, with the values of changes put in."""
    with open(os.path.join(source, name)) as f:
        text = f.read()
    for key, value in changes.items():
        text, count = re.subn(r"(?m)^%s=.*$" % re.escape(key), "%s=%s" % (key, value), text)
        if count == 0:
            text += "%s=%s\n" % (key, value)
    with open(os.path.join(target, name), "w") as f:
        f.write(text)


class Vehicle:
    """tavro-all with all its peers in the sandbox; see the module text. With root, the
    tavro-all installed in that Debian root runs there (chroot) with the configuration
    installed there, changed in the same values."""

    def __init__(self, sandbox, verbosity="-v", nmea_interval=1.0, env=None, root=None):
        self.sandbox = sandbox
        self.avahi = AvahiPeer(sandbox)
        # v1 takes datagrams whose source, v0's address, is local too.
        for key, value in (("all/rp_filter", 0), ("v1/rp_filter", 0), ("v1/accept_local", 1)):
            with open("/proc/sys/net/ipv4/conf/" + key, "w") as f:
                f.write(str(value))
        # The inventory reads the MAC address of v0 from a /sys of this namespace.
        sandbox.mount_sysfs()

        changes = {"tavro.conf": {"network_interface": "v0"}}
        if root is None:
            conf_dir = "/etc/tavro"
            counter_file = sandbox.path("pgn_counter")
            changes["inventory.conf"] = {"moduleinfo_file_path": sandbox.path("moduleinfo.xml")}
            changes["fmstoip.conf"] = {"pgn_counter_file": counter_file}
            for name in CONF_FILES:
                install_conf(name, changes.get(name, {}))
            # The mapping files where the example configuration expects them.
            shutil.copy(os.path.join(SOURCE_DIR, "etc", "vehicletoip-mapping.json"), conf_dir)
            shutil.copy(os.path.join(DEMO_DIR, "fms-mapping.json"), conf_dir)
        else:
            conf_dir = os.path.join(root, "etc", "tavro")
            counter_file = root + read_conf(os.path.join(conf_dir, "fmstoip.conf"))[
                "pgn_counter_file"]
            install_conf("tavro.conf", changes["tavro.conf"], conf_dir, conf_dir)
        open(counter_file, "w").close()  # no PGN requested yet
        self.conf = {name: read_conf(os.path.join(conf_dir, name)) for name in CONF_FILES}
        general = self.conf["tavro.conf"]

        self.listeners = {}
        for name, document in DATA_SERVICES:
            conf = dict(self.conf[name], **general)
            self.listeners[document] = sandbox.listen(conf["multicast_addr"],
                                                      int(conf["service_port"]), "10.20.0.2")
        self.browser = sandbox.spawn(["stdbuf", "-oL", "avahi-browse", "-rpak"],
                                     name="avahi-browse")

        gnss = self.conf["gnss.conf"]
        self.feed = NmeaFeed(sandbox, os.path.join(DEMO_DIR, "bus-trip.nmea"), nmea_interval)
        self.gpsd = Gpsd(sandbox, self.feed, int(gnss["gpsd_port"])).start()

        self.bus = CanBus(sandbox)
        bus_dir = self.bus.add(self.conf["fmstoip.conf"]["can_interface"])
        env = dict(self.bus.env, **(env or {}))
        if root is None:
            self.tavro = sandbox.tavro("all", verbosity, env=env)
        else:
            # What the daemon reaches outside its root: the system bus, the CAN bus folder,
            # and /sys and /proc of this sandbox.
            for path in ("/run/dbus", self.bus.root):
                inside = root + path
                os.makedirs(inside, exist_ok=True)
                run("mount", "--bind", path, inside)
                sandbox.mounts.append(inside)
            for kind in ("sysfs", "proc"):
                inside = os.path.join(root, kind.replace("fs", ""))
                run("mount", "-t", kind, kind, inside)
                sandbox.mounts.append(inside)
            self.tavro = sandbox.spawn(["chroot", root, "/usr/bin/tavro-all", verbosity],
                                       env=dict(os.environ, **env), name="tavro-all")
        deadline = time.monotonic() + 10 * SLOW
        while not os.listdir(bus_dir):
            if time.monotonic() > deadline or not self.tavro.running():
                raise RuntimeError("tavro-all did not start reading the CAN bus:\n"
                                   + self.tavro.stderr)
            time.sleep(0.05)
        self.fcgi_port = int(general["fcgi_port"])
        wait_for_port(self.fcgi_port)
        self.http_port = int(self.conf["getpgn.conf"]["service_port"])
        self.nginx = Nginx(sandbox, self.fcgi_port, http_ports=(self.http_port,))
        self.player = self.bus.start_player("-l", "0", os.path.join(DEMO_DIR, "bus.candump"))

    def announced_types(self):
        """Service name -> its type, of every service the configuration announces."""
        return {c["service_name"]: "_%s._%s" % (c["service_type"], c["service_protocol"])
                for c in self.conf.values() if "service_name" in c}

    def services(self):
        """(name, type) -> Record of what avahi-browse sees announced now."""
        seen = {}
        for line in self.browser.lines("stdout"):
            if line.startswith("="):
                rec = parse_resolved(line)
                if rec is not None:
                    seen[(rec.name, rec.type)] = rec
            elif line.startswith("-;"):
                fields = line.split(";")
                if len(fields) >= 6:
                    seen.pop((_unescape(fields[3]), fields[4]), None)
        return seen

    def request(self, kind, pgn):
        """One PGN request through nginx: (HTTP status, Content-Type, body text)."""
        conf_name, root = PGN_REQUESTS[kind]
        conn = http.client.HTTPConnection("127.0.0.1", self.http_port, timeout=5 * SLOW)
        try:
            conn.request("POST", self.conf[conf_name]["service_path"],
                         "<%s>%s</%s>" % (root, pgn, root))
            resp = conn.getresponse()
            return resp.status, resp.getheader("Content-Type"), resp.read().decode("utf-8",
                                                                                  "replace")
        finally:
            conn.close()

    def stop(self, timeout=15.0):
        """SIGINT to tavro-all (unless it has ended); returns its exit status once it and
        nginx have ended."""
        self.tavro.interrupt()
        status = self.tavro.wait(timeout)
        # The nginx master takes its worker along, which a SIGKILL at clean-up would leave.
        self.nginx.stop()
        return status
