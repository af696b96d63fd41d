"""What the SQL tests share: a private cluster with the module, search servers, and short ways to ask both."""
import contextlib
import os
import re
import socket
import ssl
import subprocess
import sys
import time
import zlib
from pathlib import Path

import psycopg2
import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "demo"), str(ROOT / "tests/soak")]

from privatecluster import PrivateCluster  # noqa: E402
from scriptedserver import Relay, ScriptedServer, response, hits  # noqa: E402
from searchserver import SearchServer  # noqa: E402

COLUMNS = "docname text, doccontent bytea, score real, doctype text, highlights bytea, param text"
CRASH = re.compile(r"terminated by signal|PANIC|TRAP:|AddressSanitizer|runtime error:")

# What the tests marked with `every_version` run with: the major version of the search server, and the option
# esversion of the tables on it. All others run with the default; VELTRANE_SEARCH_VERSION names another one.
VERSIONS = [(6, None), (6, 6), (7, None), (7, 7), (8, 8), (9, 9)]
DEFAULT_VERSION = (int(os.environ.get("VELTRANE_SEARCH_VERSION", "7")),) * 2
every_version = pytest.mark.parametrize("versions", VERSIONS, indirect=True, ids=str)


def pytest_configure(config):
    config.addinivalue_line("markers", "unsanitized: not under sanitizers, because it measures memory, time or "
                            "instructions, names the module's libraries, or has nothing of the module in it")


def bodies(server):
    """Takes the bodies of the requests that a search server has received, as text."""
    return [request.body.decode() for request in server.take_journal()]


def unpacked(value):
    """The text of a compressed value."""
    text = zlib.decompress(bytes(value)[4:])
    assert int.from_bytes(bytes(value)[:4], sys.byteorder) == len(text)
    return text.decode()


def memory(pid, figure="RssAnon"):
    """KiB that a backend holds without the shared buffers; with VmHWM the most that it ever held with them."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return int(re.search(rf"^{figure}:\s+(\d+)", status, re.M)[1])


def sockets(pid):
    """How many sockets a process has open."""
    count = 0
    for entry in Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            count += os.readlink(entry).startswith("socket:")
    return count


class Database:
    """One session of a private cluster, in autocommit mode, whose tables are on the search server of a port. Without
    `jit`, which the cost of a foreign scan always calls in, its time and memory are those of the module."""

    def __init__(self, cluster, port, dbname="postgres", jit=False, esversion=None):
        self.cluster, self.port, self.log_start = cluster, port, os.path.getsize(cluster.log_path)
        self.esversion = esversion  # of the tables on that port
        self.connection = psycopg2.connect(cluster.dsn, dbname=dbname)
        self.connection.autocommit = True
        self.pid = self.connection.info.backend_pid
        self.version = self.connection.server_version // 10000
        self.run("SET client_min_messages = warning")
        self.set("jit", "on" if jit else "off")

    def set(self, setting, value):
        """Sets what the server may be too old to know; returns whether it does."""
        return bool(self.run("SELECT set_config(name, %s, false) FROM pg_settings WHERE name = %s", (value, setting)))

    def make_generic(self, execute):
        """Has a prepared statement run with a generic plan from now on, which may take a few executions."""
        if not self.set("plan_cache_mode", "force_generic_plan"):
            for _ in range(5):
                self.outcome(execute)

    def run(self, statement, values=None):
        """Runs a statement and returns its rows, or None when it has none."""
        with self.connection.cursor() as cursor:
            cursor.execute(statement, values)
            return cursor.fetchall() if cursor.description else None

    def value(self, statement, values=None):
        """The only value of the only row."""
        ((value,),) = self.run(statement, values)
        return bytes(value) if isinstance(value, memoryview) else value

    def outcome(self, statement, values=None):
        """The rows of a statement, or its (SQLSTATE, message) when it fails."""
        try:
            return self.run(statement, values)
        except psycopg2.Error as error:
            # The server's version decides the number of a node type.
            message = re.sub(r"clause of type \d+", "clause of type N", error.diag.message_primary or str(error))
            return error.diag.sqlstate, message

    def failure(self, statement, values=None):
        """Runs a statement that must fail and returns (SQLSTATE, message)."""
        outcome = self.outcome(statement, values)
        assert isinstance(outcome, tuple), f"no error but {outcome}"
        return outcome

    def install(self):
        """Makes what the extension's script makes, with the module of the cluster, and the server `search`."""
        scripts = sorted((ROOT / "extension").glob("*.sql"), key=lambda path: path.name.count("--"))
        script = "".join(path.read_text("utf-8").partition("\n")[2] for path in scripts)
        self.run(script.replace("MODULE_PATHNAME", self.cluster.module_path) +
                 "CREATE SERVER search FOREIGN DATA WRAPPER veltranepgfdw")

    def make_documents(self, port=None, **options):
        """Makes the server `documents` of the search wrapper, replacing one and its tables."""
        options = {"address": f"http://127.0.0.1:{port or self.port}", **options}
        self.run("DROP SERVER IF EXISTS documents CASCADE; CREATE SERVER documents FOREIGN DATA WRAPPER veltranesearch "
                 f"OPTIONS ({', '.join(f'{key} {chr(39)}{value}{chr(39)}' for key, value in options.items())})")

    def make_table(self, name="books", columns=COLUMNS, server="search", **options):
        """Makes a foreign table, replacing one of that name; an option of None is left out."""
        options = {"connectortype": "elasticsearch", "address": "127.0.0.1", "port": str(self.port),
                   "indexlist": "books", "batchsize": "100",
                   "esversion": None if "port" in options else self.esversion, **options}
        texts = ", ".join(f"\"{key}\" '{value}'" for key, value in options.items() if value is not None)
        self.run(f"DROP FOREIGN TABLE IF EXISTS {name}")
        self.run(f"CREATE FOREIGN TABLE {name} ({columns}) SERVER {server} OPTIONS ({texts})")

    def log(self):
        """What this session has written into the server log, with the SQLSTATE of each message."""
        with open(self.cluster.log_path, encoding="utf-8", errors="replace") as log:
            log.seek(self.log_start)
            return [line.rstrip("\n").split("] ", 1)[1] for line in log if f" [{self.pid}] " in line]


@contextlib.contextmanager
def new_database(owner, name, options=""):
    """A session like that of the owner in a database of its own, which has nothing of the module."""
    owner.run(f"CREATE DATABASE {name} TEMPLATE template0 {options}")
    session = Database(owner.cluster, owner.port, name, esversion=owner.esversion)
    yield session
    session.connection.close()
    owner.run(f"DROP DATABASE {name}")


def module_path():
    """The module under test, as it was built."""
    return Path(os.environ.get("VELTRANE_MODULE", ROOT / "build/release/libVeltranePgFdw3_0.so")).resolve()


def crash_signs(log_path, start=0):
    """The lines of a server log, from an offset on, that tell of a crash or come from a sanitizer."""
    with open(log_path, encoding="utf-8", errors="replace") as log:
        log.seek(start)
        return "".join(line for line in log if CRASH.search(line))


@contextlib.contextmanager
def running_cluster(pg_bindir=None, preload=None):
    """A private cluster with the module; it must end without a sign of a crash."""
    libraries = " ".join(filter(None, [os.environ.get("VELTRANE_SERVER_PRELOAD"), preload]))
    with PrivateCluster(module_path(), pg_bindir, environment=libraries and {"LD_PRELOAD": libraries}) as cluster:
        yield cluster
        assert not crash_signs(cluster.log_path)


@pytest.fixture(scope="session")
def cluster():
    if not module_path().exists():
        pytest.fail(f"{module_path()} does not exist: build it first, or name another one in VELTRANE_MODULE")
    with running_cluster() as started:
        Database(started, 0).install()
        yield started


@pytest.fixture(scope="session")
def library():
    """The search server of each version, with the documents that the tests share."""
    with contextlib.ExitStack() as stack:
        servers = {version: stack.enter_context(SearchServer(version)) for version, _ in VERSIONS}
        for server in servers.values():
            server.put_many("books", [(f"b{n:03}", {"title": "whales" if n % 2 else "letters", "number": n,
                                                    "type": "book" if n % 10 else "essay"}) for n in range(250)])
            server.create_index("empty")
        yield servers


@pytest.fixture
def versions(request):
    """(version of the search server, esversion of the tables or None)."""
    return getattr(request, "param", DEFAULT_VERSION)


@pytest.fixture
def search(library, versions):
    server = library[versions[0]]
    server.take_journal()
    return server


@pytest.fixture
def scripted():
    """A scripted server that responds with no hits until the test gives it another script."""
    with ScriptedServer(response(hits())) as server:
        yield server


@pytest.fixture
def db(cluster, search, versions):
    """A session of its own, with the table `books` on the shared search server."""
    database = Database(cluster, search.port, esversion=versions[1])
    database.make_table()
    yield database
    database.connection.close()


class Wire:
    """The table `docs` of the 250 books of a search server, each of whose requests passes the scripted server `near`,
    a hundred books at a time. All that goes wrong there is in the faults of `relay`."""
    LOOK_UP, COUNT = "SELECT docname FROM docs WHERE docname = 'b007'", "SELECT count(*) FROM docs"
    SEARCH, ALL = "SELECT docname FROM docs LIMIT 3", "SELECT docname FROM docs"
    ROWS = {LOOK_UP: [("b007",)], COUNT: [(250,)], SEARCH: [("b000",), ("b001",), ("b002",)],
            ALL: [(f"b{n:03}",) for n in range(250)]}

    def __init__(self, db, search, near):
        self.db, self.search, self.near = db, search, near
        self.relay = near.script = Relay(search.port)

    def make(self, *ports, scheme="http", **options):
        """Makes the server `documents`, of which these ports are the nodes, and the table."""
        nodes = ",".join(f"{scheme}://127.0.0.1:{port}" for port in ports or [self.near.port])
        self.db.make_documents(address=nodes, **options)
        self.db.run("CREATE FOREIGN TABLE docs (docname text) SERVER documents "
                    "OPTIONS (indexlist 'books', batchsize '100')")

    def kinds(self):
        """What the requests were for that came since the last `outcome` began."""
        return ["open" if "&scroll=" in peer.path else peer.purpose for peer in self.near.requests]

    def outcome(self, statement, *faults, deletion=None):
        """The rows of a statement, or its (SQLSTATE, message); its requests meet these faults, a None being none, and
        its deletions that one."""
        self.near.requests.clear()
        self.relay.faults[:], self.relay.deletion = faults, deletion
        return self.db.outcome(statement)

    def lose(self, peer):
        """A fault: the search server does as it is asked, but its response does not come back."""
        self.relay.ask(peer)


@pytest.fixture
def wire(db, search, scripted):
    search.expire_scrolls()
    made = Wire(db, search, scripted)
    made.make()
    return made


@pytest.fixture
def sent(db, scripted):
    """Moves `books` to the scripted server; sent(statement): the bodies of its requests, or its error."""
    db.make_table(port=scripted.port)

    def run(statement, values=None):
        del scripted.requests[:]
        outcome = db.outcome(statement, values)
        return outcome if isinstance(outcome, tuple) else [peer.body.decode() for peer in scripted.requests]

    return run


@pytest.fixture
def full_port():
    """A port whose queue is full of connections that nobody accepts: any further one waits."""
    with contextlib.ExitStack() as stack:
        listener = stack.enter_context(socket.create_server(("127.0.0.1", 0), backlog=0))
        with pytest.raises(socket.timeout):
            for _ in range(100):
                stack.enter_context(socket.create_connection(listener.getsockname(), 0.2))
        yield listener.getsockname()[1]


@pytest.fixture(scope="session")
def certificates(tmp_path_factory):
    """Two certificates, each of which is its own authority: a good one and one of another host."""
    folder = tmp_path_factory.mktemp("tls")
    for name, host in (("good", "IP:127.0.0.1"), ("elsewhere", "DNS:search.example")):
        command = f"openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN={name} -addext subjectAltName={host}"
        subprocess.run([*command.split(), "-keyout", f"{name}.key", "-out", f"{name}.pem"], cwd=folder, check=True,
                       capture_output=True)
        (folder / f"{name}.pem").chmod(0o644)
    for path in (folder.parent.parent, folder.parent, folder):
        path.chmod(0o755)  # the server runs as another user
    return folder


def secured_with(certificates, name):
    """What makes connections of a scripted server speak TLS, with one of the certificates."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificates / f"{name}.pem", certificates / f"{name}.key")
    return lambda connection: context.wrap_socket(connection, server_side=True)


@pytest.fixture(autouse=True)
def no_crash(request):
    """A crash in one session is one in all of them: each test stands for the server log of its own time."""
    log_path = "cluster" in request.fixturenames and request.getfixturevalue("cluster").log_path
    start = log_path and os.path.getsize(log_path)
    yield
    assert not (log_path and crash_signs(log_path, start))


def wait_until(condition, seconds=10):
    """Waits until a condition holds."""
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, "waited in vain"
        time.sleep(0.01)
