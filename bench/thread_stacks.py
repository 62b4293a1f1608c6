#!/usr/bin/python3
"""How much stack each thread of a build's programs uses, sampled while its tests run.

    bench/thread_stacks.py [--seconds 120] [--build-dir build/musl] &
    (cd build/musl && ctest -L system)

Every 50 ms, for each running program of the build directory: the mapping that holds each
thread's stack pointer (/proc/PID/task/TID/syscall) and its resident size (/proc/PID/smaps).
Stack pages once touched stay resident, so the peak is the deepest the thread went, plus its
thread control block and TLS; where the kernel merged the mapping with neighbouring memory
the figure is an upper bound. Threads are named by their comm (pthread_setname_np).
"""
import argparse
import os
import re
import time


def mappings(pid):
    found = []
    with open("/proc/%s/smaps" % pid) as smaps:
        for line in smaps:
            m = re.match(r"^([0-9a-f]+)-([0-9a-f]+) ", line)
            if m:
                found.append([int(m.group(1), 16), int(m.group(2), 16), 0])
            elif line.startswith("Rss:"):
                found[-1][2] = int(line.split()[1])
    return found


def sample(build_dir, peak):
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if not os.readlink("/proc/%s/exe" % pid).startswith(build_dir + "/"):
                continue
            with open("/proc/%s/cmdline" % pid) as f:
                program = os.path.basename(f.read().split("\0")[0])
            maps = mappings(pid)
            for tid in os.listdir("/proc/%s/task" % pid):
                with open("/proc/%s/task/%s/comm" % (pid, tid)) as f:
                    name = "main" if tid == pid else f.read().strip()
                with open("/proc/%s/task/%s/syscall" % (pid, tid)) as f:
                    fields = f.read().split()
                if len(fields) < 3:
                    continue  # running, not in a system call: no stack pointer to read
                sp = int(fields[-2], 16)
                for low, high, rss in maps:
                    if low <= sp < high:
                        key = (program, name)
                        peak[key] = max(peak.get(key, (0, 0)), (rss, (high - low) // 1024))
        except (OSError, ValueError, IndexError):
            pass  # the process or thread ended meanwhile


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=120)
    parser.add_argument("--build-dir", default="build/musl")
    args = parser.parse_args()
    build_dir = os.path.realpath(args.build_dir)
    peak = {}
    end = time.monotonic() + args.seconds
    while time.monotonic() < end:
        sample(build_dir, peak)
        time.sleep(0.05)
    for (program, name), (rss, size) in sorted(peak.items()):
        print("%-20s %-16s %4d KiB resident of a %d KiB mapping" % (program, name, rss, size))


if __name__ == "__main__":
    main()
