"""The installed extension, on a server whose directories are a private copy, and its library as a file."""
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

from conftest import Database, module_path, new_database, running_cluster

# strict; the readers of contents, which serve indexes and parallel plans, also immutable and parallel safe
SEARCHING = ["aggregate(regclass,jsonb,jsonb)", "analyze(regclass,text,text)", "buckets(regclass,jsonb,jsonb,jsonb)",
             "check(regclass)", "checkserver(name)", "explain(regclass,text,jsonb)", "hits(regclass,jsonb)",
             "terms(regclass,text[],jsonb,integer)"]
FUNCTIONS = sorted([
    ("veltranepgfdw_jsonb(bytea)", True, "i", "s"), ("veltranepgfdw_text(bytea)", True, "i", "s"),
    ("veltranepgfdwinterfacehandler()", True, "v", "u"), ("veltranepgfdwinterfacevalidator(text[],oid)", True, "v", "u"),
    ("veltranesearch_handler()", True, "v", "u"), ("veltranesearch_validator(text[],oid)", True, "v", "u"),
    *((f"veltranesearch_{rest}", True, "v", "r") for rest in ("exchanges(oid)", "exchanges_reset()", *SEARCHING))])
LEFT_BEHIND = """
SELECT proname::text FROM pg_proc WHERE proname LIKE 'veltrane%' OR probin ~ 'Veltrane'
UNION ALL SELECT fdwname FROM pg_foreign_data_wrapper UNION ALL SELECT srvname FROM pg_foreign_server
UNION ALL SELECT ftrelid::regclass::text FROM pg_foreign_table"""
TITLES = """
SELECT docname, {}veltranepgfdw_jsonb(doccontent)->>'title'
FROM books WHERE docname IN ('b001', 'b002') ORDER BY docname"""
FOUND = [("b001", "whales"), ("b002", "letters")]


def directory_of_server(which):
    config = os.environ.get("PG_CONFIG", "pg_config")
    return subprocess.check_output([config, f"--{which}"], text=True).strip()


@pytest.fixture(scope="module")
def installed():
    """The root of a copy of the server's directories, the built tree installed into it."""
    # The server finds them from where its program lies, so the programs are copied; everything else is linked to.
    with tempfile.TemporaryDirectory(prefix="fdw-server-") as copy:
        os.chmod(copy, 0o755)
        umask = os.umask(0o022)  # the server is another user's
        for which, bring in (("bindir", shutil.copy), ("pkglibdir", os.symlink), ("sharedir", os.symlink)):
            original = directory_of_server(which)
            shutil.copytree(original, copy + original, copy_function=bring,
                            ignore=shutil.ignore_patterns("*[Vv]eltrane*"))
        subprocess.run(["cmake", "--install", module_path().parent], env={**os.environ, "DESTDIR": copy},
                       check=True, stdout=subprocess.DEVNULL)
        os.umask(umask)
        yield copy


@pytest.fixture(scope="module")
def cluster(installed):
    """In place of the cluster of the other tests, so that `db` has the extension."""
    with running_cluster(installed + directory_of_server("bindir")) as started:
        make_extension(Database(started, 0))
        yield started


def make_extension(session, schema="public"):
    session.run(f"CREATE SCHEMA IF NOT EXISTS {schema}; CREATE EXTENSION veltranepgfdw SCHEMA {schema}; "
                "CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw")
    session.make_table()


def check_objects(session):
    described = session.run("""
        SELECT pg_describe_object(classid, objid, 0), obj_description(objid, classid::regclass::text) IS NOT NULL
        FROM pg_depend WHERE refclassid = 'pg_extension'::regclass AND deptype = 'e'
            AND classid <> 'pg_type'::regclass -- the view's, which only some versions list
            AND refobjid = (SELECT oid FROM pg_extension WHERE extname = 'veltranepgfdw')""")
    others = [*(f"foreign-data wrapper {name}" for name in ("veltranepgfdw", "veltranesearch")), "view veltranesearch_exchanges"]
    assert dict(described) == dict.fromkeys([*others, *(f"function {name}" for name, *_ in FUNCTIONS)], True)


def test_objects_and_the_installed_library(db, installed):
    check_objects(db)
    assert sorted(db.run("""
        SELECT oid::regprocedure::text, proisstrict, provolatile, proparallel FROM pg_proc
        WHERE proname LIKE 'veltrane%' AND probin = '$libdir/libVeltranePgFdw3_0'""")) == FUNCTIONS
    assert db.run(TITLES.format("")) == FOUND
    maps = Path(f"/proc/{db.pid}/maps").read_text(encoding="utf-8")
    assert f"{installed}{directory_of_server('pkglibdir')}/{module_path().name}" in maps


def test_another_schema_and_drop(db):
    with new_database(db, "elsewhere") as session:
        make_extension(session, schema="one")
        assert session.run(TITLES.format("one.")) == FOUND
        session.run("CREATE SCHEMA two; ALTER EXTENSION veltranepgfdw SET SCHEMA two")
        assert session.run(TITLES.format("two.")) == FOUND
        assert session.failure("DROP EXTENSION veltranepgfdw")[0] == "2BP01"
        session.run("DROP SERVER search CASCADE; DROP EXTENSION veltranepgfdw")
        assert session.run(LEFT_BEHIND) == []


def test_update_dump_and_restore(db):
    """Tables of the version before go on working; a dump makes the same again, whatever its options are."""
    with new_database(db, "dumped") as session, new_database(db, "restored") as other:
        session.run("CREATE EXTENSION veltranepgfdw VERSION '3.2'; CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw")
        session.make_table()
        session.run("ALTER EXTENSION veltranepgfdw UPDATE")
        check_objects(session)
        session.make_documents()
        session.run("CREATE FOREIGN TABLE docs (docname text, doctype text OPTIONS (search 'keyword')) SERVER documents "
                    "OPTIONS (indexlist 'books', batchsize '7'); CREATE USER MAPPING FOR PUBLIC SERVER documents OPTIONS "
                    "(username 'me', password 'it''s')")
        dump = subprocess.check_output([f"{db.cluster.pg_bindir}/pg_dump", "-d", f"{db.cluster.dsn} dbname=dumped"], text=True)
        psql = [f"{db.cluster.pg_bindir}/psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-d", f"{db.cluster.dsn} dbname=restored"]
        subprocess.run(psql, input=dump, text=True, check=True, stdout=subprocess.DEVNULL)
        for each in (session, other):
            each.run("SET search_path = public")
            assert each.run(TITLES.format("")) == FOUND and each.value("SELECT count(*) FROM docs") == 250


def test_installcheck(db):
    """What make installcheck does on the server that runs here."""
    environment = {**os.environ, "PGHOST": "127.0.0.1", "PGPORT": str(db.cluster.port), "PGUSER": "postgres"}
    subprocess.run(["cmake", "--build", module_path().parent, "--target", "installcheck"], env=environment,
                   check=True, stdout=subprocess.DEVNULL)


def test_script_by_hand_makes_nothing(db, installed):
    scripts = sorted(Path(installed + directory_of_server("sharedir"), "extension").glob("veltranepgfdw--*.sql"))
    with new_database(db, "by_hand") as session:
        for script, hint in zip(scripts, ("ALTER EXTENSION veltranepgfdw UPDATE", "CREATE EXTENSION veltranepgfdw")):
            psql = [f"{db.cluster.pg_bindir}/psql", "-X", "-f", script, f"{db.cluster.dsn} dbname=by_hand"]
            assert f'Use "{hint}"' in subprocess.check_output(psql, text=True)
        assert session.run(LEFT_BEHIND) == [] and len(scripts) == 2


# ---- The library itself ------------------------------------------------------------------------------------

# What others may call: the server, and modules that use the clauses' analysis and the reader of terms aggregations.
CALLED = [name.partition("(")[0] for name, *_ in FUNCTIONS]
READER, COLLECTOR = "zq::elasticsearch::TermAggResultParserInterface", "qm::pgFdw::TermAggResultParser"
EXPORTED = {
    "Pg_magic_func", "_PG_init", "_PG_fini", *CALLED, *[f"pg_finfo_{name}" for name in CALLED],
    *[f"VeltranePgFdw3_0::Version::Get{name}() const" for name in (
        "Major", "Minor", "Release", "Revision", "Year", "Month", "DescStringMajorMinorReleaseRevisionDate")],
    *[f"VeltranePgFdw3_0::Version::GetDescStringMajorMinor{name}(bool) const" for name in (
        "", "Release", "ReleaseRevision")],
    "qm::pgFdw::analyseExprInt", "qm::pgFdw::analyseExprBool", f"{COLLECTOR}::TermAggResultParser",
    f"{COLLECTOR}::onAttributes", *[f"{READER}::{name}" for name in (
        "TermAggResultParserInterface", "~TermAggResultParserInterface", "addData", "finish",
        "onNextFieldIsAttributeValue")],
    *[f"{what} for {name}" for what in ("vtable", "typeinfo", "typeinfo name") for name in (READER, COLLECTOR)]}


@pytest.mark.unsanitized
def test_exports():
    table = subprocess.check_output(["nm", "-D", "-C", "--defined-only", module_path()], text=True)
    exported = {re.sub(r"\(.*\)$", "", line.split(" ", 2)[2]) for line in table.splitlines()}
    assert EXPORTED <= exported
    assert all(name.startswith((READER + "::", COLLECTOR + "::")) for name in exported - EXPORTED)


@pytest.mark.unsanitized
def test_links_to_what_it_needs_only():
    table = subprocess.check_output(["objdump", "-p", module_path()], text=True)
    needed = {name.split(".so")[0] for name in re.findall(r"NEEDED +(\S+)", table)}
    assert needed <= {"libcurl", "libz", "libstdc++", "libgcc_s", "libc", "libm", "ld-linux-x86-64"}, needed
