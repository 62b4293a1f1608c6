import pytest

from avahi_peer import AvahiPeer
from sandbox import Sandbox


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
