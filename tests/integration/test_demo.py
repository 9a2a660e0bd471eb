"""scripts/demo end to end without its VM half: it shows PROBE replies and leaves nothing
behind (namespaces, daemon, socket, temporary files)."""
import os
import subprocess

import pytest

from conftest import ROOT, sh

pytestmark = pytest.mark.privileged


def netns_names():
    return {line.split()[0] for line in sh("ip", "netns", "list").stdout.splitlines() if line}


def test_demo_shows_probe_replies_and_cleans_up(tmp_path):
    before = netns_names()
    # The demo's temporary directory (socket, configuration, netns directory) goes under TMPDIR.
    env = dict(os.environ, RAVEL_DEMO_NO_VM="1", TMPDIR=str(tmp_path))
    r = subprocess.run([ROOT / "scripts" / "demo"], env=env, capture_output=True, text=True,
                       timeout=120)
    print(r.stdout, r.stderr)
    assert r.returncode == 0
    # ifname, ifindex and ifaddr requests answered; the unknown name refused.
    assert r.stdout.count("code=0 (No Error)") >= 3
    assert "code=2 (No Such Interface)" in r.stdout
    assert "== ravelctl show probe" in r.stdout and "== ravelctl show errors" in r.stdout
    left = {n for n in netns_names() - before if n.startswith("rvdemo")}
    assert not left
    assert list(tmp_path.iterdir()) == []
    assert sh("pgrep", "-f", str(tmp_path), check=False).stdout == ""
