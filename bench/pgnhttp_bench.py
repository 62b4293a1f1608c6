#!/usr/bin/python3
"""PGNGet requests per second and latency through nginx: tavro-fmstoip against a minimal
libfcgi responder that answers the same bytes, behind the same nginx, measured in turns.

    bench/pgnhttp_bench.py [--seconds 5] [--connections 4] [--rounds 3]

Runs itself in throw-away namespaces (scripts/sandbox/sandboxed); needs the plain build with
the benchmarks (TAVRO_BUILD_DIR, default build/plain) and wrk.
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
SYSTEM = os.path.join(HERE, "..", "scripts", "sandbox")
sys.path.insert(0, SYSTEM)

FCGI_PORT, RESPONDER_PORT = 9000, 9001
BODY = "<PGNGet>FEF1</PGNGet>"
LIBFCGI_LOCATION = """        location /libfcgi/ {
            include /etc/nginx/fastcgi_params;
            fastcgi_pass 127.0.0.1:%d;
        }""" % RESPONDER_PORT


def wrk(url, script, args):
    out = subprocess.run(["wrk", "-t1", "-c%d" % args.connections, "-d%ds" % args.seconds,
                          "--latency", "-s", script, url],
                         capture_output=True, text=True, check=True).stdout
    if "Non-2xx" in out or "Socket errors" in out:
        raise RuntimeError("failed requests:\n" + out)
    scale = {"us": 0.001, "ms": 1.0, "s": 1000.0}
    latency = {p: float(v) * scale[u]
               for p, v, u in re.findall(r"^\s+(50|90|99)%\s+([\d.]+)(us|ms|s)$", out, re.M)}
    return float(re.search(r"^Requests/sec:\s+([\d.]+)", out, re.M).group(1)), latency


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=int, default=5)
    parser.add_argument("--connections", type=int, default=4)
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()

    from canbus_peer import BUILD_DIR, CanBus
    from nginx_peer import Nginx, wait_for_port
    from sandbox import Process, Sandbox
    sys.path.insert(0, os.path.join(HERE, "..", "tests", "system"))
    from test_fmstoip import CCVS, play, start

    sandbox = Sandbox(tempfile.mkdtemp(prefix="pgnhttp-bench-"))
    try:
        sandbox.veth()
        bus = CanBus(sandbox)
        sandbox.write_conf("tavro.conf", {"fcgi_port": FCGI_PORT})
        sandbox.write_conf("getpgn.conf", {"service_port": 8085,
                                           "service_path": "/fmstoip/getpgn"})
        start(sandbox, bus, counts="", args=())
        wait_for_port(FCGI_PORT)
        play(bus, CCVS)
        nginx = Nginx(sandbox, FCGI_PORT, extra=LIBFCGI_LOCATION)
        status, _, headers, document = nginx.request("POST", "/fmstoip/getpgn", BODY)
        assert status == 200, status
        answer = sandbox.path("answer")
        with open(answer, "wb") as f:
            f.write(b"Status: 200\r\nContent-Type: %s\r\n\r\n" % headers["Content-Type"].encode()
                    + document)
        sandbox.processes.append(Process([os.path.join(BUILD_DIR, "bench", "fcgi_responder"),
                                          str(RESPONDER_PORT), answer]))
        wait_for_port(RESPONDER_PORT)
        assert nginx.request("POST", "/libfcgi/getpgn", BODY)[3] == document

        script = sandbox.path("post.lua")
        with open(script, "w") as f:
            f.write('wrk.method = "POST"\nwrk.body = "%s"\n'
                    'wrk.headers["Content-Type"] = "text/xml"\n' % BODY)
        targets = {"tavro-fmstoip": "http://127.0.0.1:8085/fmstoip/getpgn",
                   "libfcgi responder": "http://127.0.0.1:8085/libfcgi/getpgn"}
        results = {name: [] for name in targets}
        for _ in range(args.rounds):
            for name, url in targets.items():
                results[name].append(wrk(url, script, args))
        print("PGNGet through nginx, %d-byte answer, %d connections, %d x %d s each, medians:"
              % (len(document), args.connections, args.rounds, args.seconds))
        print("| responder | requests/s | p50 ms | p90 ms | p99 ms |")
        print("|---|---|---|---|---|")
        for name, runs in results.items():
            median = [statistics.median(r[1][p] for r in runs) for p in ("50", "90", "99")]
            print("| %s | %.0f | %.3f | %.3f | %.3f |"
                  % ((name, statistics.median(r[0] for r in runs)) + tuple(median)))
        rates = [statistics.median(r[0] for r in runs) for runs in results.values()]
        print("ratio tavro-fmstoip / libfcgi: %.2f" % (rates[0] / rates[1]))
    finally:
        sandbox.close()
        shutil.rmtree(sandbox.work, ignore_errors=True)


if __name__ == "__main__":
    if os.getpid() != 1:
        os.execv(os.path.join(SYSTEM, "sandboxed"),
                 [os.path.join(SYSTEM, "sandboxed"), sys.executable] + sys.argv)
    main()
