"""Large results through a scroll: the peak memory of the backend and the time of a row."""
import time
import zlib

import pytest

from conftest import Database, memory
from scriptedserver import answer, hits

pytestmark = pytest.mark.unsanitized

QUERY = "SELECT count(*), sum(length(doccontent)) FROM {} WHERE param = 'query=q'"


class Pages:
    """A table of scrolls over `total` documents, of which each page is the same one: `play` sends it."""

    def __init__(self, db, size, total, level=-2):
        self.db, self.table = db, f"by{size}"
        sources = [f'{{"title":"letter {n}","text":"{f"lorem {n} ipsum {n * n} dolor sit amet " * 3}"}}'
                   for n in range(size)]
        values = sources if level == -2 else [b"size" + zlib.compress(source.encode(), level) for source in sources]
        self.expected = [(total, total // size * sum(map(len, values)))]
        self.play = answer(hits(*[f'"_id":"d{n}","_score":1,"_source":{source}' for n, source in enumerate(sources)],
                                total=total, scroll_id="s"))
        db.make_table(self.table, connectortype="elasticsearchscroll", batchsize=size, compressionlevel=level)

    def read(self, scripted):
        """Reads them all; returns the seconds that it took."""
        scripted.script, start = self.play, time.monotonic()
        assert self.db.run(QUERY.format(self.table)) == self.expected
        return time.monotonic() - start


def test_memory_does_not_grow_with_the_result(cluster, scripted):
    peaks = []
    for total in (10_000, 500_000):
        db = Database(cluster, scripted.port)
        Pages(db, 1000, total, level=1).read(scripted)
        peaks.append(memory(db.pid, "VmHWM"))
    assert peaks[1] - peaks[0] <= 10 * 1024 and len(scripted.requests) == 510, peaks


def test_a_row_takes_no_longer_in_a_larger_batch(cluster, scripted):
    db = Database(cluster, scripted.port)
    small, large = [(Pages(db, size, 100_000), []) for size in (1000, 10_000)]
    # The load of the machine can only lengthen a run: the shortest of many says most.
    while len(small[1]) < 9 or (min(large[1]) > 1.1 * min(small[1]) and len(small[1]) < 50):
        for pages, times in (small, large):
            times.append(pages.read(scripted))
    assert min(large[1]) <= 1.1 * min(small[1])
