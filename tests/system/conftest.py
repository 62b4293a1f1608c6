import pytest

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


@pytest.fixture
def sandbox(tmp_path):
    sb = Sandbox(tmp_path)
    try:
        yield sb
    finally:
        sb.close()


@pytest.fixture
def avahi(sandbox):
    """A system bus and a running avahi-daemon on veth v0 of the sandbox."""
    return AvahiPeer(sandbox)
