"""The demo: a private cluster with the module, a search server with sample documents, queries and their rows.

Started by scripts/demo.sh, which builds the module first.
"""

import argparse
import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time
import urllib.error
import urllib.parse
import urllib.request

import psycopg2
from privatecluster import PrivateCluster
from psycopg2.extensions import QuotedString, set_wait_callback
from psycopg2.extras import wait_select
from queries import SETUP, TOUR
from table import table

HERE = pathlib.Path(__file__).resolve().parent
WAIT_SECONDS = 60
STOP_SIGNALS = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}


def call(url, body, content_type="application/json"):
    """The JSON response to a POST; urllib.error.HTTPError for a refusal."""
    request = urllib.request.Request(url, body, {"Content-Type": content_type})
    with urllib.request.urlopen(request, timeout=WAIT_SECONDS) as response:
        return json.load(response)


def load_documents(url, index):
    """Loads the sample documents into an index unless it is there already; returns whether it did."""
    try:
        call(f"{url}/{index}/_search", b'{"size":0}')
        return False
    except urllib.error.HTTPError as error:
        if error.code != 404:
            raise
    documents = (HERE / "books.ndjson").read_bytes()
    response = call(f"{url}/{index}/_bulk?refresh=true", documents, "application/x-ndjson")
    if response["errors"]:
        raise RuntimeError(f"{url} did not take all documents: {json.dumps(response)[:500]}")
    return True


def start_search_server(cluster):
    """Runs the bundled search server as the cluster's user; returns the process and its URL."""
    # That user may not be allowed to read this folder, so the server runs from a copy.
    package = pathlib.Path(cluster.directory, "searchserver")
    package.mkdir(mode=0o755)
    for module in (HERE / "searchserver").glob("*.py"):
        shutil.copyfile(module, package / module.name)
    log = package / "server.log"
    with log.open("w", encoding="utf-8") as errors:
        process = cluster.run_as(["/usr/bin/python3", "-B", "-m", "searchserver"], stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=errors, text=True, start_new_session=True)
    port = process.stdout.readline().strip()
    if not port:
        raise RuntimeError(f"the bundled search server did not start\n{log.read_text(encoding='utf-8')}")
    return process, f"http://127.0.0.1:{port}"


def stop(process):
    process.terminate()
    process.wait()


def search_server(cluster, stack):
    """The URL and the index of the search server to use, with the documents in it."""
    url = os.environ.get("ELASTICSEARCH_URL", "").rstrip("/")
    if url:
        index = "veltrane_demo_books"
        try:
            loaded = load_documents(url, index)
        except (urllib.error.URLError, ValueError) as error:
            raise RuntimeError(f"ELASTICSEARCH_URL={url} cannot be used: {error}")
        state = "loaded into" if loaded else "are already in"
        print(f"Search server: {url}; sample documents {state} index {index}")
        return url, index
    process, url = start_search_server(cluster)
    stack.callback(stop, process)
    load_documents(url, "books")
    print(f"Search server: {url} (bundled), sample documents in index books")
    return url, "books"


def major_version(url):
    """The major version of a search server, as it tells it."""
    with urllib.request.urlopen(url, timeout=WAIT_SECONDS) as response:
        return json.load(response)["version"]["number"].partition(".")[0]


def extension_script(module):
    """What CREATE EXTENSION runs, for a module that is not installed."""
    scripts = sorted((HERE.parent / "extension").glob("*.sql"), key=lambda path: path.name.count("--"))
    text = "".join(path.read_text(encoding="utf-8").partition("\n")[2] for path in scripts)
    return text.replace("MODULE_PATHNAME", module)


def create_tables(connection, cluster, url, index):
    """Makes the wrappers and the tables of the tour, for a search server of any version."""
    parts = urllib.parse.urlsplit(url)
    address = parts.hostname if parts.scheme == "http" else f"{parts.scheme}://{parts.hostname}"
    values = {"url": url, "address": address, "port": str(parts.port or 9200), "index": index,
              "version": major_version(url)}
    with connection.cursor() as cursor:
        cursor.execute(extension_script(cluster.module_path))
        cursor.execute(SETUP.format(**{name: QuotedString(value).getquoted().decode()
                                       for name, value in values.items()}))


def show(connection, query, title=None):
    """Runs a query and prints its text and its rows; psycopg2.Error when it fails."""
    if title:
        print(f"\n-- {title}")
    print(f"{query.rstrip().rstrip(';')};\n")
    with connection.cursor() as cursor:
        started = time.monotonic()
        cursor.execute(query)
        if cursor.description is None:
            print(cursor.statusmessage)
            return
        rows = cursor.fetchall()
        took = (time.monotonic() - started) * 1000
        for line in table([column.name for column in cursor.description], rows):
            print(line)
        print(f"({len(rows)} row{'' if len(rows) == 1 else 's'}, {took:.1f} ms)", flush=True)


def run(options, ready):
    """Sets everything up, shows the queries, calls `ready(cluster)`, and takes everything down again."""
    with PrivateCluster(module=options.module) as cluster, contextlib.ExitStack() as stack:
        try:
            url, index = search_server(cluster, stack)
            connection = psycopg2.connect(cluster.dsn)
            stack.callback(connection.close)
            connection.set_client_encoding("UTF8")
            connection.autocommit = True
            create_tables(connection, cluster, url, index)
            for title, query in [(None, options.query)] if options.query else TOUR:
                show(connection, query, title)
            ready(cluster)
        finally:
            for number in STOP_SIGNALS:  # a second Ctrl-C must not cut the tidying short
                signal.signal(number, signal.SIG_IGN)


def interrupted(*_):
    raise KeyboardInterrupt


def keep(options):
    """Runs the demo in a process that stays behind, and returns once the queries have been shown."""
    shown, tell = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(shown)

        def stay(cluster):
            print(f"\nConnect:  {cluster.psql_line()}\nStop:     kill {os.getpid()}", flush=True)
            os.setsid()
            nothing = os.open(os.devnull, os.O_RDWR)
            for stream in range(3):
                os.dup2(nothing, stream)
            os.write(tell, b"1")
            os.close(tell)
            signal.pthread_sigmask(signal.SIG_BLOCK, STOP_SIGNALS)
            signal.sigwait(STOP_SIGNALS)

        os._exit(attempt(options, stay))
    os.close(tell)
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the child has it too, and tidies up
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: os.kill(child, signal.SIGTERM))
    if os.read(shown, 1):
        return 0
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])


def attempt(options, ready):
    """The exit status of a run; what went wrong is said on the standard error stream."""
    try:
        run(options, ready)
        return 0
    except KeyboardInterrupt:
        return 130
    except (psycopg2.Error, RuntimeError, OSError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 1
    finally:
        with contextlib.suppress(OSError):
            sys.stdout.flush()


def main():
    parser = argparse.ArgumentParser(prog="scripts/demo.sh", description=__doc__)
    parser.add_argument("--module", required=True, help="the module's file (scripts/demo.sh gives it)")
    parser.add_argument("--keep", action="store_true", help="leave everything running")
    parser.add_argument("query", nargs="?", metavar="QUERY",
                        help="a query of your own on the foreign table books (or classic_books)")
    options = parser.parse_args()
    os.umask(0o022)
    sys.stdout.reconfigure(encoding="utf-8", line_buffering=True)
    for number in STOP_SIGNALS:
        signal.signal(number, interrupted)
    set_wait_callback(wait_select)  # so that Ctrl-C cancels a running query
    sys.exit(keep(options) if options.keep else attempt(options, lambda cluster: None))


if __name__ == "__main__":
    main()
