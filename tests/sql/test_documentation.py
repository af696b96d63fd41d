"""The documentation: its SQL examples run as they are shown and print what is shown."""
# In README.md, CONTRIBUTING.md and docs/*.md every block marked "sql" is run by psql, in a session of its own, in the
# order of the document. What psql prints must be the block marked "text" that follows; where none follows, it only
# must not be an error. All documents begin with the README's section START, which sets the wrapper up. A block marked
# "sql form" holds placeholders and is not run, one marked "sql from 12" not on a server before that version. The
# examples talk to the bundled search server with the demo's books. Its port stands for the one in the text. What a
# block marked "sh curl" sends goes to it, too.
import os
import re
import shlex
import subprocess
import urllib.request
from collections import namedtuple

import pytest

from conftest import ROOT, Database, SearchServer, new_database
from test_extension import cluster, installed  # noqa: F401  # a server that has the extension

START = "Five-minute start"
SHOWN_PORT = "9200"
MOST_FORMS = 4
ROOMS = ["server", "http", "search", "src", "extension", "functions"]
DOCUMENTS = {path: path.read_text(encoding="utf-8")
             for path in [ROOT / "README.md", ROOT / "CONTRIBUTING.md", *sorted(ROOT.glob("docs/*.md"))]}
README = DOCUMENTS[ROOT / "README.md"]
FENCED = re.compile(r"^```([^\n]*)\n(.*?)^```$", re.M | re.S)

# The beginning of a statement that makes an error message, and the expression that is its text.
RAISED = re.compile(r'(?:FdwError\(\s*\w+,|throwInvalidHandle\(|refuse\((?:option, )?(?:psprintf\()?|message =|'
                    r'connecting \?|errmsg(?:_internal)?\()'
                    r'\s*((?:"(?:[^"\\]|\\.)*"|(?:\w|::|->|[()])+(?:\.\w+\(\))?|[\s+])+)')

# An option of the table in extension/options.cpp: its name, catalog, default and help.
KNOWN_OPTION = re.compile(r'{"(\w+)", (\w+)RelationId, (?:nullptr|"([^"]*)"),\s*\[\].*?},\s*"([^"]+)"', re.S)
OWNERS = {"ForeignServer": "server", "UserMapping": "user mapping", "ForeignTable": "table", "Attribute": "column"}

# `shown` is what the block is said to print, None where nothing is said, and `section` the heading of level 2 that it
# is under.
Example = namedtuple("Example", "section sql shown since")


def examples(text):
    """The examples of a document that can be run."""
    blocks = list(FENCED.finditer(text))
    for block, following in zip(blocks, [*blocks[1:], None]):
        since = re.fullmatch(r"sql(?: from (\d+))?|sh curl", block[1])
        if since:
            shows = following and following[1] == "text" and not text[block.end():following.start()].strip()
            *_, section = "", *re.findall(r"^## (.*)", text[:block.start()], re.M)
            yield Example(section, block[2], following[2] if shows else None, int(since[1] or 0))


def curl(commands):
    """Sends what lines of curl would, on a machine that may not have it."""
    for command in re.split(r"^curl ", commands, flags=re.M)[1:]:
        url, *words = shlex.split(command)
        options = dict(zip(words[::2], words[1::2]))
        kind = dict([options["-H"].split(": ")])
        request = urllib.request.Request(url, options["-d"].encode(), kind, method=options["-X"])
        urllib.request.urlopen(request, timeout=20).close()


def as_before(version, text):
    """The lines of an output without trailing blanks, nor an old server's own way of printing."""
    if version < 12:  # six digits of a number, the width of a column, and what a foreign table is called
        text = re.sub(r"\d+\.\d{5,}", lambda number: f"{float(number[0]):.6g}", text)
        text = re.sub(r"([ -])[ -]+", r"\1", text.replace("denied for relation", "denied for foreign table"))
    return [line.rstrip() for line in text.rstrip().split("\n")]


@pytest.fixture
def reader(cluster):
    """reader(sql): what psql prints, in an empty database; it goes afterwards, with the roles that were made."""
    owner = Database(cluster, 0)
    roles = owner.run("SELECT rolname FROM pg_roles")
    # The expression compiler, which servers have from version 11 on, would only cost time.
    environment = {**os.environ, "PGCLIENTENCODING": "UTF8", "PGOPTIONS": "-c jit=off" if owner.version > 10 else ""}
    psql = [f"{cluster.pg_bindir}/psql", "--no-psqlrc", "--quiet", "--pset=pager=off",
            f"{cluster.dsn} dbname=documentation"]
    with SearchServer() as bookshelf, new_database(owner, "documentation"):
        bookshelf.load((ROOT / "demo/books.ndjson").read_text(encoding="utf-8"), "books")

        def types(sql):
            sql = re.sub(rf"\b{SHOWN_PORT}\b", str(bookshelf.port), sql)
            if sql.startswith("curl "):
                return curl(sql) or ""
            printed = subprocess.run(psql, input=sql, env=environment, encoding="utf-8", check=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
            return re.sub(rf"\b{bookshelf.port}\b", SHOWN_PORT, printed)

        types.version = owner.version
        yield types
    for (name,) in owner.run("SELECT rolname FROM pg_roles"):
        if (name,) not in roles:
            owner.run(f'DROP ROLE "{name}"')


@pytest.mark.parametrize("document", [path for path, text in DOCUMENTS.items() if any(examples(text))],
                         ids=lambda path: path.name)
def test_examples(reader, document):
    own, differing = list(examples(DOCUMENTS[document])), []
    start = [each for each in examples(README) if each.section == START]
    for example in start + [each for each in own if each not in start]:
        printed = reader(example.sql) if reader.version >= example.since else None
        if printed is None or example not in own:
            continue
        if re.search("^(ERROR|FATAL|WARNING): ", printed, re.M) if example.shown is None else (
                as_before(reader.version, printed) != as_before(reader.version, example.shown)):
            differing.append(f"{example.section}: {example.sql}\nprints\n{printed}\nbut shown is\n{example.shown}")
    assert not differing, "\n".join(differing)


def test_nothing_is_passed_over():
    """Every block of SQL is either an example or one of a few forms with placeholders."""
    forms = 0
    for path, text in DOCUMENTS.items():
        blocks = FENCED.findall(text)
        assert text.count("```") == 2 * len(blocks), f"{path.name}: a fence that is not seen"
        assert all(re.fullmatch(r"sql( form| from \d+)?", mark) for mark, _ in blocks if "sql" in mark.lower())
        assert all("..." in content for mark, content in blocks if mark == "sql form")
        forms += sum(mark == "sql form" for mark, _ in blocks)
    assert forms <= MOST_FORMS
    assert sum(bool(example.shown) for text in DOCUMENTS.values() for example in examples(text)) > 15


def test_every_option_is_described():
    """Those of the classic wrapper by name, those of the search wrapper as the module's own table has them."""
    classic, page = (ROOT / "src/options.cpp").read_text("utf-8"), DOCUMENTS[ROOT / "docs/classic.md"]
    names = {*re.findall(r'{"(\w+)", Catalog::', classic), "connectortype"}
    assert len(names) > 12 and not {name for name in names if f"`{name}`" not in page}
    options = KNOWN_OPTION.findall((ROOT / "extension/options.cpp").read_text("utf-8"))
    assert len(options) > 15 and not {name for name, catalog, preset, text in options if not re.search(
        rf"^\| `{name}` \| {OWNERS[catalog]} \| {f'`{preset}`' if preset else '(none|required)'} \| "
        rf"{re.escape(text)}", README, re.M)}


def fixed_text(expression):
    """What is fixed in the expression of a message, with ... for each value in between."""
    literals = re.findall(r'"((?:[^"\\]|\\.)*)"', re.sub(r'"\s+"', "", expression))
    return re.sub(r"%l?z?[su]", "...", "...".join(literals)).replace("\\", "").strip()


def test_every_error_is_explained():
    """Each fixed text that the module raises stands in the list of errors, whatever values go into it."""
    texts = {fixed_text(expression) for room in ROOMS for source in ROOT.glob(f"{room}/*.cpp")
             for expression in RAISED.findall(source.read_text("utf-8"))}
    listed = re.sub(r"\s+", " ", DOCUMENTS[ROOT / "docs/errors.md"] + DOCUMENTS[ROOT / "docs/contents.md"])
    assert len(texts) > 60 and not {text for text in texts if text not in listed}


def test_links_lead_somewhere():
    plain = {path: re.sub(FENCED, "", text) for path, text in DOCUMENTS.items()}
    anchors = {path: {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
                      for heading in re.findall(r"^#+ (.*)", text, re.M)} for path, text in plain.items()}
    dead = []
    for path, text in plain.items():
        for link in re.findall(r"\]\((?!https?:)([^)]+)\)", text):
            name, _, anchor = link.partition("#")
            target = (path.parent / name).resolve() if name else path
            if not target.exists() or (anchor and anchor not in anchors.get(target, ())):
                dead.append(f"{path.name}: {link}")
    assert not dead, dead
