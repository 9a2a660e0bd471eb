"""Kernel state reaches the store: VRFs from namespaces, links, addresses, neighbours."""
import json
import os
import re
import signal
import time

import pytest

from conftest import Daemon, sh, wait_for

pytestmark = pytest.mark.privileged


def state(d):
    return json.loads(d.ctl("show", "state", "--json").stdout)


def test_vrf_interfaces_addresses_neighbours_follow_the_kernel(namespaces, workdir):
    vrf = f"rvt{os.getpid() % 100000}"
    vrf_ns = f"ns-{vrf}"
    home, peer = namespaces.make("h"), namespaces.make("p")
    sh("ip", "netns", "add", vrf_ns)
    try:
        sh("ip", "-n", vrf_ns, "link", "set", "lo", "up")
        sh("ip", "-n", vrf_ns, "link", "add", "v0", "type", "veth", "peer", "name", "p0", "netns", peer.name)
        sh("ip", "-n", vrf_ns, "addr", "add", "10.1.0.1/24", "dev", "v0")
        sh("ip", "-n", vrf_ns, "addr", "add", "fd00::1/64", "dev", "v0", "nodad")
        sh("ip", "-n", vrf_ns, "link", "set", "v0", "up")
        peer.run("ip", "addr", "add", "10.1.0.2/24", "dev", "p0")
        peer.run("ip", "addr", "add", "fd00::2/64", "dev", "p0", "nodad")
        peer.run("ip", "link", "set", "p0", "up")

        d = Daemon(home, workdir, netns_dir="/run/netns").start()
        inode = os.stat(f"/run/netns/{vrf_ns}").st_ino
        assert wait_for(lambda: vrf in state(d).get("vrfs", {}), 3)
        s = state(d)
        assert s["vrfs"][vrf] == {"state": "active", "nsInode": inode, "nsInodeValid": True}
        vrf_id = s["vrfIds"][vrf]
        assert vrf_id != 0 and s["vrfIds"]["default"] == 0

        intf = f"{vrf}/v0"
        assert wait_for(lambda: "10.1.0.1/24" in state(d)["interfaces"].get(intf, {}).get("ipv4", []), 3)
        e = state(d)["interfaces"][intf]
        assert (e["vrf"], e["oper"], e["mtu"], e["device"]) == (vrf, "up", 1500, "v0")
        assert "fd00::1/64" in e["ipv6"]
        # Every namespace has its own "lo": both are there, under different names.
        assert "lo" in s["interfaces"] and f"{vrf}/lo" in s["interfaces"]

        sh("ip", "netns", "exec", vrf_ns, "ping", "-c1", "-W2", "10.1.0.2")
        sh("ip", "netns", "exec", vrf_ns, "ping", "-6", "-c1", "-W2", "fd00::2")

        def neighbours():
            s = state(d)
            return ({(n["vrfId"], n["addr"], n["intf"]) for n in s.get("arp", [])},
                    {(n["vrfId"], n["addr"], n["intf"]) for n in s.get("nd", [])})

        assert wait_for(lambda: (vrf_id, "10.1.0.2", intf) in neighbours()[0], 3)
        assert wait_for(lambda: (vrf_id, "fd00::2", intf) in neighbours()[1], 3)

        t0 = time.time()
        sh("ip", "-n", vrf_ns, "link", "set", "v0", "down")
        assert wait_for(lambda: state(d)["interfaces"][intf]["oper"] == "down", 3)
        latency = time.time() - t0
        assert latency < 1.0  # includes two ravelctl round trips; the store itself is faster
    finally:
        sh("ip", "netns", "del", vrf_ns, check=False)
    assert wait_for(lambda: vrf not in state(d).get("vrfs", {}), 3)
    s = state(d)
    assert not any(k.startswith(vrf + "/") for k in s["interfaces"])
    assert vrf not in s.get("vrfIds", {})
    d.stop()


def raw_socket_inodes(ns_name):
    ss = sh("ip", "netns", "exec", ns_name, "ss", "-A", "raw", "-a", "-n", "-p").stdout
    found = re.findall(r'"ravel",pid=(\d+),fd=(\d+)', ss)
    return sorted(os.readlink(f"/proc/{pid}/fd/{fd}") for pid, fd in found)


def test_lost_netlink_notifications_reload_without_withdrawing_the_vrf(namespaces, workdir):
    vrf = f"rvo{os.getpid() % 100000}"
    vrf_ns = f"ns-{vrf}"
    home = namespaces.make("o")
    sh("ip", "netns", "add", vrf_ns)
    try:
        pairs = 1000
        sh("ip", "-n", vrf_ns, "-batch", "-",
           input="".join(f"link add a{i} type veth peer b{i}\n" for i in range(pairs)))
        cfg = workdir / "ravel.yaml"
        cfg.write_text(f"error-responder:\n  enabled: true\n  vrfs:\n    {vrf}: {{enabled: true}}\n")
        d = Daemon(home, workdir, config=cfg, netns_dir="/run/netns").start()
        assert wait_for(lambda: f"{vrf}/b{pairs - 1}" in state(d)["interfaces"], 10)
        assert wait_for(lambda: len(raw_socket_inodes(vrf_ns)) == 2, 5)
        sockets = raw_socket_inodes(vrf_ns)

        # Stopped, the daemon reads nothing while the burst overflows its receive buffer.
        d.proc.send_signal(signal.SIGSTOP)
        try:
            burst = "".join(f"link set a{i} up mtu 1400\nlink set b{i} up mtu 1400\n"
                            for i in range(pairs))
            sh("ip", "-n", vrf_ns, "-batch", "-", input=burst)
        finally:
            d.proc.send_signal(signal.SIGCONT)

        def complete():
            intfs = state(d)["interfaces"]
            return all(intfs.get(f"{vrf}/{p}{i}", {}).get("mtu") == 1400
                       and intfs[f"{vrf}/{p}{i}"]["oper"] == "up"
                       for i in range(pairs) for p in "ab")

        assert wait_for(complete, 20)
        assert "reloading" in d.output()
        assert vrf in state(d)["vrfs"]
        # The same sockets: the VRF was never withdrawn, so its PAMs were never reopened.
        assert raw_socket_inodes(vrf_ns) == sockets
        d.stop()
    finally:
        sh("ip", "netns", "del", vrf_ns, check=False)
