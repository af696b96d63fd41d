"""The documentation: its SQL examples run as they are shown and print what is shown.

In README.md, CONTRIBUTING.md and docs/*.md every block marked "sql" is run by psql, in a session of its own, in the
order of the document. What psql prints must be the block marked "text" that follows; where none follows, it only
must not be an error. All documents begin with the README's section START, which sets the wrapper up. A block
marked "sql form" holds placeholders and is not run, one marked "sql from 12" not on a server before that version.

The examples talk to the bundled search server with the demo's books. Its port stands for the one in the text.
"""
import os
import re
import subprocess
from collections import namedtuple

import pytest

from conftest import ROOT, Database, SearchServer
from test_extension import cluster, installed  # noqa: F401  # a server that has the extension

START = "Five-minute start"
SHOWN_PORT = "9200"
MOST_FORMS = 4
ROOMS = ["server", "http", "search", "src", "extension"]
DOCUMENTS = [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *sorted(ROOT.glob("docs/*.md"))]
FENCED = re.compile(r"^```([^\n]*)\n(.*?)^```$", re.M | re.S)

# The beginning of a statement that makes an error message, and its fixed text.
RAISED = re.compile(r'(?:FdwError\(\s*\w+,|throwInvalidHandle\(|refuse\((?:option, )?(?:psprintf\()?|message =|'
                    r'errmsg(?:_internal)?\()\s*(?:std::string\()?"([^"]{6,})"')

# `shown` is what the block is said to print, None where nothing is said; `line` is where it begins and `section` the
# heading of level 2 that it is under.
Example = namedtuple("Example", "section line sql shown since")


def fenced_blocks(text):
    """(mark, content, position, whether it follows on the block before it) of each fenced block."""
    end = 0
    for block in FENCED.finditer(text):
        yield block[1], block[2], block.start(), not text[end:block.start()].strip()
        end = block.end()


def section_at(text, position):
    headings = re.findall(r"^## (.*)", text[:position], re.M)
    return headings[-1] if headings else ""


def examples(text):
    """The examples of a document that can be run."""
    blocks = list(fenced_blocks(text))
    for (mark, sql, position, _), following in zip(blocks, [*blocks[1:], ("", "", 0, False)]):
        since = re.fullmatch(r"sql(?: from (\d+))?", mark)
        if since:
            shown = following[1] if following[0] == "text" and following[3] else None
            yield Example(section_at(text, position), text.count("\n", 0, position) + 1, sql, shown, int(since[1] or 0))


def read(document):
    return document.read_text(encoding="utf-8")


def in_running_order(document):
    """(example, whether it is one of the document's own)"""
    own = list(examples(read(document)))
    start = [each for each in examples(read(ROOT / "README.md")) if each.section == START]
    return [(each, each in own) for each in start + [each for each in own if each not in start]]


def without_trailing_blanks(text):
    return [line.rstrip() for line in text.rstrip().split("\n")]


def as_before(version, text):
    """What is left of an output when an old server's way of printing is left aside: six digits of a number, the
    width of a column, and what a foreign table is called."""
    if version >= 12:
        return text
    text = re.sub(r"\d+\.\d{5,}", lambda number: f"{float(number[0]):.6g}", text)
    return re.sub(r"([ -])[ -]+", r"\1", text.replace("denied for relation", "denied for foreign table"))


def is_as_shown(printed, shown, version):
    if shown is None:
        return not re.search("^(ERROR|FATAL|WARNING): ", printed, re.M)
    printed, shown = as_before(version, printed), as_before(version, shown)
    return without_trailing_blanks(printed) == without_trailing_blanks(shown)


class Reader:
    """Somebody who types the examples into psql."""

    def __init__(self, cluster, dbname, port, version):
        self.cluster, self.dsn, self.port = cluster, f"{cluster.dsn} dbname={dbname}", str(port)
        self.version = version

    def types(self, sql):
        """What psql prints for the statements."""
        commands = sql.replace(f"'{SHOWN_PORT}'", f"'{self.port}'")
        environment = {**os.environ, "PGCLIENTENCODING": "UTF8"}
        if self.version >= 11:  # the expression compiler would only cost time
            environment["PGOPTIONS"] = "-c jit=off"
        psql = [f"{self.cluster.pg_bindir}/psql", "--no-psqlrc", "--quiet", "--pset=pager=off", self.dsn]
        printed = subprocess.run(psql, input=commands, env=environment, encoding="utf-8", check=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
        return re.sub(rf"\b{self.port}\b", SHOWN_PORT, printed)


@pytest.fixture(scope="module")
def bookshelf():
    with SearchServer() as server:
        server.load((ROOT / "demo/books.ndjson").read_text(encoding="utf-8"), "books")
        yield server


@pytest.fixture
def reader(cluster, bookshelf):
    """A reader with an empty database; it goes afterwards, with the roles that the examples made."""
    owner = Database(cluster, 0)
    roles = {name for (name,) in owner.run("SELECT rolname FROM pg_roles")}
    owner.run("CREATE DATABASE documentation")
    yield Reader(cluster, "documentation", bookshelf.port, owner.version)
    owner.run("DROP DATABASE documentation")
    for (name,) in owner.run("SELECT rolname FROM pg_roles"):
        if name not in roles:
            owner.run(f'DROP ROLE "{name}"')
    owner.connection.close()


@pytest.mark.parametrize("document", [document for document in DOCUMENTS if any(examples(read(document)))],
                         ids=lambda document: document.name)
def test_examples(reader, document):
    differing = []
    for example, own in in_running_order(document):
        if reader.version < example.since:
            continue
        printed = reader.types(example.sql)
        if own and not is_as_shown(printed, example.shown, reader.version):
            differing.append(f"{document.name}, section {example.section!r}, block at line {example.line}:\n"
                             f"{example.sql}\nprints\n{printed}\nbut shown is\n{example.shown}")
    assert not differing, "\n".join(differing)


def test_nothing_is_passed_over():
    """Every block of SQL is either an example or one of a few forms with placeholders."""
    forms = 0
    for document in DOCUMENTS:
        text = read(document)
        marks = [mark for mark, *_ in fenced_blocks(text)]
        assert len(re.findall("```", text)) == 2 * len(marks), f"{document.name}: a fence that is not seen"
        assert not [mark for mark in marks
                    if "sql" in mark.lower() and not re.fullmatch(r"sql( form| from \d+)?", mark)]
        forms += marks.count("sql form")
        assert all("..." in content for mark, content, *_ in fenced_blocks(text) if mark == "sql form")
    assert forms <= MOST_FORMS
    assert sum(bool(example.shown) for document in DOCUMENTS for example in examples(read(document))) > 15


def test_every_option_is_described():
    """The names that the module knows, each as code in the README."""
    names = {*re.findall(r'{"(\w+)", Catalog::', read(ROOT / "src/options.cpp")), "connectortype"}
    assert len(names) > 12 and not {name for name in names if f"`{name}`" not in read(ROOT / "README.md")}


def test_every_error_is_explained():
    """Each fixed text that the module raises stands in the list of errors, whatever values go into it."""
    texts = {re.sub(r"%l?z?[su]", "...", text).replace("\\", '"') for room in ROOMS for source in ROOT.glob(f"{room}/*.cpp")
             for text in RAISED.findall(read(source))}
    listed = re.sub(r"\s+", " ", read(ROOT / "docs/errors.md") + read(ROOT / "docs/contents.md"))
    assert len(texts) > 30 and not {text for text in texts if text.strip() not in listed}


def headings_of(document):
    """The anchors of a document's headings."""
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)", re.sub(FENCED, "", read(document)), re.M)}


def test_links_lead_somewhere():
    dead = []
    for document in DOCUMENTS:
        for link in re.findall(r"\]\((?!https?:)([^)]+)\)", re.sub(FENCED, "", read(document))):
            path, _, anchor = link.partition("#")
            target = (document.parent / path).resolve() if path else document
            if not target.exists() or (anchor and anchor not in headings_of(target)):
                dead.append(f"{document.name}: {link}")
    assert not dead, dead
