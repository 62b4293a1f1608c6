import pytest

from sandbox import Sandbox


@pytest.fixture
def sandbox(tmp_path):
    sb = Sandbox(tmp_path)
    try:
        yield sb
    finally:
        sb.close()
