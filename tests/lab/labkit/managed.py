# SPDX-License-Identifier: MIT
"""The probe with managed discovery, and the states it tells."""

UNAVAILABLE, CONNECTING, RUNNING = 0, 1, 2


def managed(stage, options=(), lab_options=None):
    lab = stage.lab(lab_options) if lab_options else stage.lab()
    return lab, stage.probe(lab, "--managed", *options), stage.publisher(lab)


def states(probe):
    return [line["state"] for line in probe.said.all if line["event"] == "state"]


def wait_for_state(probe, state):
    return probe.said.wait_for(lambda lines: states(probe)[-1:] == [state])


def found(probe, publisher, *devices):
    publisher.publish(*devices)
    signals = probe.take_signals(len(devices))
    assert told(signals) == sorted(("serviceFound", device.name) for device in devices)


def told(signals):
    """Which signals told of which devices, in no certain order."""
    return sorted((name, dict(record)["serviceName"]) for name, record in signals)
