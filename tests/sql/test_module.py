"""The module as a file: what it exports and what it links to."""
import re
import subprocess

import pytest

from conftest import module_path

pytestmark = pytest.mark.unsanitized

# What others may call: the server, and modules that use the clauses' analysis and the reader of terms aggregations.
FUNCTIONS = [f"veltranepgfdw{name}" for name in ("interfacehandler", "interfacevalidator", "_text", "_jsonb")]
READER, COLLECTOR = "zq::elasticsearch::TermAggResultParserInterface", "qm::pgFdw::TermAggResultParser"
EXPORTED = {
    "Pg_magic_func", "_PG_init", "_PG_fini", *FUNCTIONS, *[f"pg_finfo_{name}" for name in FUNCTIONS],
    *[f"VeltranePgFdw3_0::Version::Get{name}() const" for name in (
        "Major", "Minor", "Release", "Revision", "Year", "Month", "DescStringMajorMinorReleaseRevisionDate")],
    *[f"VeltranePgFdw3_0::Version::GetDescStringMajorMinor{name}(bool) const" for name in (
        "", "Release", "ReleaseRevision")],
    "qm::pgFdw::analyseExprInt", "qm::pgFdw::analyseExprBool", f"{COLLECTOR}::TermAggResultParser",
    f"{COLLECTOR}::onAttributes", *[f"{READER}::{name}" for name in (
        "TermAggResultParserInterface", "~TermAggResultParserInterface", "addData", "finish",
        "onNextFieldIsAttributeValue")],
    *[f"{what} for {name}" for what in ("vtable", "typeinfo", "typeinfo name") for name in (READER, COLLECTOR)]}


def test_exports():
    table = subprocess.check_output(["nm", "-D", "-C", "--defined-only", module_path()], text=True)
    exported = {re.sub(r"\(.*\)$", "", line.split(" ", 2)[2]) for line in table.splitlines()}
    assert EXPORTED <= exported
    assert all(name.startswith((READER + "::", COLLECTOR + "::")) for name in exported - EXPORTED)


def test_links_to_what_it_needs_only():
    table = subprocess.check_output(["objdump", "-p", module_path()], text=True)
    needed = {name.split(".so")[0] for name in re.findall(r"NEEDED +(\S+)", table)}
    assert needed <= {"libcurl", "libz", "libstdc++", "libgcc_s", "libc", "libm", "ld-linux-x86-64"}, needed
