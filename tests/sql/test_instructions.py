"""How many instructions the reader and a scan take, counted by callgrind: unlike a time, the same on any machine."""
# A growth of more than 15 % over the figures kept beside the tests fails. Whoever makes the work dearer, or cheaper,
# on purpose changes the figures.
import json
import platform
import re
import subprocess

import pytest

from conftest import ROOT, Database, module_path, running_cluster
from scriptedserver import ScriptedServer, response, hits

KEPT = json.loads((ROOT / "tests/data/instructions.json").read_text("utf-8"))
MOST_GROWTH = 1.15
DOCUMENTS = 1000

pytestmark = [pytest.mark.skipif(platform.machine() != "x86_64", reason="the figures are of x86-64"),
              pytest.mark.unsanitized]


def words(seed, count):
    """So many words of 1 to 9 letters, the same for the same seed."""
    return " ".join("abcdefghij"[: 1 + (seed * 31 + i * i * 7) % 9] for i in range(count))


def text_source(i):
    return {"title": words(i, 5), "type": "book", "year": 1800 + i % 200, "text": words(i + 1, 350) + " \"x\"\n"}


def dense_source(i):
    return {"type": "part", "n": i, "on": i % 2 == 0, "at": {"x": i / 8, "y": -i, "z": [i, i + 1, None]},
            "tags": [words(i, 1), words(i + 3, 1)], "rows": [{"k": k, "v": k * i, "u": "mm"} for k in range(40)]}


def page(source):
    """A page of responses; `source` makes the source of a number."""
    return hits(*(f'"_index":"books","_id":"book-{i:05}","_score":1.0,"_source":{json.dumps(source(i))}'
                  for i in range(DOCUMENTS)))


def callgrind(function, directory):
    """What runs a command and counts the instructions of a function with all that it calls."""
    return ["valgrind", "--tool=callgrind", "--log-file=/dev/null", f"--toggle-collect=*{function}*",
            f"--callgrind-out-file={directory}/callgrind.out"]


def check(name, directory):
    """Compares the count with the one that was kept."""
    # One that fell far is no failure of the module, but such a figure guards nothing. How the C library copies on a
    # processor accounts for less.
    with open(f"{directory}/callgrind.out", encoding="utf-8") as counts:
        instructions = int(re.search(r"^totals: (\d+)", counts.read(), re.M)[1])
    assert KEPT[name] / 4 <= instructions <= KEPT[name] * MOST_GROWTH, f"{name}: {KEPT[name]} were kept"


@pytest.mark.parametrize("kind, source", [("text", text_source), ("dense", dense_source)])
def test_the_reader(tmp_path, kind, source):
    work = module_path().parent / "tests/unit/readerWork"
    (tmp_path / "response.json").write_text(page(source), "utf-8")
    scanners = subprocess.check_output([work], text=True).split()
    assert "portable" in scanners
    for scanner in scanners:
        command = [*callgrind("addData", tmp_path), work, scanner, tmp_path / "response.json"]
        assert int(subprocess.check_output(command)) == DOCUMENTS
        check(f"{kind} {scanner}", tmp_path)


def test_rows():
    """A thousand rows, from the response to the slot, in a backend that runs alone."""
    with running_cluster() as cluster, ScriptedServer(response(page(text_source))) as server:
        owner = Database(cluster, server.port)
        owner.install()
        owner.make_table(batchsize=DOCUMENTS, compressionlevel=-2)
        owner.connection.close()
        cluster.shut_down()
        command = [*callgrind("quelmoraPgFdwIterateForeignScan", cluster.directory), f"{cluster.pg_bindir}/postgres",
                   "--single", "-D", cluster.path_of("data"), "postgres"]
        backend = cluster.run_as(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        output, _ = backend.communicate(
            "SET jit = off\nSELECT count(doccontent) FROM books WHERE param = 'query={\"match_all\":{}}'\n")
        assert f'count = "{DOCUMENTS}"' in output, output
        check("rows", cluster.directory)
