"""Test harness for the real daemon.

Every system test file runs under scripts/sandbox/sandboxed, i.e. as PID 1 of fresh network,
mount, UTS, IPC and PID namespaces. A Sandbox puts tmpfs over the daemon's fixed paths,
brings loopback up, starts the daemon and its peers, and stops each by PID afterwards.
"""

import os
import re
import select
import shlex
import signal
import socket
import struct
import subprocess
import threading
import time

SOURCE_DIR = os.environ.get(
    "TAVRO_SOURCE_DIR", os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..")))
BIN_DIR = os.environ.get("TAVRO_BIN_DIR", os.path.join(SOURCE_DIR, "build", "plain"))
SANITIZED = bool(os.environ.get("TAVRO_SANITIZE"))
# A cross build's daemon runs under its emulator, e.g. "qemu-arm-static -L SYSROOT";
# qemu-user's -0 gives the program its invocation name.
EMULATOR = shlex.split(os.environ.get("TAVRO_EMULATOR", ""))

# Sanitizer builds and emulated ones start slower and run slower.
SLOW = 3.0 if SANITIZED or EMULATOR else 1.0


def run(*argv, check=True, **kw):
    """Runs a short command and returns its stdout."""
    res = subprocess.run(argv, capture_output=True, text=True, **kw)
    if check and res.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(argv), res.returncode, res.stderr))
    return res.stdout


def ensure_isolated():
    """Refuses to run anywhere but in a namespace of the test's own."""
    if os.getpid() != 1:
        raise RuntimeError("system tests must run under scripts/sandbox/sandboxed")
    for line in run("ip", "-o", "link").splitlines():
        name = line.split(":")[1].strip().split("@")[0]
        if name != "lo" and not name.startswith("v") and not name.startswith("vcan"):
            raise RuntimeError("network namespace has interface %s: not a throw-away one" % name)


class Process:
    """A started program whose stdout and stderr are collected as they come."""

    def __init__(self, argv, executable=None, env=None, cwd=None, stdin=subprocess.DEVNULL,
                 name=None):
        self.name = name or os.path.basename(argv[0])
        self.argv = argv
        # A session of its own: a Ctrl-C at the terminal is for the harness, which stops
        # each process by its PID in its own order.
        self.popen = subprocess.Popen(argv, executable=executable, env=env, cwd=cwd,
                                      stdin=stdin, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE, start_new_session=True)
        self.pid = self.popen.pid
        self._chunks = {"stdout": [], "stderr": []}
        self._cond = threading.Condition()
        self._readers = [
            threading.Thread(target=self._collect, args=("stdout", self.popen.stdout), daemon=True),
            threading.Thread(target=self._collect, args=("stderr", self.popen.stderr), daemon=True),
        ]
        for t in self._readers:
            t.start()

    def _collect(self, key, stream):
        while True:
            data = stream.read1(65536)
            if not data:
                break
            with self._cond:
                self._chunks[key].append(data)
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def output(self, stream="stderr"):
        with self._cond:
            return b"".join(self._chunks[stream]).decode("utf-8", "replace")

    @property
    def stderr(self):
        return self.output("stderr")

    @property
    def stdout(self):
        return self.output("stdout")

    def lines(self, stream="stderr"):
        return self.output(stream).splitlines()

    def wait_for(self, pattern, stream="stderr", timeout=10.0, count=1):
        """Waits until pattern (a regex) has matched count times; returns the last match."""
        deadline = time.monotonic() + timeout * SLOW
        regex = re.compile(pattern, re.M)
        with self._cond:
            while True:
                text = b"".join(self._chunks[stream]).decode("utf-8", "replace")
                matches = list(regex.finditer(text))
                if len(matches) >= count:
                    return matches[count - 1]
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("%s: no %r in %s after %.1fs:\n%s"
                                         % (self.name, pattern, stream, timeout * SLOW, text))
                self._cond.wait(min(left, 0.1))

    def running(self):
        return self.popen.poll() is None

    def send(self, sig):
        if self.running():
            self.popen.send_signal(sig)

    def catches(self, sig):
        """Whether the process has a handler for sig installed."""
        try:
            with open("/proc/%d/status" % self.pid) as f:
                mask = re.search(r"^SigCgt:\s*([0-9a-f]+)$", f.read(), re.M).group(1)
        except (OSError, AttributeError):
            return False
        return bool(int(mask, 16) >> (sig - 1) & 1)

    def interrupt(self):
        # Before its handler is there, SIGINT ends the daemon by default: a slow (sanitizer)
        # build may still be starting its services.
        deadline = time.monotonic() + 5 * SLOW
        while self.running() and not self.catches(signal.SIGINT) and time.monotonic() < deadline:
            time.sleep(0.01)
        self.send(signal.SIGINT)

    def wait(self, timeout=10.0):
        rc = self.popen.wait(timeout * SLOW)
        for t in self._readers:
            t.join(5)
        return rc

    def stop(self, sig=signal.SIGTERM, timeout=5.0):
        """Stops the process by its PID; SIGKILL when it does not end in time."""
        if self.running():
            self.popen.send_signal(sig)
            try:
                self.popen.wait(timeout)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        for t in self._readers:
            t.join(5)


class MulticastListener:
    """Receives datagrams of one group and port on the interface with address iface_addr."""

    def __init__(self, group, port, iface_addr="127.0.0.1"):
        self.group, self.port = group, port
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM, socket.IPPROTO_UDP)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(("", port))
        mreq = struct.pack("4s4s", socket.inet_aton(group), socket.inet_aton(iface_addr))
        self.sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, mreq)
        self.sock.setsockopt(socket.IPPROTO_IP, 12, 1)  # IP_RECVTTL
        self.datagrams = []  # (monotonic time, bytes, ttl)
        self._cond = threading.Condition()
        self._stop = False
        self._thread = threading.Thread(target=self._loop, daemon=True)
        self._thread.start()

    def _loop(self):
        while not self._stop:
            ready, _, _ = select.select([self.sock], [], [], 0.1)
            if not ready:
                continue
            data, anc, _, _ = self.sock.recvmsg(65536, socket.CMSG_SPACE(4))
            ttl = None
            for level, kind, payload in anc:
                if level == socket.IPPROTO_IP and kind == 2:  # IP_TTL
                    ttl = struct.unpack("i", payload[:4])[0]
            with self._cond:
                self.datagrams.append((time.monotonic(), data, ttl))
                self._cond.notify_all()

    def wait_for(self, count=1, timeout=10.0, predicate=None):
        """Waits for count datagrams (that satisfy predicate) and returns them."""
        deadline = time.monotonic() + timeout * SLOW
        with self._cond:
            while True:
                got = [d for d in self.datagrams if predicate is None or predicate(d[1])]
                if len(got) >= count:
                    return got
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("only %d of %d datagrams after %.1fs"
                                         % (len(got), count, timeout * SLOW))
                self._cond.wait(min(left, 0.1))

    def payloads(self):
        with self._cond:
            return [d[1] for d in self.datagrams]

    def clear(self):
        with self._cond:
            self.datagrams = []

    def take(self):
        """The datagrams received since the last take, forgotten here."""
        with self._cond:
            taken, self.datagrams = self.datagrams, []
            return taken

    def close(self):
        self._stop = True
        self._thread.join(2)
        self.sock.close()


class Sandbox:
    """One test's private world inside the namespaces of the test process."""

    def __init__(self, workdir):
        ensure_isolated()
        self.work = str(workdir)
        self.processes = []
        self.listeners = []
        self.mounts = []
        self.links = []
        self.sockets = []
        # Services cannot run without a system bus: tavro() starts one unless this is set
        # to False (or a peer has already started one).
        self.system_bus = None
        run("ip", "link", "set", "lo", "up")
        for path in ("/etc/tavro", "/tmp/status"):
            self.mount_tmpfs(path)

    # --- files -------------------------------------------------------------------------

    def mount_tmpfs(self, path):
        os.makedirs(path, exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", path)
        self.mounts.append(path)

    def mount_sysfs(self):
        """A /sys that shows this network namespace (/sys/class/net)."""
        run("mount", "-t", "sysfs", "sysfs", "/sys")
        self.mounts.append("/sys")

    def write_conf(self, name, content):
        """Writes /etc/tavro/<name> from text or from a dict of key -> value (or list)."""
        if isinstance(content, dict):
            lines = []
            for key, value in content.items():
                if isinstance(value, (list, tuple)):
                    value = ",".join(str(v) for v in value)
                lines.append("%s=%s" % (key, value))
            content = "\n".join(lines) + "\n"
        path = os.path.join("/etc/tavro", name)
        with open(path, "w") as f:
            f.write(content)
        return path

    def path(self, name):
        return os.path.join(self.work, name)

    # --- network -----------------------------------------------------------------------

    def veth(self, name="v0", peer="v1", addr="10.20.0.1/24", peer_addr="10.20.0.2/24"):
        """A multicast-capable veth pair, both ends in this namespace."""
        run("ip", "link", "add", name, "type", "veth", "peer", "name", peer)
        self.links.append(name)
        run("ip", "addr", "add", addr, "dev", name)
        run("ip", "addr", "add", peer_addr, "dev", peer)
        run("ip", "link", "set", name, "up")
        run("ip", "link", "set", peer, "up")
        return addr.split("/")[0]

    def listen(self, group, port, iface_addr="127.0.0.1"):
        listener = MulticastListener(group, port, iface_addr)
        self.listeners.append(listener)
        return listener

    # --- processes ---------------------------------------------------------------------

    def spawn(self, argv, **kw):
        proc = Process(argv, **kw)
        self.processes.append(proc)
        return proc

    def tavro(self, service, *args, argv0=None, env=None, dev_log=None):
        """Starts the daemon as tavro-<service> (or under argv0 exactly).

        With dev_log, the daemon sees a /dev of its own whose /dev/log is that socket path.
        """
        if self.system_bus is None:
            import avahi_peer
            self.system_bus = avahi_peer.SystemBus(self)
        binary = os.path.join(BIN_DIR, "tavro")
        name = argv0 if argv0 is not None else "tavro-" + service
        full_env = dict(os.environ)
        full_env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        full_env.setdefault("LSAN_OPTIONS", "suppressions=%s"
                            % os.path.join(SOURCE_DIR, "tests", "lsan.supp"))
        if env:
            full_env.update(env)
        if dev_log is None:
            if EMULATOR:
                return self.spawn(EMULATOR + ["-0", name, binary] + list(args), env=full_env,
                                  name=name)
            return self.spawn([name] + list(args), executable=binary, env=full_env, name=name)
        full_env.update(TAVRO_DEVLOG=dev_log, TAVRO_ARGV0=name, TAVRO_BINARY=binary)
        launch = ("exec -a \"$TAVRO_ARGV0\" \"$TAVRO_BINARY\" \"$@\"" if not EMULATOR else
                  "exec %s -0 \"$TAVRO_ARGV0\" \"$TAVRO_BINARY\" \"$@\""
                  % " ".join(shlex.quote(word) for word in EMULATOR))
        script = ("set -e; mount -t tmpfs -o mode=0755 tmpfs /dev; "
                  "mknod -m 666 /dev/null c 1 3; mknod -m 666 /dev/zero c 1 5; "
                  "mknod -m 666 /dev/urandom c 1 9; mknod -m 666 /dev/random c 1 8; "
                  "ln -s \"$TAVRO_DEVLOG\" /dev/log; " + launch)
        argv = ["unshare", "--mount", "--propagation", "private", "bash", "-c", script, "bash"]
        return self.spawn(argv + list(args), env=full_env, name=name)

    def syslog_receiver(self, name="devlog"):
        """A Unix datagram socket that collects what syslog() sends to it."""
        path = self.path(name)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(path)
        os.chmod(path, 0o666)
        self.sockets.append(sock)
        return path, sock

    def close(self):
        for listener in self.listeners:
            listener.close()
        for proc in reversed(self.processes):
            proc.stop(signal.SIGKILL if proc.running() else signal.SIGTERM)
        for sock in self.sockets:
            sock.close()
        for link in self.links:
            run("ip", "link", "del", link, check=False)
        for path in reversed(self.mounts):
            run("umount", "-l", path, check=False)
