import os
import re
import sys

import pytest

# The sandbox and its real peers, and the demo's vehicle, are shared with the demo and benches.
for folder in (("scripts", "sandbox"), ("demo",)):
    sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", *folder))

from avahi_peer import AvahiPeer
from sandbox import EMULATOR, Sandbox

# What the sanitizer builds print; a daemon that ends with SIGKILL would show no exit status.
SANITIZER_REPORT = re.compile(
    r"^(WARNING: ThreadSanitizer|==\d+==ERROR: (Address|Leak)Sanitizer|.*: runtime error: )", re.M)


def pytest_configure(config):
    config.addinivalue_line("markers", "emulated: runs in a cross build too, under its emulator")


def pytest_runtest_setup(item):
    # The emulator lacks IP_MULTICAST_IF, and most cases would only repeat the host build's run.
    if EMULATOR and not item.get_closest_marker("emulated"):
        pytest.skip("not run under an emulator")


@pytest.fixture
def sandbox(tmp_path):
    sb = Sandbox(tmp_path)
    try:
        yield sb
    finally:
        sb.close()
    for proc in sb.processes:
        if SANITIZER_REPORT.search(proc.stderr):
            pytest.fail("sanitizer report of %s:\n%s" % (proc.name, proc.stderr), pytrace=False)


@pytest.fixture
def avahi(sandbox):
    return AvahiPeer(sandbox)
