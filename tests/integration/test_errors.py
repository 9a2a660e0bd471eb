"""The error responder's control path end to end, with the substitute kernel-program loader."""
import json
import os
import signal
from pathlib import Path

import pytest

from conftest import sh, wait_for
from topo import ROUTER4, ROUTER6, build_router

ERRCLIENT = Path(__file__).resolve().parents[1] / "lib" / "errclient.py"

pytestmark = pytest.mark.privileged

ENABLE_RED = "error-responder:\n  vrfs:\n    red:\n      enabled: true\n"


def errors(d):
    return json.loads(d.ctl("show", "errors", "--json").stdout)


def loaded(d):
    f = errors(d)["families"]
    return f["ipv4"]["loaded"], f["ipv6"]["loaded"]


@pytest.fixture
def red(namespaces, workdir):
    """A namespace that the daemon finds as ns-red in its own namespace directory."""
    ns = namespaces.make("red")
    netns_dir = workdir / "netns"
    netns_dir.mkdir(exist_ok=True)
    target = netns_dir / "ns-red"
    target.touch()
    sh("mount", "--bind", ns.path, target)
    yield os.stat(target).st_ino
    sh("umount", target, check=False)


def test_enabling_and_removing_a_vrf_loads_and_unloads_both_programs(
        namespaces, daemon_factory, workdir, red):
    cfg = workdir / "ravel.yaml"
    cfg.write_text(ENABLE_RED)
    d = daemon_factory(namespaces.make("h"), config=cfg, env={"MOCK_EBPF_HELPER": "1"}).start()
    assert wait_for(lambda: loaded(d) == (True, True), 5), d.output()
    e = errors(d)
    for af in ("ipv4", "ipv6"):
        fam = e["families"][af]
        assert set(fam["counters"]) == {
            "ringBufQueued", "pktInfoReceived", "ringBufDropped", "invalidDataSize",
            "insufficientDataLen", "nsValidationFailed", "pktInfoProcessed"}
        assert list(fam["vrfs"]) == ["red"]
        assert fam["vrfs"]["red"]["nsInode"] == red
        assert set(fam["vrfs"]["red"]["counters"]) == {
            "replyAttempted", "pamNotFound", "rfc792ErrorSent", "extendedErrorSent",
            "replySendFailed", "leftToKernel"}

    r = d.ctl("clear", "counters")
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")

    text = d.ctl("show", "errors").stdout
    assert "ipv4 program loaded" in text and f"vrf red nsInode {red}" in text

    # A bad file on reload keeps what runs.
    cfg.write_text(ENABLE_RED + "  node-id-code-point: 300\n")
    d.proc.send_signal(signal.SIGHUP)
    assert wait_for(lambda: "node-id-code-point" in d.ctl("show", "config").stdout.split("\n")[0], 5)
    assert loaded(d) == (True, True)

    cfg.write_text("error-responder:\n  vrfs: {}\n")
    d.proc.send_signal(signal.SIGHUP)
    assert wait_for(lambda: loaded(d) == (False, False), 5), d.output()
    assert errors(d)["families"]["ipv4"]["vrfs"] == {}
    assert d.stop() == 0


def kernel_has_kprobes():
    return os.path.exists("/sys/bus/event_source/devices/kprobe")


def test_without_kprobes_the_kernel_errors_go_on(namespaces, daemon_factory, workdir):
    """The real loader with the default VRF enabled on a kernel without kprobes: both programs
    load but cannot attach; each family says so and when it tries again, the daemon goes on
    serving, no table drops anything, and forwarded and local traffic get the kernel's errors."""
    if kernel_has_kprobes():
        pytest.skip("this kernel attaches kprobes; the VM tier covers loading")
    cfg = workdir / "ravel.yaml"
    cfg.write_text("error-responder:\n  vrfs:\n    default:\n      enabled: true\n")
    r, c = namespaces.make("r"), namespaces.make("c")
    build_router(namespaces, r, c)
    r.run("sysctl", "-qw", "net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1")
    r.run("ip", "link", "add", "d0", "type", "veth", "peer", "name", "d0p")
    r.run("ip", "addr", "add", "198.18.0.1/24", "dev", "d0")
    r.run("ip", "addr", "add", "2001:db8:ff::1/64", "dev", "d0", "nodad")
    r.run("ip", "link", "set", "d0", "up")
    r.run("ip", "link", "set", "d0p", "up")
    c.run("ip", "route", "add", "default", "via", ROUTER4)
    c.run("ip", "-6", "route", "add", "default", "via", ROUTER6)
    env = {k: v for k, v in os.environ.items() if k != "MOCK_EBPF_HELPER"}
    d = daemon_factory(r, config=cfg)
    d.env = env | {"LUMENDIR": str(workdir)}
    d.start()
    assert wait_for(lambda: errors(d)["ebpfLoadFailed"] == 2, 5), d.output()
    e = errors(d)
    for fam in ("ipv4", "ipv6"):
        f = e["families"][fam]
        assert not f["loaded"] and f["loadFailures"] == 1, e
        assert "Failed to attach BPF skeleton" in f["loadError"], e
        assert 0 < f["nextAttemptSeconds"] <= 5, e
    lines = [l for l in d.output().splitlines()
             if l.startswith("IcmpErrResponder: Failed to attach BPF skeleton - err ")]
    assert len(lines) == 2, d.output()
    assert "table inet ravel" not in r.run("nft", "list", "tables").stdout
    for kind, dest, ttl, from_ in (("udp", "198.18.0.2", 1, ROUTER4),
                                   ("udp", "2001:db8:ff::2", 1, ROUTER6),
                                   ("udp", ROUTER4, 64, ROUTER4), ("udp", ROUTER6, 64, ROUTER6)):
        out = c.run("/usr/bin/python3", str(ERRCLIENT), kind, dest, "--ttl", str(ttl)).stdout
        assert [x["from"] for x in json.loads(out)] == [from_], (dest, out)
    assert d.ctl("show", "status").returncode == 0
    assert d.stop() == 0


def test_undefined_acl_name_is_accepted(namespaces, daemon_factory, workdir):
    cfg = workdir / "ravel.yaml"
    cfg.write_text("error-responder:\n  vrfs:\n    red:\n      ipv4-acl: NOT_YET\n")
    d = daemon_factory(namespaces.make("h"), config=cfg, env={"MOCK_EBPF_HELPER": "1"}).start()
    assert "NOT_YET" in d.ctl("show", "config").stdout
