// SPDX-License-Identifier: GPL-2.0
/* IPv6: reports the ICMPv6 destination unreachable and time exceeded errors the kernel is about
 * to send from a namespace the agent has enabled, so that the agent can send its own extended
 * one. icmpv6_route_lookup is the last point where the error's addresses and the offending skb
 * are both at hand. */
#include "icmp_kprobe_ebpf_common.h"

#define ICMPV6_DEST_UNREACH 1
#define ICMPV6_TIME_EXCEED 3
/* What of the datagram fits in an ICMPv6 error at the IPv6 minimum MTU: 1280 - 40 - 8. */
#define ICMPV6_MAX_QUOTE 1232

SEC("kprobe/icmpv6_route_lookup")
int BPF_KPROBE(kprobe_icmpv6_route_lookup, struct net* net, struct sk_buff* skb, struct sock* sk,
               struct flowi6* fl6) {
   __u8 type = BPF_CORE_READ(fl6, uli.icmpt.type);
   __u8 code = BPF_CORE_READ(fl6, uli.icmpt.code);
   if (type != ICMPV6_DEST_UNREACH && type != ICMPV6_TIME_EXCEED)
      return 0;
   if (left_to_kernel(skb))
      return 0;

   /* Locally generated errors may carry neither a device nor a socket namespace; the ICMPv6
    * socket the kernel sends from lives in the right one. */
   __u32 nsid = get_nsid_skb(skb);
   if (nsid == 0 && sk)
      nsid = get_nsid_sock(sk);
   if (nsid == 0 || !ns_enabled(nsid))
      return 0;

   struct packet_info* info = bpf_ringbuf_reserve(&ringbuf, sizeof(*info), 0);
   if (!info) {
      stats_inc(DROPPED);
      return 0;
   }
   info->nsindex = nsid;
   info->hdr.icmp6.icmp6_type = type;
   info->hdr.icmp6.icmp6_code = code;
   info->ifindex = BPF_CORE_READ(skb, dev, ifindex);

   /* The kernel quotes from the network header to the end of the packet, which for a packet
    * delivered here lies before skb->data, at most 1280 - 40 - 8 bytes. */
   unsigned char* head = BPF_CORE_READ(skb, head);
   unsigned char* data = BPF_CORE_READ(skb, data);
   __u16 network_header = BPF_CORE_READ(skb, network_header);
   __s64 kernel_len = (__s64)BPF_CORE_READ(skb, len) + (data - head) - network_header;
   if (kernel_len > ICMPV6_MAX_QUOTE)
      kernel_len = ICMPV6_MAX_QUOTE;
   __u32 size = quote_length(skb, kernel_len);
   info->datalen = size;
   if (size > 0 && size <= ICMP_DATA_MAX_SIZE)
      bpf_probe_read_kernel(info->data, size, head + network_header);
   read_route(skb, info, true);

   BPF_CORE_READ_INTO(&info->dst_addr.ip6, fl6, daddr);
   BPF_CORE_READ_INTO(&info->src_addr.ip6, fl6, saddr);

   stats_inc(QUEUED);
   bpf_ringbuf_submit(info, BPF_RB_FORCE_WAKEUP);
   return 0;
}

char LICENSE[] SEC("license") = "GPL";
