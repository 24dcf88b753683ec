# SPDX-License-Identifier: MIT
"""Devices whose names and TXT records try to forge output or to take over the terminal."""

import json
import re
import signal

from labkit.records import Device
from labkit.terminal import LOG_LINE, whole_lines

# Each begins what would be a line of its own, if a line break or a carriage return got through.
FORGED_ROW = "FORGED               Vandrel camera       10.0.0.1  80"
FORGED_EVENT = '{"event":"lost","time":"2026-01-01T00:00:00.000Z","service":{"serviceName":"FORGED"}}'
FORGED_LOG = "2026-01-01T00:00:00.000Z [1] FORGED"
FORGED_ERROR = "vd-discover: FORGED"

TEXTS = [
    f"line feed\n{FORGED_ROW}\n",
    f"carriage return\r{FORGED_ROW}\r",
    f"line feed\n{FORGED_EVENT}\n",
    f'quotes"}}}}\r\n{FORGED_EVENT}',
    f"line feed\n{FORGED_LOG}",
    f"vertical tab and form feed\v{FORGED_ERROR}\f{FORGED_ERROR}",
    "escape \x1b[2J\x1b[1;1H\x1b]0;title\x07\x1b[31m",
    "C1 as UTF-8 \u009b31m\u0085next line\u009d0;title\u009c",
    "backspaces \b\b\b\b\x7f\x7f\ttab",
    "bidirectional \u202egnidaer\u202c \u2066isolate\u2069 \u200fmark\u061c",
    f"separators \u2028{FORGED_ROW}\u2029{FORGED_ROW}",
    "invisible \ufeff\u00ad\u200b\u2060\U000e0041",
]
RAW_TEXTS = [b"C1 as bytes \x9b31m\x85", b"not UTF-8 \xff\xfe"]

NAMES = [
    "Dock \u202eybbol\u202c",
    f"Attic \u2028{FORGED_LOG}",
    "Cellar\u2066 \u200b\ufeff\u00ad",
    "C1 \u009b31m \u0085next line",
    'Quotes", \\x41 \\ "event":"lost"',
]


def hostile_devices():
    texts = [*(text.encode() for text in TEXTS), *RAW_TEXTS]
    return [*(_camera(f"Camera {number}", number, text) for number, text in enumerate(texts, 1)),
            *(_camera(name, number, b"a name") for number, name in enumerate(NAMES, len(texts) + 1))]


def _camera(name, number, text):
    txt = [key + b".vandrel.com=" + text for key in (b"full_name", b"fs_vers", b"error", b"userdata_owner")]
    return Device(name, f"camera-{number}-\u202e\\", [f"10.77.0.{100 + number}"],
                  [*txt, b"ser_no.vandrel.com=" + text[-3:]])


def run(stage, *options):
    """What vd-discover writes of the hostile devices, as lines; the log must already be in order."""
    lab = stage.lab()
    devices = hostile_devices()
    stage.publisher(lab).publish(*devices)
    # The log of the plain class has a line for each device.
    running = stage.discover(lab, "--plain", "--verbose", *options)
    told = re.compile(rb"ServiceResolve\(\) -> CHECKSUM ")
    assert running.errors.wait_for(lambda lines: sum(bool(told.search(line)) for line in lines) == len(devices))
    status, output, errors, _ = running.interrupt(signal.SIGINT)
    assert status == 0
    assert not [line for line in whole_lines(errors) if not LOG_LINE.match(line)]
    return devices, whole_lines(output)


def test_the_table_has_a_row_for_each_device_and_none_that_is_forged(stage):
    devices, lines = run(stage, "--timeout", "60")
    assert len(lines) == 1 + len(devices)
    assert not [line for line in lines if line.startswith("FORGED")]
    assert all(re.search(r"  Vandrel camera  10\.77\.0\.1\d\d  80 ", line) for line in lines[1:])


def test_following_has_a_line_for_each_device_and_none_that_is_forged(stage):
    devices, lines = run(stage, "--follow")
    assert len(lines) == len(devices)
    assert all(re.match(r"\d\d:\d\d:\d\d  found    ", line) for line in lines)


def test_json_has_a_line_for_each_device_and_the_text_as_it_was(stage):
    devices, lines = run(stage, "--format", "json", "--follow")
    found = [json.loads(line) for line in lines]
    assert [line["event"] for line in found] == len(devices) * ["found"]
    told = {line["service"]["serviceName"]: line["service"] for line in found}
    assert sorted(told) == sorted(device.name for device in devices)
    texts = [*TEXTS, *(text.decode(errors="replace") for text in RAW_TEXTS)]
    for number, text in enumerate(texts, 1):
        service = told[f"Camera {number}"]
        read = [service[member] for member in ("modelName", "softwareVersion", "errorText", "userdataOwner")]
        assert read == 4 * [text]
        # Avahi writes a host name with all but letters, digits and hyphens as decimal numbers.
        assert service["hostName"] == rf"camera-{number}-\226\128\174\\.local"
