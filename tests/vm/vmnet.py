"""Network namespaces and veth pairs for tests that run inside the test VM.

Everything made here is named with a per-run tag and removed by close(); traffic stays
between these namespaces.
"""
import os
import subprocess


def sh(*args, check=True, **kw):
    return subprocess.run([str(a) for a in args], check=check, capture_output=True, text=True,
                          **kw)


class Netns:
    """A network namespace made with `ip netns add`, loopback up."""

    def __init__(self, name):
        self.name = name
        sh("ip", "netns", "add", name)
        self.run("ip", "link", "set", "lo", "up")
        # Addresses usable at once: no duplicate address detection to wait for.
        for scope in ("all", "default"):
            self.sysctl(f"net.ipv6.conf.{scope}.accept_dad", 0)

    def run(self, *args, check=True, **kw):
        return sh("ip", "netns", "exec", self.name, *args, check=check, **kw)

    def sysctl(self, key, value):
        self.run("sysctl", "-qw", f"{key}={value}")

    def close(self):
        sh("ip", "netns", "del", self.name, check=False)


class Net:
    """Makes namespaces and links them; close() deletes them all."""

    def __init__(self):
        self.tag = f"vm{os.getpid() % 100000}"
        self.made = []

    def ns(self, suffix):
        n = Netns(f"{self.tag}{suffix}")
        self.made.append(n)
        return n

    def link(self, a, a_dev, a_addr, b, b_dev, b_addr):
        """A veth pair between namespaces a and b, both ends up with an address (CIDR)."""
        sh("ip", "-n", a.name, "link", "add", a_dev, "type", "veth", "peer", "name", b_dev,
           "netns", b.name)
        for ns, dev, addr in ((a, a_dev, a_addr), (b, b_dev, b_addr)):
            ns.run("ip", "addr", "add", addr, "dev", dev)
            ns.run("ip", "link", "set", dev, "up")

    def router(self, left, left_net, right, right_net, suffix="r", name=None, v6=None):
        """A forwarding namespace between left and right: left_net and right_net are /24
        prefixes such as "192.0.2"; the router is .1 on both, the hosts are .2 and route
        through it. v6, a pair of /64 prefixes such as ("2001:db8:1::", "2001:db8:2::"), adds
        IPv6 the same way (::1 and ::2). name: the router namespace's full name instead of a
        tagged one. Returns the router namespace."""
        r = self.ns(suffix) if name is None else self.named(name)
        r.sysctl("net.ipv4.ip_forward", 1)
        r.sysctl("net.ipv6.conf.all.forwarding", 1)
        nets = zip((left_net, right_net), v6 or (None, None))
        for host, (net, net6), rdev in zip((left, right), nets, ("rl", "rr")):
            self.link(r, rdev, f"{net}.1/24", host, "eth0", f"{net}.2/24")
            host.run("ip", "route", "add", "default", "via", f"{net}.1")
            if net6:
                r.run("ip", "addr", "add", f"{net6}1/64", "dev", rdev, "nodad")
                host.run("ip", "addr", "add", f"{net6}2/64", "dev", "eth0", "nodad")
                host.run("ip", "-6", "route", "add", "default", "via", f"{net6}1")
        return r

    def named(self, name):
        n = Netns(name)
        self.made.append(n)
        return n

    def close(self):
        for n in reversed(self.made):
            n.close()
        self.made.clear()
