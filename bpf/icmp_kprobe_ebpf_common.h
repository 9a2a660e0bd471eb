/* Maps, namespace lookup and counters shared by the IPv4 and IPv6 ICMP probe programs. Each
 * object that includes this gets its own instance of the three maps. */
#ifndef RAVEL_ICMP_KPROBE_EBPF_COMMON_H
#define RAVEL_ICMP_KPROBE_EBPF_COMMON_H

#include "ravel_vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "IcmpPktInfo.h"

/* Sizes the objects are built with; the loader may override the first two before load. */
#define ICMP_RINGBUF_DEFAULT_SIZE (256 * 1024)
#define ICMP_NS_FILTER_DEFAULT_ENTRIES 100
#define ICMP_STATS_ENTRIES 2

/* The agent's only channel for records. */
struct {
   __uint(type, BPF_MAP_TYPE_RINGBUF);
   __uint(max_entries, ICMP_RINGBUF_DEFAULT_SIZE);
} ringbuf SEC(".maps");

/* Namespace inodes of the VRFs the agent answers for; the value (1) is not looked at. */
struct {
   __uint(type, BPF_MAP_TYPE_HASH);
   __uint(max_entries, ICMP_NS_FILTER_DEFAULT_ENTRIES);
   __type(key, __u64);
   __type(value, __u8);
} namespace_filter_map SEC(".maps");

/* Indexed by enum EbpfStatsType; written here, only read by the agent. */
struct {
   __uint(type, BPF_MAP_TYPE_ARRAY);
   __uint(max_entries, ICMP_STATS_ENTRIES);
   __type(key, __u32);
   __type(value, __u64);
} stats_map SEC(".maps");

static __always_inline __u32 get_nsid_sock(struct sock* sk) {
   return BPF_CORE_READ(sk, __sk_common.skc_net.net, ns.inum);
}

/* The device's namespace; a packet still without one (locally generated, not yet routed)
 * takes its socket's. */
static __always_inline __u32 get_nsid_skb(struct sk_buff* skb) {
   __u32 nsid = BPF_CORE_READ(skb, dev, nd_net.net, ns.inum);
   if (nsid == 0) {
      struct sock* sk = BPF_CORE_READ(skb, sk);
      if (sk)
         nsid = get_nsid_sock(sk);
   }
   return nsid;
}

static __always_inline bool ns_enabled(__u32 nsid) {
   __u64 key = nsid;
   return bpf_map_lookup_elem(&namespace_filter_map, &key) != 0;
}

#define IFF_LOOPBACK 0x8

/* Errors the agent leaves to the kernel, which its nftables filter never drops: about packets
 * made here or looped back (they go to a local sender, outside the kernel's rate limits), and
 * about packets of interfaces in a Linux VRF device (a VRF the agent does not route). */
static __always_inline bool left_to_kernel(struct sk_buff* skb) {
   struct net_device* dev = BPF_CORE_READ(skb, dev);
   if (BPF_CORE_READ(skb, skb_iif) == 0 || !dev || (BPF_CORE_READ(dev, flags) & IFF_LOOPBACK))
      return true;
   __u64 priv = BPF_CORE_READ_BITFIELD_PROBED(dev, priv_flags);
   __u64 l3mdev = bpf_core_enum_value(enum netdev_priv_flags, IFF_L3MDEV_MASTER) |
                  bpf_core_enum_value(enum netdev_priv_flags, IFF_L3MDEV_SLAVE);
   return (priv & l3mdev) != 0;
}

/* How much of the datagram the record carries: what the kernel quotes, at most what is readable
 * from the network header in the linear part (the rest sits in page fragments), at most the
 * record's room. */
static __always_inline __u32 quote_length(struct sk_buff* skb, __s64 kernel_len) {
   __s64 linear = (__s64)BPF_CORE_READ(skb, tail) - BPF_CORE_READ(skb, network_header);
   __s64 n = kernel_len < linear ? kernel_len : linear;
   if (n <= 0)
      return 0;
   return n < ICMP_DATA_MAX_SIZE ? (__u32)n : ICMP_DATA_MAX_SIZE;
}

/* The offending packet's arrival device, and where its route leads: the outgoing device and the
 * gateway of a forwarded packet; nothing for one delivered here. */
static __always_inline void read_route(struct sk_buff* skb, struct packet_info* info, bool v6) {
   info->iif = BPF_CORE_READ(skb, skb_iif);
   info->oif = 0;
   __builtin_memset(&info->gateway, 0, sizeof(info->gateway));
   struct dst_entry* dst = (struct dst_entry*)(BPF_CORE_READ(skb, _skb_refdst) & ~1UL);
   if (!dst)
      return;
   struct net_device* out = BPF_CORE_READ(dst, dev);
   if (!out || (BPF_CORE_READ(out, flags) & IFF_LOOPBACK))
      return;
   info->oif = BPF_CORE_READ(out, ifindex);
   if (v6) {
      if (bpf_core_field_exists(struct rt6_info, rt6i_gateway))
         BPF_CORE_READ_INTO(&info->gateway.ip6, (struct rt6_info*)dst, rt6i_gateway);
   } else if (bpf_core_field_exists(struct rtable, rt_gw4)) {
      struct rtable* rt = (struct rtable*)dst;
      if (BPF_CORE_READ(rt, rt_gw_family) == 2 /* AF_INET */)
         info->gateway.ip4 = BPF_CORE_READ(rt, rt_gw4);
   }
}

/* Probes run concurrently on every CPU, hence the atomic add. */
static __always_inline void stats_inc(enum EbpfStatsType type) {
   __u32 key = type;
   __u64* counter = bpf_map_lookup_elem(&stats_map, &key);
   if (counter)
      __sync_fetch_and_add(counter, 1);
}

#endif
