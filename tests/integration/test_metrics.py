"""`ravelctl metrics` end to end: the Prometheus text a scraper would read, parsed by the
reference client library, against the daemon's own JSON counters and real PROBE traffic."""
import json
import os
import re

import pytest
from prometheus_client.parser import text_string_to_metric_families

import probepkt as P
from conftest import wait_for
from probeclient import exchange
from topo import ROUTER4, build_router

pytestmark = pytest.mark.privileged

CONFIG = """
probe:
  enabled: true
  ifname: true
error-responder:
  vrfs:
    red:
      enabled: true
"""


def scrape(d):
    """{(sample name, frozenset(labels)): value} and {family name: (type, help)}."""
    r = d.ctl("metrics")
    assert r.stderr == ""
    samples, families = {}, {}
    for fam in text_string_to_metric_families(r.stdout):
        families[fam.name] = (fam.type, fam.documentation)
        for s in fam.samples:
            key = (s.name, frozenset(s.labels.items()))
            assert key not in samples, key
            samples[key] = s.value
    return samples, families


def snake(name):
    return re.sub(r"(?<=[a-z0-9])([A-Z])", r"_\1", name).lower()


def probe(ident, name, bad_checksum=False):
    ext = P.extension(P.intf_object(name=name))
    m = P.request(ident, 1, True, ext, bad_checksum=bad_checksum)
    return dict(af=4, dst=ROUTER4, msg=m, id=ident, seq=1)


@pytest.fixture
def lab(namespaces, daemon_factory, workdir):
    router, client, red = namespaces.make("r"), namespaces.make("c"), namespaces.make("red")
    build_router(namespaces, router, client)
    (workdir / "netns").mkdir(exist_ok=True)
    os.symlink(red.path, workdir / "netns" / "ns-red")
    cfg = workdir / "ravel.yaml"
    cfg.write_text(CONFIG)
    d = daemon_factory(router, config=cfg, env={"MOCK_EBPF_HELPER": "1"}).start()
    loaded = lambda: all(f["loaded"] for f in
                         json.loads(d.ctl("show", "errors", "--json").stdout)["families"].values())
    assert wait_for(loaded, 5), d.output()
    assert wait_for(lambda: "r0" in json.loads(d.ctl("show", "state", "--json").stdout)
                    .get("interfaces", {}), 5)
    return d, client


def test_metrics_follow_traffic_and_match_the_json_counters(lab):
    d, client = lab
    before, families = scrape(d)

    # Every family is typed and documented; counters only where the name says so.
    for name, (typ, doc) in families.items():
        assert name.startswith("ravel_") and doc, name
        assert typ in ("counter", "gauge"), name
    # Labels: per family for the kernel-record counters, per family and VRF for sends.
    for af in ("ipv4", "ipv6"):
        assert before[("ravel_error_program_loaded", frozenset({("family", af)}))] == 1
        assert ("ravel_error_pkt_info_received_total", frozenset({("family", af)})) in before
        assert ("ravel_error_vrf_extended_error_sent_total",
                frozenset({("family", af), ("vrf", "red")})) in before
    for code in range(5):
        assert ("ravel_probe_replies_total", frozenset({("code", str(code))})) in before

    replies = exchange(client, [probe(0x7001, "r0"), probe(0x7002, "nope0"),
                                probe(0x7003, "r0", bad_checksum=True)], timeout=0.5)
    assert [r is not None for r in replies] == [True, True, False]
    after, _ = scrape(d)

    def moved(name, **labels):
        key = (name, frozenset(labels.items()))
        return after[key] - before[key]

    assert moved("ravel_probe_requests_received_total") == 3
    assert moved("ravel_probe_responses_sent_total") == 2
    assert moved("ravel_probe_incorrect_icmp_checksum_total") == 1
    assert moved("ravel_probe_wrong_vrf_requested_total") == 1
    assert moved("ravel_probe_replies_total", code="0") == 1
    assert moved("ravel_probe_replies_total", code="2") == 1

    # One source for both views: every JSON counter is a metric with the same value.
    status = d.probe_status()["status"]
    for name, value in status.items():
        if name == "codeCount":
            for code, n in value.items():
                assert after[("ravel_probe_replies_total", frozenset({("code", code)}))] == n
        elif name == "lastTxErrno":
            assert after[("ravel_probe_last_tx_errno", frozenset())] == value
        else:
            assert after[(f"ravel_probe_{snake(name)}_total", frozenset())] == value, name
    errs = json.loads(d.ctl("show", "errors", "--json").stdout)
    for af, fam in errs["families"].items():
        for name, value in fam["counters"].items():
            key = (f"ravel_error_{snake(name)}_total", frozenset({("family", af)}))
            assert after[key] == value, key
        for vrf, v in fam["vrfs"].items():
            for name, value in v["counters"].items():
                key = (f"ravel_error_vrf_{snake(name)}_total",
                       frozenset({("family", af), ("vrf", vrf)}))
                assert after[key] == value, key
    for name in ("nsInodeConflict", "ebpfLoadFailed", "kernelErrorFilterFailed"):
        assert after[(f"ravel_error_{snake(name)}_total", frozenset())] == errs[name], name

    # The packet sockets: one sample per open PAM and counter. The three requests came in on
    # the default VRF's IPv4 PAM (its filter passes nothing else), the two replies left by it.
    pam_counters = ("tx_packets", "tx_bytes", "tx_drops", "tx_errors", "rx_packets", "rx_bytes",
                    "rx_drops", "rx_errors")
    for vrf in ("default", "red"):
        for af in ("ipv4", "ipv6"):
            labels = frozenset({("family", af), ("vrf", vrf)})
            for c in pam_counters:
                assert (f"ravel_pam_{c}_total", labels) in after, (c, labels)
            assert after[("ravel_pam_last_tx_errno", labels)] == 0
    assert moved("ravel_pam_rx_packets_total", family="ipv4", vrf="default") == 3
    assert moved("ravel_pam_tx_packets_total", family="ipv4", vrf="default") == 2
    assert moved("ravel_pam_tx_bytes_total", family="ipv4", vrf="default") > 0
    assert moved("ravel_pam_tx_errors_total", family="ipv4", vrf="default") == 0
    assert moved("ravel_pam_rx_packets_total", family="ipv6", vrf="default") == 0
    assert families["ravel_pam_rx_packets"][0] == "counter"
    assert families["ravel_pam_last_tx_errno"][0] == "gauge"
    assert families["ravel_error_kernel_error_filter_failed"][0] == "counter"
