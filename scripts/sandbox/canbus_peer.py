"""The virtual CAN bus for system tests: bus directories on a tmpfs, candump logs, the player.

A bus interface NAME is the directory $TAVRO_VCAN_DIR/NAME; every reader binds a Unix
datagram socket in it and receives each frame as a 16-byte can_frame record (id word, length,
3 pad bytes, 8 data bytes). Give the daemon bus.env so that it reads the bus instead of
SocketCAN.
"""

import os
import socket
import struct
import subprocess
import threading
import time

from sandbox import SLOW

BUILD_DIR = os.environ.get("TAVRO_BUILD_DIR", os.path.join(
    os.path.dirname(__file__), "..", "..", "build", "plain"))
PLAYER = os.path.join(BUILD_DIR, "tools", "tavro-canplayer")

CAN_EFF_FLAG = 0x80000000
CAN_RTR_FLAG = 0x40000000
CAN_EFF_MASK = 0x1FFFFFFF
SO_TIMESTAMP = 29


def pack_frame(can_id, data=b"", extended=True):
    """A can_frame record; data shorter than 8 bytes is padded with zeros."""
    word = (can_id & CAN_EFF_MASK) | CAN_EFF_FLAG if extended else can_id
    return struct.pack("=IB3x8s", word, len(data), bytes(data))


def unpack_frame(record):
    """(id word, length, 8 data bytes) of a can_frame record."""
    word, length, data = struct.unpack("=IB3x8s", record[:16])
    return word, length, data


def log_line(stamp, interface, can_id, data=b"", extended=True):
    """One candump log line, e.g. (1700000000.100000) can0 18FEF100#0102."""
    ident = "%08X" % can_id if extended else "%03X" % can_id
    return "(%.6f) %s %s#%s" % (stamp, interface, ident, bytes(data).hex().upper())


class Receiver:
    """A reader of one bus interface, as the daemon's: its own socket in the bus directory."""

    def __init__(self, directory, name):
        self.path = os.path.join(directory, name)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.sock.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMP, 1)
        self.sock.settimeout(0.1)
        self.frames = []  # (receive time in s, id word, length, data)
        self._cond = threading.Condition()
        self._stop = False
        self._thread = threading.Thread(target=self._loop, daemon=True)
        self._thread.start()

    def _loop(self):
        while not self._stop:
            try:
                record, anc, _, _ = self.sock.recvmsg(64, socket.CMSG_SPACE(16))
            except socket.timeout:
                continue
            except OSError:
                break
            stamp = None
            for level, kind, payload in anc:
                if level == socket.SOL_SOCKET and kind == SO_TIMESTAMP:
                    sec, usec = struct.unpack("qq", payload[:16])
                    stamp = sec + usec / 1e6
            with self._cond:
                self.frames.append((stamp,) + unpack_frame(record))
                self._cond.notify_all()

    def wait_for(self, count, timeout=10.0):
        deadline = time.monotonic() + timeout * SLOW
        with self._cond:
            while len(self.frames) < count:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("%s: %d of %d frames" % (self.path, len(self.frames),
                                                                  count))
                self._cond.wait(min(left, 0.1))
            return list(self.frames)

    def close(self):
        self._stop = True
        self._thread.join(2)
        self.sock.close()
        if os.path.exists(self.path):
            os.unlink(self.path)


class CanBus:
    """Bus directories under a tmpfs of the sandbox; receivers and players stopped on close."""

    def __init__(self, sandbox, root="/run/tavro-vcan"):
        self.sandbox = sandbox
        self.root = root
        sandbox.mount_tmpfs(root)
        self.receivers = []
        self.env = {"TAVRO_VCAN_DIR": root}

    def add(self, name):
        """Creates interface name (its directory) and returns the directory."""
        directory = os.path.join(self.root, name)
        os.makedirs(directory, exist_ok=True)
        return directory

    def receiver(self, interface, name="peer"):
        rec = Receiver(os.path.join(self.root, interface), name)
        self.receivers.append(rec)
        return rec

    def write_log(self, name, lines):
        """Writes a candump log (lines as text or log_line tuples) into the sandbox."""
        path = self.sandbox.path(name)
        with open(path, "w") as f:
            for line in lines:
                f.write((line if isinstance(line, str) else log_line(*line)) + "\n")
        return path

    def play(self, *args, timeout=30.0):
        """Runs the player to its end; returns (exit status, stdout, stderr)."""
        env = dict(os.environ)
        env.update(self.env)
        res = subprocess.run([PLAYER] + list(args), env=env, capture_output=True, text=True,
                             timeout=timeout * SLOW)
        return res.returncode, res.stdout, res.stderr

    def start_player(self, *args):
        """Starts the player in the background (stopped with the sandbox)."""
        env = dict(os.environ)
        env.update(self.env)
        return self.sandbox.spawn([PLAYER] + list(args), env=env, name="tavro-canplayer")

    def send(self, interface, record):
        """Sends one can_frame record (see pack_frame) to every reader of interface."""
        directory = os.path.join(self.root, interface)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            for name in os.listdir(directory):
                try:
                    sock.sendto(record, os.path.join(directory, name))
                except OSError:
                    pass  # not a socket, or a reader that is gone
        finally:
            sock.close()

    def close(self):
        for rec in self.receivers:
            rec.close()
