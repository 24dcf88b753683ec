# SPDX-License-Identifier: MIT
"""The protections that the compiler and the linker have built into the release."""

import os
import re
import shlex

import pytest

from buildkit import succeed
from release import RELEASE, REMEDY, commands_of

LIBRARY = RELEASE / "src" / "libvddiscovery.so"
PROGRAM = RELEASE / "tools" / "vd-discover" / "vd-discover"
only_on_x86 = pytest.mark.skipif(os.uname().machine != "x86_64", reason="only x86 has control-flow enforcement")
BOTH = pytest.mark.parametrize("file", [LIBRARY, PROGRAM], ids=lambda file: file.name)


@pytest.fixture(scope="module", autouse=True)
def built():
    missing = [str(path) for path in (LIBRARY, PROGRAM) if not path.exists()]
    assert not missing, f"missing: {missing}. {REMEDY}"


@pytest.fixture(scope="module")
def imports():
    return set(succeed("nm", "-DC", "--undefined-only", "--without-symbol-versions", LIBRARY).split("\n"))


def segments(file):
    """Type and flags of each segment."""
    return re.findall(r"^ +(\w+) +(?:0x\w+ +){5}([RWE ]{3})", succeed("readelf", "-lW", file), re.MULTILINE)


def flags_of_segments(file, wanted):
    return [flags for kind, flags in segments(file) if kind == wanted]


def dynamic_section(file):
    return succeed("readelf", "-dW", file)


def imports_called(expression, symbols):
    return [symbol for symbol in symbols if re.fullmatch(r" *U " + expression, symbol)]


def compiler_of(entry):
    """The compiler with the options of a source of the release."""
    words = shlex.split(entry["command"])
    return words[:words.index("-o")]


def macros_of(entry):
    """The macros a source of the release is compiled with."""
    command = [*compiler_of(entry), "-dM", "-E", "-x", "c++", "/dev/null"]
    return dict(re.findall(r"^#define (\w+) (.*)$", succeed(*command), re.MULTILINE))


@pytest.fixture(scope="module")
def entries():
    return commands_of("src", "tools").values()


@BOTH
def test_what_the_dynamic_linker_writes_is_made_read_only(file):
    assert flags_of_segments(file, "GNU_RELRO") == ["R  "]


@BOTH
def test_every_symbol_is_bound_before_the_first_line_runs(file):
    assert "BIND_NOW" in re.findall(r"\(FLAGS\) +(.*)", dynamic_section(file))[0].split()


@BOTH
def test_the_stack_is_not_executable(file):
    assert flags_of_segments(file, "GNU_STACK") == ["RW "]


@BOTH
def test_no_segment_is_both_writable_and_executable(file):
    assert [kind for kind, flags in segments(file) if "W" in flags and "E" in flags] == []


@BOTH
def test_no_program_text_is_relocated(file):
    assert "TEXTREL" not in dynamic_section(file)


def test_the_library_is_looked_for_nowhere_but_where_the_system_says():
    assert re.findall(r"\((?:RPATH|RUNPATH)\).*", dynamic_section(LIBRARY)) == []


def test_the_program_is_loaded_at_any_address():
    assert "(Position-Independent Executable file)" in succeed("readelf", "-hW", PROGRAM)


@only_on_x86
def test_the_library_is_marked_for_shadow_stacks_and_branch_targets():
    assert re.findall(r"x86 feature: (.*)", succeed("readelf", "-nW", LIBRARY)) == ["IBT, SHSTK"]


@only_on_x86
def test_every_function_that_hosts_call_begins_with_a_branch_target():
    exported = re.findall(r"^([0-9a-f]{16}) [TW] (\w+)$", succeed("nm", "-D", "--defined-only", LIBRARY), re.MULTILINE)
    code = succeed("objdump", "-d", "--no-show-raw-insn", LIBRARY)
    first = dict(re.findall(r"^([0-9a-f]{16}) <.*>:\n +[0-9a-f]+:\t(\w+)", code, re.MULTILINE))
    assert exported
    assert [name for address, name in exported if first[address] != "endbr64"] == []


@only_on_x86
def test_what_the_dynamic_linker_calls_begins_with_a_branch_target():
    assert re.findall(r"\((?:INIT|FINI)\)", dynamic_section(LIBRARY)) == []


def test_a_smashed_stack_ends_the_host(imports):
    assert imports_called("__stack_chk_fail", imports)


def test_an_index_out_of_bounds_ends_the_host(imports):
    assert imports_called(r"std::__glibcxx_assert_fail\(.*", imports)


def test_the_c_library_checks_the_sizes_of_buffers(entries, tmp_path):
    # The library itself copies into no buffer of a fixed size.
    source, binary = tmp_path / "copy.cpp", tmp_path / "copy.o"
    source.write_text("#include <cstring>\nchar buffer[8];\nvoid f(const char* text) { std::strcpy(buffer, text); }\n")
    succeed(*compiler_of(next(iter(entries))), "-o", binary, "-c", source)
    assert "__strcpy_chk" in succeed("nm", "--undefined-only", binary)


def test_every_source_is_compiled_with_the_checks_of_the_c_and_the_cxx_library(entries):
    unchecked = {entry["file"]: found for entry in entries for found in [macros_of(entry)]
                 if (found.get("_FORTIFY_SOURCE"), found.get("_GLIBCXX_ASSERTIONS")) != ("3", "1")
                 or "__OPTIMIZE__" not in found}

    assert sorted(unchecked) == []


def compiled_without(entries, *options):
    return [entry["file"] for entry in entries if not {*options} <= {*shlex.split(entry["command"])}]


def test_every_source_is_compiled_with_guarded_stacks(entries):
    assert compiled_without(entries, "-fstack-protector-strong", "-fstack-clash-protection") == []


@only_on_x86
def test_every_source_is_compiled_with_checked_returns_and_branches(entries):
    assert compiled_without(entries, "-fcf-protection=full") == []
