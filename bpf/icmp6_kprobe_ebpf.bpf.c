// SPDX-License-Identifier: GPL-2.0
/* IPv6: reports the ICMPv6 destination unreachable and time exceeded errors the kernel is about
 * to send from a namespace the agent has enabled, so that the agent can send its own extended
 * one. icmpv6_route_lookup is the last point where the error's addresses and the offending skb
 * are both at hand. */
#include "icmp_kprobe_ebpf_common.h"

#define ICMPV6_DEST_UNREACH 1
#define ICMPV6_TIME_EXCEED 3
#define IPV6_HEADER 40
/* What of the datagram fits in an ICMPv6 error at the IPv6 minimum MTU: 1280 - 40 - 8. */
#define ICMPV6_MAX_QUOTE 1232

SEC("kprobe/icmpv6_route_lookup")
int BPF_KPROBE(kprobe_icmpv6_route_lookup, struct net* net, struct sk_buff* skb, struct sock* sk,
               struct flowi6* fl6) {
   bpf_printk("kprobe/icmpv6_route_lookup\n");

   __u8 type = BPF_CORE_READ(fl6, uli.icmpt.type);
   __u8 code = BPF_CORE_READ(fl6, uli.icmpt.code);
   if (type != ICMPV6_DEST_UNREACH && type != ICMPV6_TIME_EXCEED)
      return 0;

   unsigned char* head = BPF_CORE_READ(skb, head);
   __u16 network_header = BPF_CORE_READ(skb, network_header);
   __u32 skb_data_len = BPF_CORE_READ(skb, data_len);
   __u32 skb_len = BPF_CORE_READ(skb, len);
   __u32 tail = BPF_CORE_READ(skb, tail);
   __u32 ifindex = BPF_CORE_READ(skb, dev, ifindex);

   /* Locally generated errors may carry neither a device nor a socket namespace; the ICMPv6
    * socket the kernel sends from lives in the right one. */
   __u32 nsid = get_nsid_skb(skb);
   if (nsid == 0 && sk)
      nsid = get_nsid_sock(sk);
   if (nsid == 0) {
      bpf_printk("v6:Unable to retrieve ns index from icmp sock\n");
      return 0;
   }
   if (!ns_enabled(nsid))
      return 0;

   __u32 l3pkt_size = tail - network_header;
   __u32 ulen = skb_len < l3pkt_size ? skb_len : l3pkt_size;
   if (ulen > ICMPV6_MAX_QUOTE)
      ulen = ICMPV6_MAX_QUOTE;
   __s32 len = ulen;
   if (skb_data_len > 0) {
      __s32 head_data_sz = (__s32)(skb_len - skb_data_len) - (__s32)network_header;
      if (head_data_sz < len)
         len = head_data_sz;
      if (len < IPV6_HEADER) {
         bpf_printk("Got a non linear skb with less than 40 bytes in head!\n");
         len = 0;
      }
   }

   struct packet_info* info = bpf_ringbuf_reserve(&ringbuf, sizeof(*info), 0);
   if (!info) {
      bpf_printk("Unable to reserve size in ringbuf!\n");
      stats_inc(DROPPED);
      return 0;
   }

   __s32 size_to_read = len < ICMP_DATA_MAX_SIZE ? len : ICMP_DATA_MAX_SIZE;
   info->nsindex = nsid;
   info->datalen = size_to_read;
   info->hdr.icmp6.icmp6_code = code;
   info->hdr.icmp6.icmp6_type = type;
   info->ifindex = ifindex;
   if (size_to_read > 0)
      bpf_probe_read(info->data, size_to_read, head + network_header);

   BPF_CORE_READ_INTO(&info->dst_addr.ip6, fl6, daddr);
   BPF_CORE_READ_INTO(&info->src_addr.ip6, fl6, saddr);

   stats_inc(QUEUED);
   bpf_ringbuf_submit(info, BPF_RB_FORCE_WAKEUP);
   return 0;
}

char LICENSE[] SEC("license") = "GPL";
