"""A real gpsd in the test's namespace, fed by NmeaFeed: a TCP server on 127.0.0.1 that
replays a log of tests/data/nmea/ (written for this project; '#' starts a comment) to each
connection, one epoch (a second of the receiver) per interval, over and over.

    feed = NmeaFeed(sandbox, "bus-3d.nmea")
    gpsd = Gpsd(sandbox, feed).start()      # gpsd -N -n -S 2947 tcp://127.0.0.1:<feed>
    gpsd.stop(); gpsd.start()
"""

import os
import socket
import threading
import time

from sandbox import SLOW, SOURCE_DIR


def read_epochs(name):
    """Lists of sentences; the kind of the log's first sentence starts every epoch."""
    epochs = []
    with open(os.path.join(SOURCE_DIR, "tests", "data", "nmea", name)) as f:
        for line in (l.strip() for l in f):
            if line and not line.startswith("#"):
                if not epochs or line[:6] == epochs[0][0][:6]:
                    epochs.append([])
                epochs[-1].append(line)
    return epochs


class NmeaFeed:
    def __init__(self, sandbox, log, interval=0.25):
        self.interval = interval
        self.epochs = read_epochs(log)
        self.sent = []  # every sentence sent, in order
        self.server = socket.create_server(("127.0.0.1", 0))
        self.server.settimeout(0.1)
        self.port = self.server.getsockname()[1]
        self._stop = threading.Event()
        threading.Thread(target=self._serve, daemon=True).start()
        sandbox.listeners.append(self)  # closed with the sandbox

    def _serve(self):
        while not self._stop.is_set():
            try:
                conn = self.server.accept()[0]
            except OSError:  # timeout, or closed
                continue
            threading.Thread(target=self._replay, args=(conn,), daemon=True).start()

    def _replay(self, conn):
        index = 0
        with conn:
            while not self._stop.wait(self.interval if index else 0):
                epoch = self.epochs[index % len(self.epochs)]
                index += 1
                try:
                    conn.sendall("".join(s + "\r\n" for s in epoch).encode())
                except OSError:
                    return
                self.sent.extend(epoch)

    def close(self):
        self._stop.set()
        self.server.close()


class Gpsd:
    def __init__(self, sandbox, feed, port=2947):
        self.sandbox, self.feed, self.port = sandbox, feed, port
        self.proc = None

    def start(self):
        """Returns once gpsd accepts clients."""
        self.proc = self.sandbox.spawn(["gpsd", "-N", "-n", "-S", str(self.port),
                                        "tcp://127.0.0.1:%d" % self.feed.port], name="gpsd")
        deadline = time.monotonic() + 5 * SLOW
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=1).close()
                return self
            except OSError:
                if time.monotonic() > deadline or not self.proc.running():
                    raise AssertionError("gpsd did not come up:\n" + self.proc.stderr)
                time.sleep(0.02)

    def stop(self):
        self.proc.stop()
