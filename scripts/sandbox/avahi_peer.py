"""A system D-Bus and a real avahi-daemon inside the test's own namespaces.

    peer = AvahiPeer(sandbox)          # bus (if not yet there) + avahi-daemon on veth v0
    rec = peer.wait_for("tavro-mqtt", "_mqtt._tcp")
    rec.port, rec.txt                  # TXT strings in wire order
    watch = peer.watch("_mqtt._tcp")   # avahi-browse running on, to see services come and go
    remote = peer.remote()             # a second host behind v1 that browses over the wire

Or use the fixture `avahi` of conftest.py. Everything is started through sandbox.spawn and
stopped by PID when the sandbox closes; stop() and restart() act on the daemon at once.
"""

import os
import re
import signal
import time
from collections import namedtuple

from sandbox import SLOW, run

DBUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""

AVAHI_CONFIG = """[server]
host-name={host}
use-ipv4=yes
use-ipv6=no
allow-interfaces={interface}
enable-dbus=yes
[wide-area]
enable-wide-area=no
[publish]
publish-addresses=yes
publish-hinfo=no
publish-workstation=no
publish-domain=no
"""

# One resolved service as avahi-browse -p reports it; txt in the order of the wire.
Record = namedtuple("Record", "interface protocol name type domain host address port txt")


class SystemBus:
    """dbus-daemon as the system bus, on a private /run/dbus."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        if "/run/dbus" not in sandbox.mounts:
            sandbox.mount_tmpfs("/run/dbus")
        config = sandbox.path("dbus-system.conf")
        with open(config, "w") as f:
            f.write(DBUS_CONFIG)
        self.proc = sandbox.spawn(["dbus-daemon", "--config-file=" + config, "--nofork",
                                   "--nopidfile", "--print-address"], name="dbus-daemon")
        # The address comes once the socket listens.
        self.proc.wait_for(r"^unix:", stream="stdout", timeout=5)

    def stop(self):
        self.proc.stop()


class AvahiDaemon:
    """avahi-daemon that sees only one interface, without chroot or privilege drop."""

    def __init__(self, sandbox, interface="v0", host="tavro-test"):
        self.sandbox = sandbox
        self.host = host
        if "/run/avahi-daemon" not in sandbox.mounts:
            sandbox.mount_tmpfs("/run/avahi-daemon")
        self.config = sandbox.path("avahi-daemon.conf")
        with open(self.config, "w") as f:
            f.write(AVAHI_CONFIG.format(host=host, interface=interface))
        self.proc = None

    def start(self):
        # A daemon that was killed hard leaves its pid file behind.
        for name in ("pid", "socket"):
            path = os.path.join("/run/avahi-daemon", name)
            if os.path.exists(path):
                os.unlink(path)
        self.proc = self.sandbox.spawn(
            ["avahi-daemon", "-f", self.config, "--no-drop-root", "--no-chroot", "--no-rlimits",
             "--no-proc-title"], name="avahi-daemon")
        self.proc.wait_for("Server startup complete", timeout=10)
        return self

    def stop(self, sig=signal.SIGTERM):
        if self.proc is not None:
            self.proc.stop(sig)
            self.proc = None

    def restart(self, sig=signal.SIGTERM):
        self.stop(sig)
        return self.start()


def _unescape(text):
    """Undoes avahi-browse's escaping of names: \\032 for a blank byte, \\. for a dot."""
    out = bytearray()
    pos = 0
    for m in re.finditer(r"\\(\d{3}|.)", text):
        out += text[pos:m.start()].encode()
        code = m.group(1)
        out += bytes([int(code)]) if len(code) == 3 else code.encode()
        pos = m.end()
    out += text[pos:].encode()
    return out.decode("utf-8", "replace")


def _escape(name):
    """The name as avahi-browse -p prints it."""
    out = []
    for byte in name.encode():
        c = chr(byte)
        if c in ".\\":
            out.append("\\" + c)
        elif c.isascii() and (c.isalnum() or c in "-_"):
            out.append(c)
        else:
            out.append("\\%03d" % byte)
    return "".join(out)


def parse_txt(field):
    """The TXT field of avahi-browse -p, in wire order (avahi-browse prints it backwards)."""
    strings = [re.sub(r"\\(.)", r"\1", s) for s in re.findall(r'"((?:[^"\\]|\\.)*)"', field)]
    strings.reverse()
    return strings


def parse_resolved(line):
    """A Record from one "=" line of avahi-browse -p, else None."""
    if not line.startswith("=;"):
        return None
    fields = line.split(";", 9)
    if len(fields) < 10:
        return None
    _, interface, protocol, name, stype, domain, host, address, port, txt = fields
    return Record(interface, protocol, _unescape(name), stype, domain, host, address, int(port),
                  parse_txt(txt))


def browse(service_type):
    """What the network offers of service_type now (avahi-browse -rpt, about a second)."""
    out = run("avahi-browse", "-rpt", service_type, check=False)
    return [r for r in (parse_resolved(l) for l in out.splitlines()) if r is not None]


class Watch:
    """avahi-browse -rp running on: every appearance and removal, as they happen."""

    def __init__(self, sandbox, service_type):
        self.proc = sandbox.spawn(["stdbuf", "-oL", "avahi-browse", "-rp", service_type],
                                  name="avahi-browse")

    def wait_resolved(self, name, timeout=10.0, count=1):
        # Up to the newline: the reader may have only part of the line yet.
        match = self.proc.wait_for(r"^=;[^;\n]*;[^;\n]*;%s;.*\n" % re.escape(_escape(name)),
                                   stream="stdout", timeout=timeout, count=count)
        return parse_resolved(match.group(0).rstrip("\n"))

    def wait_removed(self, name, timeout=10.0, count=1):
        self.proc.wait_for(r"^-;[^;\n]*;[^;\n]*;%s;" % re.escape(_escape(name)), stream="stdout",
                           timeout=timeout, count=count)

    def resolved(self, name=None):
        recs = [parse_resolved(l) for l in self.proc.lines("stdout")]
        return [r for r in recs if r is not None and (name is None or r.name == name)]

    def stop(self):
        self.proc.stop()


class RemoteHost:
    """A second host at the far end of the veth pair: the peer interface moves into a network
    and mount namespace of its own, with its own system bus and avahi-daemon. What it browses
    has crossed the wire."""

    def __init__(self, sandbox, interface="v1", addr="10.20.0.2/24", host="remote-host",
                 avahi=True):
        self.sandbox = sandbox
        self.interface = interface
        # Holds the namespaces; everything else enters them with nsenter.
        self.holder = sandbox.spawn(["unshare", "--net", "--mount", "--propagation", "private",
                                     "sleep", "1000000"], name="remote-host")
        self.pid = self.holder.pid
        deadline = time.monotonic() + 5
        while os.readlink("/proc/%d/ns/net" % self.pid) == os.readlink("/proc/self/ns/net"):
            if time.monotonic() > deadline:
                raise RuntimeError("remote host namespace did not come up")
            time.sleep(0.01)
        run("ip", "link", "set", interface, "netns", str(self.pid))
        self.run("ip", "link", "set", "lo", "up")
        self.run("ip", "addr", "add", addr, "dev", interface)
        self.run("ip", "link", "set", interface, "up")
        if avahi:
            self._start_avahi(host)

    def _start_avahi(self, host):
        interface, sandbox = self.interface, self.sandbox
        for path in ("/run/dbus", "/run/avahi-daemon"):
            self.run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", path)
        config = sandbox.path("remote-dbus.conf")
        with open(config, "w") as f:
            f.write(DBUS_CONFIG)
        bus = self.spawn(["dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile",
                          "--print-address"], name="remote-dbus")
        bus.wait_for(r"^unix:", stream="stdout", timeout=5)
        config = sandbox.path("remote-avahi.conf")
        with open(config, "w") as f:
            f.write(AVAHI_CONFIG.format(host=host, interface=interface))
        daemon = self.spawn(["avahi-daemon", "-f", config, "--no-drop-root", "--no-chroot",
                             "--no-rlimits", "--no-proc-title"], name="remote-avahi")
        daemon.wait_for("Server startup complete", timeout=10)

    def _enter(self, argv):
        return ["nsenter", "-t", str(self.pid), "-n", "-m", "--"] + list(argv)

    def run(self, *argv, check=True):
        return run(*self._enter(argv), check=check)

    def spawn(self, argv, **kw):
        return self.sandbox.spawn(self._enter(argv), **kw)

    def browse(self, service_type):
        out = self.run("avahi-browse", "-rpt", service_type, check=False)
        return [r for r in (parse_resolved(l) for l in out.splitlines()) if r is not None]

    def wait_for(self, name, service_type, timeout=10.0, predicate=None):
        return _wait_for(self.browse, name, service_type, timeout, predicate)

    def publish(self, name, service_type, port, *txt):
        """Announces a service of this host (avahi-publish), until the process is stopped."""
        proc = self.spawn(["avahi-publish", "-s", name, service_type, str(port)] + list(txt),
                          name="avahi-publish")
        proc.wait_for("^Established under name")
        return proc


def _wait_for(browser, name, service_type, timeout, predicate):
    deadline = time.monotonic() + timeout * SLOW
    while True:
        seen = [r for r in browser(service_type) if r.name == name]
        good = [r for r in seen if predicate is None or predicate(r)]
        if good:
            return good[0]
        if time.monotonic() > deadline:
            raise AssertionError("%s %s not seen after %.1fs; last: %r"
                                 % (name, service_type, timeout * SLOW, seen))


class AvahiPeer:
    """The system bus and an avahi-daemon on a veth pair of the sandbox."""

    def __init__(self, sandbox, interface="v0", start=True):
        self.sandbox = sandbox
        if interface not in sandbox.links:
            sandbox.veth(name=interface)
        if not isinstance(getattr(sandbox, "system_bus", None), SystemBus):
            sandbox.system_bus = SystemBus(sandbox)
        self.bus = sandbox.system_bus
        self.daemon = AvahiDaemon(sandbox, interface)
        if start:
            self.daemon.start()

    def wait_for(self, name, service_type, timeout=10.0, predicate=None):
        """Browses until name is seen (and satisfies predicate); returns its Record."""
        return _wait_for(browse, name, service_type, timeout, predicate)

    def watch(self, service_type):
        return Watch(self.sandbox, service_type)

    def remote(self):
        """A second host on the other end of the wire (RemoteHost)."""
        return RemoteHost(self.sandbox)
