"""What the tests share."""

import os
import pathlib
import random

import machine as sandbox
import pytest
import tools


@pytest.fixture
def machine(request):
    """A machine with the launcher installed in alice's Applications, or in the folder that the
    test's mark names. What the launchers wrote is shown when the test fails."""
    random.seed(os.environ["SEED"] + request.node.name)
    folder = request.node.get_closest_marker("folder")
    with sandbox.Machine(*folder.args if folder else ()) as made:
        tools.install()
        yield made
    for trace in sorted(pathlib.Path("/tmp").glob("trace*")):
        print(f"{trace}:\n{trace.read_text(errors='replace')[-3000:]}")


def pytest_report_header():
    return f"SEED={os.environ.get('SEED')}"


def pytest_collection_modifyitems(items):
    for item in items:
        if "KR" in item.nodeid:
            raise pytest.UsageError(f'pkill -f "KR" would end the test {item.nodeid}')
