"""The runner's console splitting: only the job's output between the markers reaches stdout,
whatever the chunking of the serial stream."""
import importlib.machinery
import importlib.util
import io
from pathlib import Path

import pytest

_loader = importlib.machinery.SourceFileLoader("vmrun", str(Path(__file__).with_name("run")))
_spec = importlib.util.spec_from_loader("vmrun", _loader)
vmrun = importlib.util.module_from_spec(_spec)
_loader.exec_module(vmrun)

START, END = b"@@ravel-vm start n1\n", b"@@ravel-vm end n1"


@pytest.mark.parametrize("stream, out, ended", [
    (b"boot noise\n" + START + b"hello\n" + END + b"\nreboot: Power down\n", b"hello\n", True),
    # Output without a final newline ends where the end marker starts.
    (START + b"no newline" + END + b"\n", b"no newline", True),
    # Another run's markers are output, not markers.
    (START + b"@@ravel-vm end n2\n" + END, b"@@ravel-vm end n2\n", True),
    # The VM died mid-command: everything after the start marker is output.
    (b"noise" + START + b"partial @@ravel-vm en", b"partial @@ravel-vm en", False),
    (b"noise only, no start marker\n", b"", False),
])
@pytest.mark.parametrize("chunk", [1, 3, 7, 4096])
def test_console_splits_job_output(stream, out, ended, chunk):
    sink = io.BytesIO()
    c = vmrun.Console("n1", sink)
    for i in range(0, len(stream), chunk):
        c.feed(stream[i:i + chunk])
    c.flush()
    assert (sink.getvalue(), c.ended) == (out, ended)
