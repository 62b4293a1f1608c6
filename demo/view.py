#!/usr/bin/python3
"""What a device on the vehicle network sees of tavro-all on a simulated city bus.

Started by scripts/demo inside throw-away namespaces (scripts/sandbox/sandboxed). Sets the vehicle
up (demo/vehicle.py), asks for a few PGNs through nginx, and shows once a second the
announcements, the latest documents of the three data services and the multicast statistics
of tavro's log; without a terminal, or one too small for the screen, a block every 10 s.

    view.py                  until Ctrl-C (or SIGTERM)
    view.py --duration 30    unattended; exits 0 only if every service delivered
"""

import argparse
import http.client
import json
import os
import re
import shutil
import signal
import sys
import tempfile
import textwrap
import time
import xml.etree.ElementTree as ET

from vehicle import DEMO_DIR, Vehicle

from sandbox import Sandbox, run

# Multicast on request (PGNReq): CCVS, DC2, VDHR, LFC, FMS1. Fetched (PGNGet) every 5 s:
# EEC1, TCO1, DC1 and the vehicle identification, which comes as a BAM.
REQUESTED = ("FEF1", "FDA5", "FEC1", "FEE9", "FDD1")
FETCHED = ("F004", "FE6C", "FE4E", "FEEC")
# Where the harness and the peers mount a tmpfs.
MOUNT_POINTS = ("/etc/tavro", "/tmp/status", "/run/dbus", "/run/avahi-daemon", "/run/tavro-vcan")
FETCH_EVERY = 5.0
BLOCK_EVERY = 10.0  # without a terminal


def pgn_names():
    """PGN text -> short name (EEC1, CCVS, ...) from the demo's FMS mapping."""
    with open(os.path.join(DEMO_DIR, "fms-mapping.json")) as f:
        return {"%04X" % e["pgn"]: e["name"].split()[0] for e in json.load(f)}


def fms_frames(text):
    """(FMSVersion, [(PGN, [(name, unit, value)])]) of an FMStoIPDelivery document."""
    fms = ET.fromstring(text).find("FMStoIP")
    frames = [(f.findtext("PGN"), [(s.findtext("Name"), s.findtext("Unit") or "",
                                    s.findtext("Value")) for s in f.findall("SPN")])
              for f in fms.findall("Frame")]
    return fms.get("FMSVersion"), frames


def page(body):
    """The text of an HTML answer."""
    return re.sub(r"<[^>]*>", "", body).strip()


def spn_text(spns):
    return ", ".join(("%s: %s %s" % (name, value, unit)).rstrip() for name, unit, value in spns)


def fit(lines, width):
    """Lines wrapped at blanks to width, continued with a deeper indent."""
    out = []
    for line in lines:
        indent = " " * (len(line) - len(line.lstrip()) + 4)
        out += textwrap.wrap(line, width, subsequent_indent=indent, break_on_hyphens=False,
                             break_long_words=False) or [""]
    return out


def gnss_lines(doc):
    loc = ET.fromstring(doc).find("GNSSLocation")
    get = loc.findtext
    speed = float(get("SpeedOverGround") or 0)
    sentences = (get("Data") or "").count("$")
    return ["%s %s UTC  %s, %s satellites, HDOP %s, VDOP %s"
            % (get("Date"), get("Time"), get("SignalQuality"), get("NumberOfSatellites"),
               get("HorizontalDilutionOfPrecision"), get("VerticalDilutionOfPrecision")),
            "%s° %s  %s° %s  altitude %s m  speed %.1f m/s (%.1f km/h)  course %s°"
            % (get("Latitude/Degree"), get("Latitude/Direction"), get("Longitude/Degree"),
               get("Longitude/Direction"), get("Altitude"), speed, speed * 3.6,
               get("TrackDegreeTrue")),
            "%d NMEA sentences since the previous document" % sentences]


def vtoip_lines(doc, doors):
    """Lines of a VEHICLEtoIPDelivery; doors (id -> state) keeps the last state of each door."""
    vehicle = ET.fromstring(doc).find("VEHICLEtoIP")
    get = vehicle.findtext
    for door in vehicle.iter("Door"):
        doors[int(door.findtext("DoorID"))] = door.findtext("DoorStatus")
    return ["recorded %s UTC  speed %s km/h  odometer %s m  trip %s m  odometer fault %s"
            % (get("RecordedAtTime").replace("T", " "), get("Odospeed"),
               get("Ododistancetotal"), get("Ododistance"), get("Odofault")),
            "doors %s: %s  stop request %s"
            % (get("DoorsStatus"), ", ".join("%d %s" % d for d in sorted(doors.items())),
               get("StopRequest")),
            "%s %s, %s passengers, vehicle %s of the set, active cabin %s, high voltage %s, "
            "in service %s" % (get("VehicleType"), get("VehicleNumber"), get("VehicleCapacity"),
                               get("VehicleOrder"), get("ActiveCabin"), get("PresenceHV"),
                               get("VehicleMode"))]


class View:
    def __init__(self, vehicle):
        self.vehicle = vehicle
        self.names = pgn_names()
        self.started = time.monotonic()
        self.counts = {root: 0 for root in vehicle.listeners}
        self.latest = {}  # root -> (monotonic time, text)
        self.fixes = 0
        self.doors = {}
        self.fms_version = None
        self.fms = {}  # PGN -> SPNs, latest multicast frame
        self.fetched = {}  # PGN -> (status, SPNs or body)
        self.requests = []  # (request, answer) of the PGNReq sent
        self.answered = {}  # kind -> number of 200 answers
        self.stats = {}  # port -> (since, [(context, count)])
        self.log_seen = 0

    def http(self, kind, pgn):
        """(status, body) of a PGN request; status None when it failed on the way."""
        try:
            status, _, body = self.vehicle.request(kind, pgn)
        except (OSError, http.client.HTTPException) as e:
            return None, "%s: %s" % (type(e).__name__, e)
        if status == 200:
            self.answered[kind] = self.answered.get(kind, 0) + 1
        return status, body

    def request_pgns(self):
        for pgn in REQUESTED:
            status, body = self.http("add", pgn)
            self.requests.append(("<PGNReq>%s</PGNReq>" % pgn, "%s %s" % (status, page(body))))

    def fetch(self):
        for pgn in FETCHED:
            status, body = self.http("get", pgn)
            self.fetched[pgn] = (status, fms_frames(body)[1][0][1] if status == 200
                                 else page(body))

    def take(self):
        now = time.monotonic()
        for root, listener in self.vehicle.listeners.items():
            for _, payload, _ in listener.take():
                self.counts[root] += 1
                text = payload.decode("utf-8", "replace")
                self.latest[root] = (now, text)
                if root == "GNSSLocationDelivery" and "<SignalQuality>NotValid<" not in text:
                    self.fixes += 1
                elif root == "FMStoIPDelivery":
                    self.fms_version, frames = fms_frames(text)
                    self.fms.update(frames)
        # Multicast statistics: a header line, then one line per context.
        text = self.vehicle.tavro.stderr
        end = text.rfind("\n") + 1
        current = None
        for line in text[self.log_seen:end].splitlines():
            head = re.match(r"INFO: multicast-stat for port (\d+) since (\S+)$", line)
            if head:
                current = self.stats[head.group(1)] = (head.group(2), [])
            elif current and re.match(r"INFO: \S+ = \d+$", line):
                current[1].append(line[6:])
        self.log_seen = end

    def screen(self, width=100):
        v = self.vehicle
        now = time.monotonic()
        out = ["tavro demo: tavro-all on a simulated city bus, seen from the vehicle network",
               "running %d s  %s UTC  (Ctrl-C stops)" % (now - self.started,
                                                        time.strftime("%H:%M:%S", time.gmtime())),
               "", "Announced services (avahi-browse)"]
        seen = v.services()
        for name, stype in v.announced_types().items():
            rec = seen.get((name, stype))
            out.append("  %-18s %-18s %s" % (name, stype, "port %d  %s" % (
                rec.port, " ".join(rec.txt)) if rec else "(not announced)"))
        titles = {"GNSSLocationDelivery": "GNSS", "VEHICLEtoIPDelivery": "VEHICLEtoIP",
                  "FMStoIPDelivery": "FMStoIP"}
        for root, listener in v.listeners.items():
            got = self.latest.get(root)
            out += ["", "%s  %s:%d on v1: %d documents%s"
                    % (titles[root], listener.group, listener.port, self.counts[root],
                       ", last %.1f s ago" % (now - got[0]) if got else "")]
            if not got:
                continue
            if root == "GNSSLocationDelivery":
                out += ["  " + line for line in gnss_lines(got[1])]
            elif root == "VEHICLEtoIPDelivery":
                out += ["  " + line for line in vtoip_lines(got[1], self.doors)]
            else:
                out.append("  FMS-standard version %s; latest frame of each requested PGN:"
                           % self.fms_version)
                for pgn, spns in sorted(self.fms.items()):
                    out.append("  %s %-5s %s" % (pgn, self.names.get(pgn, ""), spn_text(spns)))
        out += ["", "PGN requests through nginx (http://127.0.0.1:%d)" % v.http_port]
        out += ["  %s -> %s" % r for r in self.requests]
        for pgn, (status, what) in sorted(self.fetched.items()):
            out.append("  <PGNGet>%s</PGNGet> -> %s %s %s" % (
                pgn, status, self.names.get(pgn, ""),
                spn_text(what) if isinstance(what, list) else what))
        out += ["", "Multicast statistics (tavro -v log, a period ends after 60 s)"]
        if not self.stats:
            out.append("  none yet")
        for port, (since, contexts) in sorted(self.stats.items()):
            out.append("  port %s since %s: %s" % (port, since, ", ".join(contexts)))
        return fit(out, width)

    def failures(self):
        """Why the run does not count as every service delivering; empty when it does."""
        reasons = []
        seen = self.vehicle.services()
        missing = [n for n, t in self.vehicle.announced_types().items() if (n, t) not in seen]
        if missing:
            reasons.append("not announced: " + ", ".join(missing))
        if self.fixes == 0:
            reasons.append("no GNSS document with a fix received")
        for root in ("VEHICLEtoIPDelivery", "FMStoIPDelivery"):
            if self.counts[root] == 0:
                reasons.append("no %s datagram received" % root)
        if self.answered.get("add", 0) < len(REQUESTED):
            reasons.append("PGN requests (PGNReq) not all answered 200: %r" % self.requests)
        if self.answered.get("get", 0) == 0:
            reasons.append("no PGNGet answered 200: %r" % self.fetched)
        return reasons


def stop_on_sigterm(*_):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--duration", type=float, help="run unattended for this many seconds")
    args = parser.parse_args()
    signal.signal(signal.SIGTERM, stop_on_sigterm)
    tty = sys.stdout.isatty()

    # What the demo writes lies on tmpfs mounts of this mount namespace, which end with it;
    # the mount points it has to make are removed again.
    made = [path for path in MOUNT_POINTS if not os.path.isdir(path)]
    work = tempfile.mkdtemp(prefix="tavro-demo-")
    made.append(work)
    run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", work)
    sandbox = Sandbox(work)
    view = None
    reasons = []
    try:
        print("demo: starting dbus, avahi-daemon, gpsd, tavro-all, nginx, tavro-canplayer",
              flush=True)
        view = View(Vehicle(sandbox))
        view.request_pgns()
        deadline = view.started + args.duration if args.duration else None
        # The first fetch once the log player has sent a second of frames.
        next_block = time.monotonic()
        next_fetch = next_block + 1.0
        while deadline is None or time.monotonic() < deadline:
            if not view.vehicle.tavro.running():
                reasons.append("tavro-all ended on its own with status %s"
                               % view.vehicle.tavro.popen.returncode)
                break
            now = time.monotonic()
            if now >= next_fetch:
                view.fetch()
                next_fetch += FETCH_EVERY
            view.take()
            size = shutil.get_terminal_size()
            lines = view.screen(size.columns) if tty else None
            if lines and len(lines) < size.lines:
                # The screen is redrawn in place while the terminal can hold it.
                sys.stdout.write("\033[H\033[J" + "\n".join(lines))
                sys.stdout.flush()
            elif now >= next_block:
                print("\n".join(["-" * 78] + (lines or view.screen())), flush=True)
                next_block += BLOCK_EVERY
            time.sleep(1.0)
    except KeyboardInterrupt:
        if args.duration:
            reasons.append("interrupted")
    except Exception as e:  # reported, and everything is still cleaned up
        reasons.append("%s: %s" % (type(e).__name__, e))
    finally:
        # A second Ctrl-C must not cut the clean-up short.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        if view is not None:
            reasons += finish(view, args.duration)
        sandbox.close()
        run("umount", "-l", work, check=False)
        for path in made:
            try:
                os.rmdir(path)
            except OSError:
                pass
    for reason in reasons:
        print("demo: FAILED: " + reason, file=sys.stderr)
    if args.duration and not reasons:
        print("demo: every service delivered")
    return 1 if reasons else 0


def finish(view, checked):
    """Shows the last state and stops tavro-all; what went wrong (with checked, also what
    did not deliver)."""
    reasons = []
    view.take()
    print("\n".join(["", "-" * 78] + view.screen()), flush=True)
    if checked:
        reasons += view.failures()
    tavro = view.vehicle.tavro
    interrupted = tavro.running()
    status = view.vehicle.stop()
    if interrupted:
        print("demo: tavro-all ended by SIGINT with status %d" % status)
        if status != 2:
            reasons.append("tavro-all ended with status %d instead of 2" % status)
    if reasons:
        print("demo: tavro-all's last log lines:\n" + "\n".join(tavro.lines()[-30:]))
    return reasons


if __name__ == "__main__":
    sys.exit(main())
