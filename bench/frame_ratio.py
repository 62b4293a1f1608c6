#!/usr/bin/python3
"""CPU per frame of tavro-fmstoip beside the least that reading the bus costs, in one run.

    bench/frame_ratio.py [--rate 20000] [--seconds 10] [--repeat 1] [--log CANDUMP]
                         [--callgrind-frames 20000] [--no-callgrind]

In a throw-away namespace (scripts/sandbox/sandboxed) one virtual CAN bus is played by
tavro-canplayer at RATE frames/s for SECONDS, and four programs read it at the same time, each
frame arriving at each of them:

- bench/bare_reader: recvmsg with SO_TIMESTAMP, nothing else;
- bench/bare_reader PORT: the same, and one sendto of a 600-byte datagram per frame;
- tavro-fmstoip with no PGN requested;
- tavro-fmstoip with every PGN of the log requested, immediate mode (a datagram per frame).

The datagrams go to 127.0.0.1, to sockets that are never read. CPU is the time on a CPU of all
threads of each process (/proc/PID/task/*/schedstat) while the player runs. The log is the city
bus mix of load_bench.py unless --log names a candump file; the mapping is the shared J1939
file (tests/data/fms_mapping.json without it). Then callgrind counts bench/frame_cost's
instructions per frame, unrequested and delivered (difference of two frame counts, so start-up
and the mapping's loading drop out). With --repeat the side-by-side run is done that many
times, each reported, then the median of each ratio. Needs the plain build with its bench programs
(TAVRO_BUILD_DIR, default build/plain) and valgrind.
"""

import argparse
import os
import re
import socket
import subprocess
import sys
import tempfile
import shutil
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
SYSTEM = os.path.join(SOURCE, "scripts", "sandbox")
sys.path.insert(0, SYSTEM)
sys.path.insert(0, HERE)

import load_bench  # noqa: E402  (the mix and its log)

COUNTER_DIR = "/var/lib/tavro"


def on_cpu_ns(pid):
    """{thread name: ns on a CPU} of the process's threads."""
    threads = {}
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/schedstat" % (pid, tid)) as f:
                spent = int(f.read().split()[0])
            with open("/proc/%d/task/%s/comm" % (pid, tid)) as f:
                name = f.read().strip()
        except OSError:
            continue
        threads[name] = threads.get(name, 0) + spent
    return threads


def pgns_of(log):
    pgns = set()
    with open(log) as f:
        for line in f:
            words = line.split()
            if len(words) >= 3 and "#" in words[2]:
                pgns.add("%04X" % ((int(words[2].split("#")[0], 16) >> 8) & 0xFFFF))
    return sorted(pgns)


def sink():
    """A UDP socket on 127.0.0.1 that nobody reads, and its port."""
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind(("127.0.0.1", 0))
    return s, s.getsockname()[1]


def load_run(args, build, mapping):
    from canbus_peer import PLAYER, CanBus
    from sandbox import Process, Sandbox

    sandbox = Sandbox(tempfile.mkdtemp(prefix="frame-ratio-"))
    sinks = []
    try:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        bus = CanBus(sandbox)
        directory = bus.add("can0")
        log = args.log
        if log is None:
            log = sandbox.path("mix.log")
            load_bench.write_log(log, "can0", 0, len(load_bench.one_second()))
        with open(log) as f:
            per_play = sum(1 for line in f if "#" in line)
        loops = max(1, args.rate * args.seconds // per_play)
        # Every reader's socket holds what a turn away from the CPU brings: nobody loses a frame
        # and the player never waits.
        with open("/proc/sys/net/unix/max_dgram_qlen", "w") as f:
            f.write("100000")

        def readers():
            return {n for n in os.listdir(directory) if n.startswith("tavro-")}

        programs = {}
        bare = sandbox.spawn([os.path.join(build, "bench", "bare_reader"), directory],
                             name="bare")
        bare.wait_for("^ready$", stream="stdout")
        programs["bare receiver"] = bare
        s, port = sink()
        sinks.append(s)
        forward = sandbox.spawn([os.path.join(build, "bench", "bare_reader"), directory,
                                 str(port)], name="forward")
        forward.wait_for("^ready$", stream="stdout")
        programs["bare receive-and-send"] = forward

        sandbox.mount_tmpfs(COUNTER_DIR)
        for name, requested in (("tavro-fmstoip, no PGN requested", []),
                                ("tavro-fmstoip, every PGN requested", pgns_of(log))):
            s, port = sink()
            sinks.append(s)
            counter = os.path.join(COUNTER_DIR, "counts-%d" % len(programs))
            with open(counter, "w") as f:
                f.write("".join("%s=1\n" % p for p in requested))
            sandbox.write_conf("fmstoip.conf", load_bench.conf(
                "fmstoip.conf", multicast_addr="127.0.0.1", service_port="+%d" % port,
                network_interface="lo", multicast_ttl=0, pgn_counter_file=counter,
                mapping_file=mapping, can_interface="can0", period_ms=0))
            known = readers()
            daemon = sandbox.tavro("fmstoip", env=bus.env)
            deadline = time.monotonic() + 20
            while readers() == known:
                if time.monotonic() > deadline or not daemon.running():
                    raise RuntimeError("no CAN reader:\n" + daemon.stderr)
                time.sleep(0.05)
            programs[name] = daemon

        time.sleep(1)
        before = {name: on_cpu_ns(p.pid) for name, p in programs.items()}
        player = Process([PLAYER, "-r", str(args.rate), "-l", str(loops), log],
                         env=dict(os.environ, **bus.env), name="player")
        sandbox.processes.append(player)
        player.wait(timeout=args.seconds * 5 + 60)
        time.sleep(0.5)
        after = {name: on_cpu_ns(p.pid) for name, p in programs.items()}
        sent = int(re.search(r"Sent (\d+) frames", player.stdout).group(1))
        counts = {}
        for name in ("bare receiver", "bare receive-and-send"):
            programs[name].interrupt()
            programs[name].wait(timeout=10)
            counts[name] = int(re.search(r"frames=(\d+)", programs[name].stdout).group(1))
        dropped = 0
        for name, p in programs.items():
            if name.startswith("tavro"):
                p.interrupt()
                p.wait(timeout=20)
                dropped += len(re.findall(r"Dropped can frame!", p.stderr))
        cpu = {name: {thread: (spent - before[name].get(thread, 0)) / 1000.0 / sent
                      for thread, spent in after[name].items()} for name in programs}
        return cpu, sent, counts, dropped, os.path.basename(log)
    finally:
        for s in sinks:
            s.close()
        sandbox.close()
        shutil.rmtree(sandbox.work, ignore_errors=True)


def callgrind_run(args, build, mapping):
    """Instructions per frame of bench/frame_cost, unrequested and delivered."""
    work = tempfile.mkdtemp(prefix="frame-ratio-cg-")
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    try:
        log = args.log
        if log is None:
            log = os.path.join(work, "mix.log")
            load_bench.write_log(log, "can0", 0, len(load_bench.one_second()))
        result = {}
        for mode in ("--unrequested", None):
            totals = {}
            for count in (args.callgrind_frames // 5, args.callgrind_frames):
                out = os.path.join(work, "callgrind.out")
                command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out,
                           os.path.join(build, "bench", "frame_cost")]
                command += [mode] if mode else []
                res = subprocess.run(command + [log, str(count), mapping], capture_output=True,
                                     text=True)
                if res.returncode != 0:
                    raise RuntimeError("frame_cost under callgrind failed:\n" + res.stderr)
                totals[count] = int(re.search(r"Collected : (\d+)", res.stderr).group(1))
            small, large = sorted(totals)
            result["unrequested" if mode else "delivered"] = (
                (totals[large] - totals[small]) / (large - small))
        return result
    finally:
        shutil.rmtree(work, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rate", type=int, default=20000, help="frames/s on the bus")
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--repeat", type=int, default=1, help="side-by-side runs")
    parser.add_argument("--log", help="candump log to play (default: the city bus mix)")
    parser.add_argument("--callgrind-frames", type=int, default=20000)
    parser.add_argument("--no-callgrind", action="store_true")
    args = parser.parse_args()
    build = os.environ.get("TAVRO_BUILD_DIR", os.path.join(SOURCE, "build", "plain"))
    os.environ.setdefault("TAVRO_BUILD_DIR", build)
    os.environ.setdefault("TAVRO_BIN_DIR", build)
    if args.log:
        args.log = os.path.abspath(args.log)
    mapping = load_bench.SHARED_MAPPING
    if not os.path.exists(mapping):
        mapping = load_bench.TEST_MAPPING

    bases = {"bare receiver": None, "bare receive-and-send": None,
             "tavro-fmstoip, no PGN requested": "bare receiver",
             "tavro-fmstoip, every PGN requested": "bare receive-and-send"}
    ratios = {name: [] for name, base in bases.items() if base}
    for _ in range(args.repeat):
        load = open("/proc/loadavg").read().split()[0]
        cpu, sent, counts, dropped, log = load_run(args, build, mapping)
        print("%d frames of %s at %d frames/s, mapping %s; 1-min load %s before the run" % (
            sent, log, args.rate, os.path.basename(mapping), load))
        print()
        print("| program | CPU per frame | ratio |")
        print("|---|---|---|")
        total = {name: sum(threads.values()) for name, threads in cpu.items()}
        for name, base in bases.items():
            if base:
                ratios[name].append(total[name] / total[base])
            print("| %s | %.2f µs | %s |" % (name, total[name], "%.2f x the %s" % (
                total[name] / total[base], base) if base else "-"))
        for name in bases:
            if name.startswith("tavro"):
                print("| of it, %s | %s | |" % (name.split(", ")[1], ", ".join(
                    "%s %.2f µs" % (thread, spent) for thread, spent in sorted(
                        cpu[name].items(), key=lambda t: -t[1]) if spent >= 0.01)))
        print()
        print("frames read by the bare programs: %s; \"Dropped can frame!\" lines: %d" % (
            ", ".join("%d" % c for c in counts.values()), dropped))
        print()
    if args.repeat > 1:
        for name, values in ratios.items():
            print("%s: median %.2f x the %s (runs: %s)" % (
                name, sorted(values)[len(values) // 2], bases[name],
                ", ".join("%.2f" % v for v in values)))
    if not args.no_callgrind:
        instructions = callgrind_run(args, build, mapping)
        print("callgrind, bench/frame_cost, %d frames: %.0f instructions per unrequested "
              "frame, %.0f per delivered frame" % (args.callgrind_frames,
                                                  instructions["unrequested"],
                                                  instructions["delivered"]))


if __name__ == "__main__":
    if os.getpid() != 1:
        os.execv(os.path.join(SYSTEM, "sandboxed"),
                 [os.path.join(SYSTEM, "sandboxed"), sys.executable] + sys.argv)
    main()
