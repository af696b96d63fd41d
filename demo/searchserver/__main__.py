"""Command line: python3 -m searchserver. Prints its port on one line, then serves until told to stop."""

import argparse
import pathlib
import signal
import sys

from . import SearchServer
from .dialect import DIALECTS


def main():
    options = argparse.ArgumentParser(prog="searchserver", description=__doc__)
    options.add_argument("--port", type=int, default=0, help="0 takes a free one (default)")
    options.add_argument("--documents", type=pathlib.Path, action="append", default=[], metavar="FILE.ndjson",
                         help="bulk file to load; the index is named after it unless its lines name one")
    options.add_argument("--version", type=int, choices=DIALECTS, default=7,
                         help="major version whose dialect to speak (default: 7)")
    chosen = options.parse_args()
    try:
        serve(chosen)
    except OSError as error:
        sys.exit(f"searchserver: {error}")


def serve(chosen):
    stop = {signal.SIGTERM, signal.SIGINT}
    signal.pthread_sigmask(signal.SIG_BLOCK, stop)
    with SearchServer(chosen.version, chosen.port) as server:
        for path in chosen.documents:
            server.load(path.read_text(encoding="utf-8"), path.stem)
        print("Serving until interrupted, on 127.0.0.1 and port", file=sys.stderr)
        print(server.port, flush=True)
        signal.sigwait(stop)


if __name__ == "__main__":
    main()
