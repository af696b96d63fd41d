"""How many instructions the reader and a scan take, counted by callgrind: unlike a time, the same on any machine
of a kind. A growth of more than 15 % over the figures kept beside the tests fails. Whoever makes the work dearer,
or cheaper, on purpose changes the figures."""
import json
import platform
import re
import shutil
import subprocess
from pathlib import Path

import psycopg2
import pytest

from conftest import SET_UP, module_path
from privatecluster import PrivateCluster
from scriptedserver import ScriptedServer, answer, hits

KEPT = json.loads((Path(__file__).parents[1] / "data/instructions.json").read_text("utf-8"))
MOST_GROWTH = 1.15
DOCUMENTS = 1000
QUERY = """SELECT count(doccontent) FROM books WHERE param = 'query={"match_all":{}}'"""

pytestmark = pytest.mark.skipif(platform.machine() != "x86_64", reason="the figures are of x86-64")


def words(seed, count):
    """So many words of 1 to 9 letters, the same for the same seed."""
    return " ".join("abcdefghij"[: 1 + (seed * 31 + i * i * 7) % 9] for i in range(count))


def text_source(i):
    return {"title": words(i, 5), "type": "book", "year": 1800 + i % 200, "text": words(i + 1, 350) + " \"x\"\n"}


def dense_source(i):
    return {"type": "part", "n": i, "on": i % 2 == 0, "at": {"x": i / 8, "y": -i, "z": [i, i + 1, None]},
            "tags": [words(i, 1), words(i + 3, 1)], "rows": [{"k": k, "v": k * i, "u": "mm"} for k in range(40)]}


def page(source):
    """A page of answers; `source` makes the source of a number."""
    return hits(*(f'"_index":"books","_id":"book-{i:05}","_score":1.0,"_source":{json.dumps(source(i))}'
                  for i in range(DOCUMENTS)))


def counted(function, command, directory, run=subprocess.run, **kwargs):
    """Runs a command under callgrind: its output, and the instructions of a function with all that it calls."""
    counts = Path(directory) / "callgrind.out"
    callgrind = ["valgrind", "--tool=callgrind", "--log-file=/dev/null", f"--toggle-collect=*{function}*",
                 f"--callgrind-out-file={counts}"]
    output = run([*callgrind, *map(str, command)], **kwargs)
    return output, int(re.search(r"^totals: (\d+)", counts.read_text("utf-8"), re.M).group(1))


def check(name, instructions):
    kept = KEPT[name]
    assert instructions <= kept * MOST_GROWTH, f"{name}: {instructions} instructions, {kept} were kept"
    # A count that fell far is no failure of the module, but such a figure guards nothing. How the C library copies
    # on a processor accounts for less.
    assert instructions >= kept / 4, f"{name}: only {instructions} instructions, {kept} were kept"


@pytest.mark.parametrize("kind, source", [("text", text_source), ("dense", dense_source)])
def test_the_reader(tmp_path, kind, source):
    work = module_path().parent / "tests/unit/readerWork"
    answer_path = tmp_path / "answer.json"
    answer_path.write_text(page(source), "utf-8")
    scanners = subprocess.check_output([work], text=True).split()
    assert "portable" in scanners
    for scanner in scanners:
        output, instructions = counted("addData", [work, scanner, answer_path], tmp_path,
                                       run=subprocess.check_output)
        assert int(output) == DOCUMENTS
        check(f"{kind} {scanner}", instructions)


def test_rows():
    """A thousand rows, from the answer to the slot, in a backend that runs alone."""
    with PrivateCluster(module_path()) as cluster, ScriptedServer(answer(page(text_source))) as server:
        with psycopg2.connect(cluster.dsn) as connection, connection.cursor() as cursor:
            cursor.execute(SET_UP.format(module=cluster.module_path))
            cursor.execute("CREATE FOREIGN TABLE books (docname text, doccontent bytea, score real, doctype text, "
                           "highlights bytea, param text) SERVER search OPTIONS (connectortype 'elasticsearch', "
                           f"address '127.0.0.1', port '{server.port}', indexlist 'books', batchsize '{DOCUMENTS}', "
                           "compressionlevel '-2')")
        connection.close()
        cluster.shut_down()

        def run(command):
            backend = cluster.run_as(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, text=True)
            return backend.communicate(f"SET jit = off\n{QUERY}\n")[0]

        output, instructions = counted("quelmoraPgFdwIterateForeignScan",
                                       [shutil.which("postgres", path=cluster.pg_bindir), "--single", "-D",
                                        cluster.path_of("data"), "postgres"], cluster.directory, run=run)
        assert f'count = "{DOCUMENTS}"' in output, output
        check("rows", instructions)
