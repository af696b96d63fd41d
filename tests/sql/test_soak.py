"""Eight backends at work for a while; VELTRANE_SOAK_MINUTES says how long, one minute by default."""
import os
import sys

from conftest import ROOT

sys.path.insert(0, str(ROOT / "tests/soak"))

from soak import Soak  # noqa: E402


def test_soak(cluster):
    soak = Soak(cluster, float(os.environ.get("VELTRANE_SOAK_MINUTES", "1")))
    problems = soak.run()
    if not problems:
        print("\n" + soak.summary())
    assert problems == []
