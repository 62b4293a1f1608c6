"""The PGN counter file, written while the process is killed again and again with SIGKILL."""

import os
import random
import signal
import time

from canbus_peer import BUILD_DIR
from sandbox import Process

COUNTER_FILE = "/var/lib/tavro/pgn_counter"


def test_counter_file_is_never_left_torn(sandbox):
    sandbox.mount_tmpfs(os.path.dirname(COUNTER_FILE))
    pgns = ["%04X" % (0xF000 + i) for i in range(40)]
    with open(COUNTER_FILE, "w") as f:
        f.write("".join("%s=50\n" % p for p in pgns))
    conf = sandbox.write_conf("fmstoip.conf", {"pgn_counter_file": COUNTER_FILE})
    helper = os.path.join(BUILD_DIR, "tests", "helpers", "pgn_requests")
    for _ in range(40):
        proc = Process([helper, conf] + pgns, env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"))
        sandbox.processes.append(proc)
        proc.wait_for("^ready$", stream="stdout")
        time.sleep(random.uniform(0, 0.03))
        proc.send(signal.SIGKILL)
        proc.wait()
        with open(COUNTER_FILE) as f:
            content = f.read()
        entries = [line.split("=") for line in content.splitlines()]
        assert content.endswith("\n") and [e[0] for e in entries] == pgns, content
        assert all(50 <= int(e[1]) <= 100 for e in entries), content
