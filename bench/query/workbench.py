"""What the measuring of queries works with: a page server, a private cluster with the module, and the programs
that measure the parts of the floor."""
import json
import re
import subprocess
import sys
import time
from contextlib import contextmanager
from pathlib import Path

import psycopg2

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "demo"))

from privatecluster import PrivateCluster  # noqa: E402
from queries import SETUP  # noqa: E402

COLUMNS = "docname text, doccontent bytea, score real, doctype text, highlights bytea, param text"

# Room for the largest local table, and nothing that works at times of its own.
SETTINGS = {"shared_buffers": "3GB", "autovacuum": "off", "checkpoint_timeout": "1h", "jit": "off",
            "max_parallel_workers_per_gather": "0"}


class Programs:
    """The programs of a build, by name."""

    def __init__(self, build):
        self.folder = Path(build).resolve() / "bench/query"
        self.module = self.folder.parents[1] / "libVeltranePgFdw3_0.so"

    def run(self, name, *arguments):
        """What a program prints, which is JSON."""
        done = subprocess.run([self.folder / name, *map(str, arguments)], stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)

    def fetch_seconds(self, port, index, total, size, reuse=False):
        """How long a plain client takes for a scroll; with `reuse`, on one connection."""
        options = ["--reuse"] if reuse else []
        return self.run("fetchFloor", *options, port, index, total, size)["seconds"]

    @contextmanager
    def page_server(self, microseconds=0):
        """Runs a page server, which keeps back a response so long for each document, and yields its port."""
        with subprocess.Popen([self.folder / "pageServer", str(microseconds)], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True) as process:
            try:
                yield int(process.stdout.readline())
            finally:
                process.stdin.close()


@contextmanager
def measuring_cluster(module):
    """A private cluster with the module's objects and our SETTINGS."""
    with PrivateCluster(module) as cluster:
        backend = Backend(cluster)
        for name, value in SETTINGS.items():
            if name != "jit" or backend.has_jit():
                backend.run(f"ALTER SYSTEM SET {name} = '{value}'")
        # The demo's tables come with it; nothing reads them.
        backend.run(SETUP.format(module=f"'{cluster.module_path}'", url="'http://127.0.0.1:1'", address="'127.0.0.1'",
                                 port="'1'", index="'none'", version="'7'"))
        backend.close()
        restart = cluster.run_as([f"{cluster.pg_bindir}/pg_ctl", "restart", "--silent", "--wait", "--pgdata",
                                  cluster.path_of("data"), "--log", cluster.log_path],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        if restart.wait():
            raise RuntimeError(f"the cluster does not restart: {Path(cluster.log_path).read_text('utf-8')}")
        yield cluster


class Backend:
    """One session, in autocommit mode."""

    def __init__(self, cluster):
        self.connection = psycopg2.connect(cluster.dsn)
        self.connection.autocommit = True

    def close(self):
        self.connection.close()

    def run(self, statement):
        """Runs a statement and returns its rows, or None when it has none."""
        with self.connection.cursor() as cursor:
            cursor.execute(statement)
            return cursor.fetchall() if cursor.description else None

    def has_jit(self):
        """Whether the server knows the expression compiler, which came with version 11."""
        return self.connection.server_version >= 110000

    def seconds(self, statement):
        """How long a statement takes."""
        start = time.perf_counter()
        self.run(statement)
        return time.perf_counter() - start

    def memory(self, what):
        """A figure of the kernel's on the backend, as VmHWM, in KiB."""
        status = Path(f"/proc/{self.connection.info.backend_pid}/status").read_text("utf-8")
        return int(re.search(rf"^{what}:\s+(\d+)", status, re.M).group(1))

    def make_table(self, name, port, index, scroll=True, **options):
        """Makes a foreign table of the classic wrapper on a page server, replacing one of that name."""
        options = {"connectortype": "elasticsearchscroll" if scroll else "elasticsearch",
                   "address": "127.0.0.1", "port": port, "indexlist": index, **options}
        self.run(f"DROP FOREIGN TABLE IF EXISTS {name}")
        self.run(f"CREATE FOREIGN TABLE {name} ({COLUMNS}) SERVER classic {options_clause(options)}")

    def make_search_table(self, name, port, columns, server=None, **options):
        """The same for the search wrapper; `columns` are definitions, `server` has options of the foreign server, of
        which each such table has its own."""
        address = {"address": f"http://127.0.0.1:{port}"}
        self.run(f"DROP SERVER IF EXISTS {name}_cluster CASCADE")
        self.run(f"CREATE SERVER {name}_cluster FOREIGN DATA WRAPPER veltranesearch "
                 f"{options_clause({**address, **(server or {})})}")
        self.run(f"CREATE FOREIGN TABLE {name} ({columns}) SERVER {name}_cluster {options_clause(options)}")

    def make_local_table(self, name, columns, rows):
        """Makes a table of the rows of a SELECT, to be read as fast as can be, replacing one of that name."""
        self.run(f"DROP TABLE IF EXISTS {name}")
        # Contents that fit into a page stay in it, where they cost the least.
        self.run(f"CREATE UNLOGGED TABLE {name} ({columns}) WITH (toast_tuple_target = 8160)")
        self.run(f"ALTER TABLE {name} ALTER COLUMN doccontent SET STORAGE EXTERNAL")
        self.run(f"INSERT INTO {name} {rows}")
        self.run(f"VACUUM {name}")


def options_clause(options):
    return "OPTIONS (" + ", ".join(f"{key} '{value}'" for key, value in options.items()) + ")"
