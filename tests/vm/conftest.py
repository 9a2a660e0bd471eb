"""Tests in this directory run inside the test VM (tests/vm/run-tier); elsewhere they skip."""
import os

import pytest

from vmnet import Net


def pytest_configure(config):
    config.addinivalue_line("markers", "vm: runs inside the test VM on Debian's kernel")


def pytest_collection_modifyitems(config, items):
    if os.environ.get("RAVEL_VM") == "1":
        return
    skip = pytest.mark.skip(reason="runs only inside the test VM: tests/vm/run-tier")
    for item in items:
        if "vm" in item.keywords:
            item.add_marker(skip)


@pytest.fixture
def net():
    n = Net()
    yield n
    n.close()
