import os
import re
import sys

import pytest

# The sandbox and its real peers are shared with the demo and the benches.
sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "scripts", "sandbox"))

from avahi_peer import AvahiPeer
from sandbox import EMULATOR, Sandbox


def pytest_configure(config):
    config.addinivalue_line("markers", "emulated: runs in a cross build too, under its emulator")


def pytest_collection_modifyitems(config, items):
    # The emulator lacks IP_MULTICAST_IF, and most cases would only repeat the host build's run.
    if EMULATOR:
        skipped = [item for item in items if not item.get_closest_marker("emulated")]
        config.hook.pytest_deselected(items=skipped)
        items[:] = [item for item in items if item.get_closest_marker("emulated")]

# What the sanitizer builds print; a daemon that ends with SIGKILL would show no exit status.
SANITIZER_REPORT = re.compile(
    r"^(WARNING: ThreadSanitizer|==\d+==ERROR: (Address|Leak)Sanitizer|.*: runtime error: )", re.M)


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
    """A system bus and a running avahi-daemon on veth v0 of the sandbox."""
    return AvahiPeer(sandbox)
