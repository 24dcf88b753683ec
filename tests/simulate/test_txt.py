# SPDX-License-Identifier: MIT
"""TXT records as bytes on the wire."""

import pytest

from vdsimulate import txt
from vdsimulate.requests import RequestError


@pytest.mark.parametrize("strings, record", [
    ([], b"\0"),
    ([b""], b"\0"),
    ([b"a=1"], b"\x03a=1"),
    ([b"a=1", b"", b"b"], b"\x03a=1\x00\x01b"),
    ([b"x" * 255], b"\xFF" + b"x" * 255),
])
def test_a_record_is_its_strings_each_behind_its_length(strings, record):
    assert txt.record_of(strings) == record


@pytest.mark.parametrize("record, strings", [
    (b"", []),
    (b"\0", [b""]),
    (b"\x03a=1\x00\x01b", [b"a=1", b"", b"b"]),
    (b"\x03a=1\x09tail", [b"a=1", b"tail"]),
    (b"\xFF", [b""]),
])
def test_what_a_length_promises_too_much_is_left_out(record, strings):
    assert txt.strings_of(record) == strings


@pytest.mark.parametrize("record, is_whole", [
    (b"\0", True), (b"\x03a=1", True), (b"", False), (b"\x03a=", False), (b"\x03a=1\x01", False)])
def test_a_record_is_whole_when_its_lengths_are_right(record, is_whole):
    assert txt.is_whole(record) == is_whole


def test_of_two_strings_with_a_key_the_first_is_found_in_any_case():
    assert txt.find([b"x=1", b"Key=1", b"KEY=2"], "kEy") == 1


def test_a_key_is_found_without_a_value_and_not_as_part_of_another():
    assert (txt.find([b"keys=1", b"key"], "key"), txt.find([b"keys=1"], "key")) == (1, None)


@pytest.mark.parametrize("string, value", [(b"k=v", b"v"), (b"k=a=b", b"a=b"), (b"k=", b""), (b"k", None)])
def test_a_value_is_all_behind_the_first_equals_sign(string, value):
    assert txt.value_of(string) == value


def test_a_string_takes_the_place_of_the_first_with_its_key():
    assert txt.with_string([b"a=1", b"B=2", b"b=3"], "b", b"b=4") == [b"a=1", b"b=4", b"b=3"]


def test_a_string_with_a_new_key_comes_last():
    assert txt.with_string([b"a=1"], "b", b"b=2") == [b"a=1", b"b=2"]


def test_entries_of_all_forms_become_strings():
    entries = [{"key": "a", "text": "ä"}, {"key": "b", "value": "AMH/"}, {"key": "c"}, {"raw": "PQ=="}]
    assert txt.decode_entries(entries) == [b"a=\xC3\xA4", b"b=\x00\xC1\xFF", b"c", b"="]


@pytest.mark.parametrize("entries", [
    None, {}, [1], [{}], [{"key": "a", "raw": ""}], [{"key": 1}], [{"key": "a", "text": 1}],
    [{"key": "a", "value": "!"}], [{"key": "a", "value": 1}], [{"raw": "é"}]])
def test_entries_of_other_forms_are_refused(entries):
    with pytest.raises(RequestError):
        txt.decode_entries(entries)


def test_a_string_of_255_bytes_is_taken_and_one_of_256_refused():
    assert txt.decode_entries([{"key": "k", "text": "x" * 253}]) == [b"k=" + b"x" * 253]
    with pytest.raises(RequestError, match="^a TXT string has at most 255 bytes, not 256$"):
        txt.decode_entries([{"key": "k", "text": "x" * 254}])


def test_a_record_is_described_by_entries_of_the_forms_that_are_taken():
    described = txt.described(b"\x04a=\xC3\xA4\x03b=\xFF\x01c\x02=d\x00\x04e=\x1B[")
    assert described == {"txt": [{"key": "a", "text": "ä"}, {"key": "b", "value": "/w=="}, {"key": "c"},
                                 {"raw": "PWQ="}, {"raw": ""}, {"key": "e", "value": "G1s="}]}


def test_a_record_with_wrong_lengths_is_described_by_its_bytes_too():
    assert txt.described(b"\x09a=1") == {"txt": [{"key": "a", "text": "1"}], "record": "CWE9MQ=="}
