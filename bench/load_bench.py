#!/usr/bin/python3
"""tavro-all under load, all figures of one run side by side.

    bench/load_bench.py [--seconds 20] [--rate 19000] [--period-ms 0] [--bus-queue 500]
                        [--connections 4] [--http-wait 4] [--http-seconds 5]
                        [--callgrind-frames 20000] [--no-callgrind | --only-callgrind]
    bench/load_bench.py --compare-churn ROUNDS [--churn-rate 1000] [--seconds ...] [--rate ...]

In throw-away namespaces (scripts/sandbox/sandboxed): tavro-all with every service, avahi-daemon,
gpsd fed at 10 Hz, nginx in front of the FastCGI responder, two virtual CAN buses each played
by tavro-canplayer at RATE frames/s (a saturated 250 kbit/s bus carries about 1 900 extended
frames/s; the default is ten times that) with a realistic mix of 20 PGNs, all requested over
HTTP, and wrk sending PGNGet at a steady pace all along; after the CAN load, wrk as fast as
it goes. bench/load_probe reads both buses and the FMStoIP multicast group and matches every
frame to its datagram by the bus and sequence number the log carries in data bytes 4 to 7.
Then, outside the load, valgrind's callgrind counts the instructions of bench/frame_cost, the
decode-and-document path, for the same mix: a figure that does not depend on the machine.

With --compare-churn ROUNDS it makes only rounds of three such runs, without callgrind: nothing
through nginx during the CAN load, PGNGet at the pace of --churn-rate, and --churn-rate PGNReq
and PGNRem a second (each rewrites the counter file, which lies on the disk here), and prints
the latency of each side by side.

Exit status 1 when a frame was not delivered. Needs the plain build with the bench programs
(TAVRO_BUILD_DIR, default build/plain), wrk, nginx, gpsd, avahi-daemon and valgrind.
"""

import argparse
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
SYSTEM = os.path.join(SOURCE, "scripts", "sandbox")
sys.path.insert(0, SYSTEM)

FCGI_PORT = 9000
FMS_GROUP, FMS_PORT = "239.10.0.2", 47010
SHARED_MAPPING = os.path.join(SOURCE, "..", "shared", "data", "j1939-framework", "frames.json")
TEST_MAPPING = os.path.join(SOURCE, "tests", "data", "fms_mapping.json")
VTOIP_MAPPING = os.path.join(SOURCE, "etc", "vehicletoip-mapping.json")

# One second of a city bus with an FMS gateway and a body controller: (identifier, data bytes
# 0 to 3, frames per second). Bytes 4 to 7 of every frame carry the bus and sequence number.
MIX = [
    (0x0CF00400, "F07D8240", 50),  # EEC1 engine speed, torque
    (0x0CF00300, "D1001400", 20),  # EEC2 accelerator pedal
    (0x0CF00203, "F4000000", 20),  # ETC1 output shaft speed
    (0x18F00503, "7E00007E", 10),  # ETC2 gears
    (0x18F00010, "F07D7DFF", 10),  # ERC1 retarder
    (0x18F0010B, "C0FFF0FF", 10),  # EBC1 brake pedal
    (0x0CFE6CEE, "02100000", 20),  # TCO1 tachograph
    (0x18FEF100, "04801410", 10),  # CCVS vehicle speed, brakes
    (0x18FE4E21, "40FFFFFF", 10),  # DC1 doors
    (0x18FDA521, "1405FDFF", 10),  # DC2 door states
    (0x18FF1021, "54FFFFFF", 10),  # body status (proprietary B)
    (0x18FEBF0B, "00001000", 10),  # EBC2 wheel speeds
    (0x18FEF200, "20004001", 10),  # LFE fuel rate
    (0x18FEC1EE, "40420F00", 1),  # VDHR distance
    (0x18FEE900, "00000000", 1),  # LFC fuel used
    (0x18FEE500, "10270000", 1),  # HOURS
    (0x18FEEE00, "5A500000", 1),  # ET1 temperatures
    (0x18FEF500, "FFFFFF40", 1),  # AMB ambient
    (0x18FEFC17, "FF96FFFF", 1),  # DD fuel level
    (0x18FF1121, "005F0001", 1),  # vehicle description (proprietary B)
]
PGNS = sorted({"%04X" % ((ident >> 8) & 0xFFFF) for ident, _, _ in MIX})


def one_second():
    """The mix's frames in the order of one second, each kind spread evenly."""
    events = []
    for ident, head, per_second in MIX:
        events += [((k + 0.5) / per_second, ident, head) for k in range(per_second)]
    return [(ident, head) for _, ident, head in sorted(events)]


def write_log(path, interface, bus, count):
    """count frames of the mix on interface, sequence numbers 0 to count-1."""
    cycle = one_second()
    with open(path, "w") as f:
        for seq in range(count):
            ident, head = cycle[seq % len(cycle)]
            f.write("(%.6f) %s %08X#%s%02X%06X\n" % (1700000000 + seq / 1e4, interface, ident,
                                                      head, bus, seq))


def conf(name, **changes):
    """An example file of etc/ as a dict, with changes."""
    values = {}
    with open(os.path.join(SOURCE, "etc", name)) as f:
        for line in f:
            line = line.split("#")[0].strip()
            if "=" in line:
                key, value = line.split("=", 1)
                values[key] = value
    values.update(changes)
    return values


def cpu_ticks(pid):
    """{thread name: (utime, stime in clock ticks, voluntary and involuntary context switches)}
    of the process's threads."""
    threads = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/stat" % (pid, tid)) as f:
                fields = f.read().rsplit(")", 1)[1].split()
            with open("/proc/%d/task/%s/comm" % (pid, tid)) as f:
                name = f.read().strip()
            with open("/proc/%d/task/%s/status" % (pid, tid)) as f:
                switches = [int(v) for v in re.findall(r"ctxt_switches:\s+(\d+)", f.read())]
        except OSError:
            continue
        counts = (int(fields[11]), int(fields[12])) + tuple(switches)
        threads[name] = tuple(a + b for a, b in zip(threads.get(name, (0, 0, 0, 0)), counts))
    return threads


class ProgramSampler:
    """CPU ticks (utime + stime) of every process of this PID namespace, sampled every 0.2 s
    until stopped, so that programs that end during the run count too."""

    def __init__(self):
        self.first, self.last = self.sample(), {}
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._loop, daemon=True)
        self._thread.start()

    def sample(self):
        ticks = {}
        for pid in os.listdir("/proc"):
            if pid.isdigit():
                try:
                    with open("/proc/%s/stat" % pid) as f:
                        head, tail = f.read().rsplit(")", 1)
                except OSError:
                    continue
                fields = tail.split()
                ticks[int(pid)] = (head.split("(", 1)[1], int(fields[11]) + int(fields[12]))
        return ticks

    def _loop(self):
        while not self._stop.wait(0.2):
            self.last.update(self.sample())

    def stop(self):
        """{program name: CPU seconds} since the start."""
        self._stop.set()
        self._thread.join()
        self.last.update(self.sample())
        programs = {}
        for pid, (name, ticks) in self.last.items():
            spent = ticks - self.first.get(pid, (name, 0))[1]
            programs[name] = programs.get(name, 0) + spent / os.sysconf("SC_CLK_TCK")
        return programs


def machine_busy():
    """(busy, total) jiffies of all CPUs of the machine."""
    with open("/proc/stat") as f:
        values = [int(v) for v in f.readline().split()[1:]]
    idle = values[3] + values[4]
    return sum(values) - idle, sum(values)


def loadavg():
    with open("/proc/loadavg") as f:
        return f.read().split()[0]


def status_kb(pid, key):
    with open("/proc/%d/status" % pid) as f:
        return int(re.search(r"^%s:\s+(\d+) kB" % key, f.read(), re.M).group(1))


def parse_wrk(out):
    scale = {"us": 0.001, "ms": 1.0, "s": 1000.0}
    latency = {p: float(v) * scale[u]
               for p, v, u in re.findall(r"^\s+(50|90|99)%\s+([\d.]+)(us|ms|s)$", out, re.M)}
    rate = float(re.search(r"^Requests/sec:\s+([\d.]+)", out, re.M).group(1))
    errors = re.findall(r"^\s*(Non-2xx.*|Socket errors.*)$", out, re.M)
    return rate, latency, errors


def load_run(args, build, http="get"):
    """One run; during the CAN load wrk sends PGNGet ("get"; "get-churn-rate" at the pace of
    --churn-rate), PGNReq and PGNRem in turn ("churn") or nothing ("none")."""
    from avahi_peer import AvahiPeer
    from canbus_peer import PLAYER, CanBus
    from gpsd_peer import Gpsd, NmeaFeed
    from nginx_peer import Nginx, wait_for_port
    from sandbox import Process, Sandbox

    sandbox = Sandbox(tempfile.mkdtemp(prefix="load-bench-"))
    try:
        AvahiPeer(sandbox)  # veth v0 (10.20.0.1) - v1 (10.20.0.2), system bus, avahi-daemon
        for key, value in (("all/rp_filter", 0), ("v1/rp_filter", 0), ("v1/accept_local", 1)):
            with open("/proc/sys/net/ipv4/conf/" + key, "w") as f:
                f.write(str(value))
        bus = CanBus(sandbox)
        directories = [bus.add("can0"), bus.add("can1")]
        frames = args.rate * args.seconds
        logs = []
        for index in range(2):
            logs.append(sandbox.path("can%d.log" % index))
            write_log(logs[-1], "can%d" % index, index, frames)

        # The probe's bus sockets get room for a long turn away from the CPU; the daemon's
        # readers hold --bus-queue frames, like a SocketCAN socket: a bus does not wait for its
        # readers (the namespace's default is 10, beyond which the player waits).
        qlen = "/proc/sys/net/unix/max_dgram_qlen"
        with open(qlen, "w") as f:
            f.write("1000000")
        probe = sandbox.spawn([os.path.join(build, "bench", "load_probe"), FMS_GROUP,
                               str(FMS_PORT), "10.20.0.2"] + directories, name="load_probe")
        probe.wait_for("^ready$", stream="stdout")
        with open(qlen, "w") as f:
            f.write(str(args.bus_queue))

        if "/var/lib/tavro" not in sandbox.mounts:
            sandbox.mount_tmpfs("/var/lib/tavro")
        shutil.copy(VTOIP_MAPPING, "/etc/tavro/vehicletoip-mapping.json")
        mapping = SHARED_MAPPING if os.path.exists(SHARED_MAPPING) else TEST_MAPPING
        sandbox.write_conf("tavro.conf", conf("tavro.conf", network_interface="v0"))
        sandbox.write_conf("inventory.conf", conf(
            "inventory.conf", moduleinfo_file_path=sandbox.path("moduleinfo.xml")))
        # Rewritten for every PGNReq and PGNRem: on the disk, where fsync() takes its time.
        sandbox.write_conf("fmstoip.conf", conf(
            "fmstoip.conf", multicast_addr=FMS_GROUP, service_port=FMS_PORT,
            mapping_file=mapping, can_interface="can0,can1", period_ms=args.period_ms,
            pgn_counter_file=sandbox.path("pgn_counter")))
        for name in ("addpgn.conf", "removepgn.conf", "getpgn.conf", "time.conf",
                     "mqttbroker.conf"):
            sandbox.write_conf(name, conf(name))
        sandbox.write_conf("gnss.conf", conf("gnss.conf", gpsd_addr="127.0.0.1"))
        sandbox.write_conf("vehicletoip.conf", conf(
            "vehicletoip.conf", mapping_file="/etc/tavro/vehicletoip-mapping.json",
            can_interface="can0,can1"))

        feed = NmeaFeed(sandbox, "bus-3d.nmea", interval=0.1)
        Gpsd(sandbox, feed).start()
        daemon = sandbox.tavro("all", env=bus.env)
        deadline = time.monotonic() + 20
        while not all(any(n.startswith("tavro-") for n in os.listdir(d)) for d in directories):
            if time.monotonic() > deadline or not daemon.running():
                raise RuntimeError("no CAN readers:\n" + daemon.stderr)
            time.sleep(0.05)
        wait_for_port(FCGI_PORT)
        nginx = Nginx(sandbox, FCGI_PORT)
        # Something to get for wrk, before anything is requested: bus number 255, which the
        # probe does not count.
        warm = sandbox.path("warm.log")
        write_log(warm, "can0", 255, 1)
        rc, _, err = bus.play("-f", warm)
        assert rc == 0, err
        # F004 once more for each wrk connection: with adds and removes of it in flight on
        # all of them, its count never drops to 0.
        for pgn in PGNS + ["F004"] * args.connections:
            status = nginx.request("POST", "/fmstoip/addpgn", "<PGNReq>%s</PGNReq>" % pgn)[0]
            assert status == 200, status

        def wrk(seconds, delay_ms, churn=False):
            """wrk sending PGNGet, or with churn PGNReq and PGNRem of F004 in turn (its count
            stays above 0: the datagrams stay the same); each connection waits delay_ms after
            each answer."""
            script = sandbox.path("%s-%d.lua" % ("churn" if churn else "get", delay_ms))
            with open(script, "w") as f:
                if churn:
                    f.write('local add = wrk.format("POST", "/fmstoip/addpgn", {["Content-Type"]'
                            ' = "text/xml"}, "<PGNReq>F004</PGNReq>")\n'
                            'local remove = wrk.format("POST", "/fmstoip/removepgn", {['
                            '"Content-Type"] = "text/xml"}, "<PGNRem>F004</PGNRem>")\n'
                            "local n = 0\nfunction request()\n  n = n + 1\n"
                            "  if n % 2 == 1 then return add end\n  return remove\nend\n")
                else:
                    f.write('wrk.method = "POST"\nwrk.body = "<PGNGet>F004</PGNGet>"\n'
                            'wrk.headers["Content-Type"] = "text/xml"\n')
                if delay_ms:
                    f.write("function delay()\n  return %d\nend\n" % delay_ms)
            return subprocess.Popen(["wrk", "-t1", "-c%d" % args.connections,
                                     "-d%ds" % seconds, "--latency", "-s", script,
                                     "http://127.0.0.1:8085/fmstoip/getpgn"],
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

        time.sleep(2)  # the services settle
        pid = daemon.pid
        # The paced requests run a second before and after the players, so the CAN load meets
        # them running.
        # About --churn-rate a second: each request takes some 0.8 ms besides the wait.
        churn_wait = max(0, round(args.connections * 1000 / max(args.churn_rate, 1) - 0.8))
        paced = None
        if http == "get":
            paced = wrk(args.seconds + 2, args.http_wait)
        elif http == "get-churn-rate":
            paced = wrk(args.seconds + 2, churn_wait)
        elif http == "churn":
            paced = wrk(args.seconds + 2, churn_wait, churn=True)
        time.sleep(1)
        sampler = ProgramSampler()
        before = cpu_ticks(pid), machine_busy(), time.monotonic(), loadavg()
        env = dict(os.environ, **bus.env)
        players = [Process([PLAYER, "-r", str(args.rate), log], env=env, name="player")
                   for log in logs]
        sandbox.processes.extend(players)
        for player in players:
            player.wait(timeout=args.seconds * 3 + 30)
        # The last frames on their way.
        time.sleep(1)
        after = cpu_ticks(pid), machine_busy(), time.monotonic(), loadavg()
        programs = sampler.stop()
        paced_out = paced.communicate(timeout=args.seconds + 30)[0] if paced else None
        # What the FastCGI path holds, without the CAN load.
        flat_out = (wrk(args.http_seconds, 0).communicate(timeout=args.http_seconds + 30)[0]
                    if args.http_seconds else None)
        peak_kb, rss_kb = status_kb(pid, "VmHWM"), status_kb(pid, "VmRSS")
        probe.stop(signal.SIGTERM, timeout=30)
        daemon.interrupt()
        status = daemon.wait(timeout=20)
        # A sanitizer build (TAVRO_BIN_DIR=build/tsan) reports here.
        reports = re.findall(r"^(WARNING: ThreadSanitizer.*|==\d+==ERROR: .*Sanitizer.*)$",
                             daemon.stderr, re.M)

        result = dict(line.split("=", 1) for line in probe.stdout.split() if "=" in line)
        result = {k: v if k.endswith("_runs") else float(v) for k, v in result.items()}
        sent = [int(re.search(r"Sent (\d+) frames", p.stdout).group(1)) for p in players]
        player_drops = sum(len(re.findall(r"is not reading", p.stderr)) for p in players)
        behind = [int((re.findall(r"fell (\d+) ms behind", p.stderr) or [0])[0]) for p in players]
        ticks = os.sysconf("SC_CLK_TCK")
        threads = {name: tuple((a - b) / scale for a, b, scale in zip(
            after[0][name], before[0].get(name, (0, 0, 0, 0)), (ticks, ticks, 1, 1)))
            for name in after[0]}
        busy = (after[1][0] - before[1][0]) / max(1, after[1][1] - before[1][1])
        return {
            "seconds": after[2] - before[2], "load": (before[3], after[3]), "busy": busy,
            "sent": sent, "player_drops": player_drops, "behind": behind, "probe": result,
            "dropped_lines": len(re.findall(r"^WARN: Dropped can frame!$", daemon.stderr, re.M)),
            "threads": threads, "programs": programs, "peak_kb": peak_kb, "rss_kb": rss_kb,
            "http": tuple(parse_wrk(out) if out else None for out in (paced_out, flat_out)),
            "status": status,
            "reports": reports, "mapping": os.path.basename(mapping),
        }
    finally:
        sandbox.close()
        shutil.rmtree(sandbox.work, ignore_errors=True)


def callgrind_run(args, build):
    """Instructions per frame of bench/frame_cost: the difference of two runs, so start-up and
    the loading of the mapping file drop out; and the two halves of the path."""
    work = tempfile.mkdtemp(prefix="frame-cost-")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)  # the datagrams go there
    try:
        log = os.path.join(work, "mix.log")
        write_log(log, "can0", 0, len(one_second()))
        mapping = SHARED_MAPPING if os.path.exists(SHARED_MAPPING) else TEST_MAPPING
        totals = {}
        functions = {}
        for count in (args.callgrind_frames // 5, args.callgrind_frames):
            out = os.path.join(work, "callgrind.%d" % count)
            res = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out,
                                  os.path.join(build, "bench", "frame_cost"), log, str(count),
                                  mapping], capture_output=True, text=True)
            if res.returncode != 0:
                raise RuntimeError("frame_cost under callgrind failed:\n" + res.stderr)
            totals[count] = int(re.search(r"Collected : (\d+)", res.stderr).group(1))
            annotated = subprocess.run(["callgrind_annotate", "--inclusive=yes", out],
                                       capture_output=True, text=True, check=True).stdout
            for name, pattern in (("dispatch", r"CanHandler::dispatch\("),
                                  ("worker", r"Fmstoip::process\("),
                                  ("document", r"FmsXMLGenerator::plainFrameDocument")):
                match = re.search(r"^\s*([\d,]+) .*%s" % pattern, annotated, re.M)
                functions[name] = int(match.group(1).replace(",", "")) / count if match else None
        small, large = sorted(totals)
        return (totals[large] - totals[small]) / (large - small), functions, large
    finally:
        shutil.rmtree(work, ignore_errors=True)


def report(args, load, callgrind):
    if load:
        p = load["probe"]
        frames = p["bus_frames"]
        total_cpu = sum(t[0] + t[1] for t in load["threads"].values())
        print("tavro-all, %d s at %d frames/s on each of can0 and can1 (%s), period_ms=%s, "
              "bus sockets of %d frames, wrk with %d connections; machine (2 CPUs, shared): 1-min "
              "load %s before, %s after, CPUs %.0f %% busy during the run" % (
                  args.seconds, args.rate, load["mapping"], args.period_ms, args.bus_queue,
                  args.connections, load["load"][0], load["load"][1], 100 * load["busy"]))
        print()
        print("| figure | value |")
        print("|---|---|")
        rows = [
            ("frames sent by the players (can0 + can1)", "%d + %d" % tuple(load["sent"])),
            ("time the players fell behind the pace (can0, can1)",
             "%d ms, %d ms" % tuple(load["behind"])),
            ("frames seen on the buses by the probe", "%d (%.0f + %.0f frames/s)" % (
                frames, p["bus0_frames"] / max(p["bus0_seconds"], 1e-9),
                p["bus1_frames"] / max(p["bus1_seconds"], 1e-9))),
            ("most frames within 2 ms on can0, can1 (at an even pace: %.0f)" % (
                args.rate * 0.002), "%d, %d" % (p["bus0_peak_2ms"], p["bus1_peak_2ms"])),
            ("frames in datagrams (matched to their bus frame)", "%d (%d)" % (
                p["document_frames"], p["matched"])),
            ("frames not delivered", "%d" % p["not_delivered"]),
            ("  runs of them (s since the start: frames), can0; can1",
             "%s; %s" % (p["bus0_lost_runs"], p["bus1_lost_runs"])),
            ("\"Dropped can frame!\" lines", "%d" % load["dropped_lines"]),
            ("player deliveries dropped (reader not reading for 1 s)",
             "%d" % load["player_drops"]),
            ("datagrams lost by the listener's socket", "%d" % p["listener_overflows"]),
            ("latency bus to datagram, median / p90 / p99 / p99.9 / max", " / ".join(
                "%.0f µs" % p["latency_%s_us" % k] for k in ("p50", "p90", "p99", "p999",
                                                               "max"))),
            ("CPU of tavro-all per 1,000 frames (all threads)",
             "%.1f ms" % (1e6 * total_cpu / max(frames, 1))),
        ]
        per_frame = 1e6 / max(frames, 1)
        for name, (user, system, waits, preempted) in sorted(
                load["threads"].items(), key=lambda t: -t[1][0] - t[1][1]):
            if user + system > 0:
                rows.append(("  of it thread \"%s\": user + system; sleeps, preemptions per "
                             "1,000 frames" % name,
                             "%.1f ms (%.1f + %.1f; %.1f %% of a CPU); %.0f, %.0f" % (
                                 (user + system) * per_frame, user * per_frame,
                                 system * per_frame, 100 * (user + system) / load["seconds"],
                                 waits * per_frame / 1000, preempted * per_frame / 1000)))
        elapsed = load["seconds"]
        rows.append(("CPU of the programs of the run (% of one CPU)", ", ".join(
            "%s %.0f" % (name, 100 * seconds / elapsed)
            for name, seconds in sorted(load["programs"].items(), key=lambda t: -t[1])
            if seconds >= 0.01 * elapsed)))
        for http, when in zip(load["http"], (
                "during the CAN load, %s" % ("each connection waiting %d ms after an answer"
                                             % args.http_wait if args.http_wait else "full speed"),
                "after it, full speed for %d s" % args.http_seconds)):
            if http is None:
                continue
            rate, latency, errors = http
            rows.append(("PGNGet through nginx %s: requests/s; latency p50 / p90 / p99" % when,
                         "%.0f; %s" % (rate, " / ".join("%.2f ms" % latency.get(k, -1)
                                                        for k in ("50", "90", "99")))))
            if errors:
                rows.append(("  HTTP errors", "; ".join(errors)))
        rows.append(("peak resident memory (VmHWM), resident at the end", "%d kB, %d kB" % (
            load["peak_kb"], load["rss_kb"])))
        rows.append(("exit status after SIGINT; sanitizer reports", "%d; %s" % (
            load["status"], "; ".join(sorted(set(load["reports"]))) or "none")))
        for name, value in rows:
            print("| %s | %s |" % (name, value))
    if callgrind:
        per_frame, functions, count = callgrind
        print()
        shown = {name: "%.0f" % value if value else "?" for name, value in functions.items()}
        print("callgrind, bench/frame_cost, %d frames of the mix, immediate mode: %.0f "
              "instructions per frame (reader's dispatch: decoders and queue %s; FMStoIP worker "
              "%s, of it the document %s)" % (count, per_frame, shown["dispatch"],
                                               shown["worker"], shown["document"]))


def compare_churn(args, build):
    """Rounds of runs without HTTP, with PGNGet and with PGNReq/PGNRem at --churn-rate during
    the CAN load: the bus-to-datagram latency of each, side by side."""
    args.http_seconds = 0
    # PGNGet at the same pace tells the cost of the HTTP path itself on a 2-CPU machine.
    runs = {"none": [], "get-churn-rate": [], "churn": []}
    names = {"none": "nothing", "get-churn-rate": "PGNGet through nginx",
             "churn": "PGNReq/PGNRem through nginx"}
    for _ in range(args.compare_churn):
        for http in runs:
            runs[http].append(load_run(args, build, http))
    print("tavro-all, immediate mode, %d s at %d frames/s on each of can0 and can1, %d rounds; "
          "latency bus to datagram:" % (args.seconds, args.rate, args.compare_churn))
    print()
    print("| during the CAN load | requests per s | median µs | p90 µs | p99 µs | "
          "frames not delivered |")
    print("|---|---|---|---|---|---|")
    p99 = {}
    for http, results in runs.items():
        for result in results:
            p = result["probe"]
            rate = result["http"][0][0] if result["http"][0] else 0
            print("| %s | %.0f | %.0f | %.0f | %.0f | %d |" % (
                names[http], rate,
                p["latency_p50_us"], p["latency_p90_us"], p["latency_p99_us"],
                p["not_delivered"]))
        p99[http] = statistics.median(r["probe"]["latency_p99_us"] for r in results)
    print()
    print("median p99 with PGNReq/PGNRem / without requests: %.2f; / with PGNGet: %.2f"
          % (p99["churn"] / p99["none"], p99["churn"] / p99["get-churn-rate"]))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=20)
    parser.add_argument("--rate", type=int, default=19000, help="frames/s on each bus")
    parser.add_argument("--connections", type=int, default=4, help="wrk connections")
    parser.add_argument("--http-wait", type=int, default=4,
                        help="ms each wrk connection waits after an answer during the CAN load "
                        "(0: none, as fast as it goes)")
    parser.add_argument("--http-seconds", type=int, default=5,
                        help="PGNGet as fast as they go, after the CAN load")
    parser.add_argument("--period-ms", type=int, default=0)
    parser.add_argument("--bus-queue", type=int, default=500,
                        help="frames a daemon's bus socket holds (net.unix.max_dgram_qlen); "
                        "about what a SocketCAN reader's socket holds")
    parser.add_argument("--churn-rate", type=int, default=1000,
                        help="PGNReq/PGNRem a second through nginx in --compare-churn")
    parser.add_argument("--compare-churn", type=int, default=0, metavar="ROUNDS",
                        help="only the latency without HTTP and with --churn-rate "
                        "PGNReq/PGNRem a second, side by side, in so many rounds")
    parser.add_argument("--callgrind-frames", type=int, default=20000)
    parser.add_argument("--no-callgrind", action="store_true")
    parser.add_argument("--only-callgrind", action="store_true")
    args = parser.parse_args()
    build = os.environ.get("TAVRO_BUILD_DIR", os.path.join(SOURCE, "build", "plain"))
    os.environ.setdefault("TAVRO_BUILD_DIR", build)
    os.environ.setdefault("TAVRO_BIN_DIR", build)
    if args.compare_churn:
        compare_churn(args, build)
        return
    load = None if args.only_callgrind else load_run(args, build)
    callgrind = None if args.no_callgrind else callgrind_run(args, build)
    report(args, load, callgrind)
    if load and (load["probe"]["not_delivered"] or load["dropped_lines"] or load["reports"]):
        sys.exit(1)


if __name__ == "__main__":
    if os.getpid() != 1:
        os.execv(os.path.join(SYSTEM, "sandboxed"),
                 [os.path.join(SYSTEM, "sandboxed"), sys.executable] + sys.argv)
    main()
