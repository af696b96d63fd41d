"""Eight backends at work for a while; VELTRANE_SOAK_MINUTES says how long, half a minute by default."""
import os

import pytest

from soak import Soak


@pytest.mark.unsanitized
def test_soak(cluster):
    soak = Soak(cluster, float(os.environ.get("VELTRANE_SOAK_MINUTES", "0.5")))
    assert soak.run() == []
    for backend in soak.backends:
        print(f"\n{backend.name}: {dict(backend.counts)}, memory {backend.memory} KiB", end="")
