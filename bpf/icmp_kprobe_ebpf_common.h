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

/* Probes run concurrently on every CPU, hence the atomic add. */
static __always_inline void stats_inc(enum EbpfStatsType type) {
   __u32 key = type;
   __u64* counter = bpf_map_lookup_elem(&stats_map, &key);
   if (counter)
      __sync_fetch_and_add(counter, 1);
}

#endif
