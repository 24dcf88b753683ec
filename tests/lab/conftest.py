# SPDX-License-Identifier: MIT
"""Runs the tests side by side, each in labs of its own, since almost all they do is wait for the network.

A test takes place on the `stage` that it is given. Where several tests look at one and the same course of events,
they are marked `story(play)` and are given what `play(stage)` returned, as `story`.
"""

import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from labkit import labs, paths
from labkit.labs import Labs
from labkit.stage import Stage

SIDE_BY_SIDE = 5
HERE = Path(__file__).parent


def pytest_configure(config):
    config.addinivalue_line("markers", "story(play): the test looks at what play(stage) returned")


def pytest_collection_modifyitems(items):
    own_items = [item for item in items if HERE in item.path.parents]
    reason = labs.reason_against_labs() if own_items else ""
    for item in own_items:
        if reason:
            item.add_marker(pytest.mark.skip(reason=reason))
    if own_items and not reason and paths.missing_programs():
        pytest.exit("\n".join(paths.missing_programs()), returncode=2)


@pytest.fixture(scope="session", autouse=True)
def background(request):
    """Runs all selected tests and stories; at the end nothing of any lab may be left."""
    items = [item for item in request.session.items if HERE in item.path.parents and not _is_skipped(item)]
    all_labs = Labs()
    runs = {}
    with ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        # The stories first, as they take longest.
        for item in sorted(items, key=lambda item: item.get_closest_marker("story") is None):
            key, act = _run_of(item)
            if key not in runs:
                runs[key] = pool.submit(_on_stage, all_labs, act)
        yield runs
        pool.shutdown(cancel_futures=True)
    assert all_labs.what_is_left() == []


@pytest.fixture
def stage():
    """Stands for the stage on which the test takes place in the background."""


@pytest.fixture
def story(request, background):
    return background[_run_of(request.node)[0]].result()


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem):
    if pyfuncitem.get_closest_marker("story"):
        return None
    pyfuncitem.funcargs["background"][_run_of(pyfuncitem)[0]].result()
    return True


def _is_skipped(item):
    conditions = [marker.args[0] for marker in item.iter_markers("skipif")]
    return any(conditions) or item.get_closest_marker("skip") is not None


def _run_of(item):
    """What identifies a run in the background, and the function of a stage that it is."""
    marker = item.get_closest_marker("story")
    if marker:
        [play] = marker.args
        return play, play
    parameters = item.callspec.params if hasattr(item, "callspec") else {}
    return item.nodeid, lambda stage: item.function(stage=stage, **parameters)


def _on_stage(all_labs, act):
    with Stage(all_labs) as stage:
        return act(stage)
