// SPDX-License-Identifier: GPL-2.0
/* IPv4: reports the ICMP destination unreachable, time exceeded and parameter problem errors the
 * kernel is about to send from a namespace the agent has enabled, so that the agent can send its
 * own extended one. */
#include "icmp_kprobe_ebpf_common.h"

#define ICMP_DEST_UNREACH 3
#define ICMP_TIME_EXCEEDED 11
#define ICMP_PARAMETERPROB 12

/* Position of icmp_param among icmp_push_reply's arguments: 0 for (icmp_param, fl4, ipc, rt),
 * 1 where the kernel passes its ICMP socket first (sk, icmp_param, fl4, ipc, rt). Set by the
 * loader from the running kernel's BTF before load; the verifier drops the branch not taken. */
const volatile __u32 icmp_param_arg = 0;

static __always_inline int report_icmp_error(struct icmp_bxm* icmp_param, struct flowi4* fl4,
                                             struct ipcm_cookie* cookie) {
   struct sk_buff* skb = BPF_CORE_READ(icmp_param, skb);
   struct icmphdr icmph = {};
   BPF_CORE_READ_INTO(&icmph, icmp_param, data.icmph);

   if (icmph.type != ICMP_DEST_UNREACH && icmph.type != ICMP_TIME_EXCEEDED &&
       icmph.type != ICMP_PARAMETERPROB)
      return 0;
   if (left_to_kernel(skb))
      return 0;

   __u32 nsid = get_nsid_skb(skb);
   if (!ns_enabled(nsid))
      return 0;

   struct packet_info* info = bpf_ringbuf_reserve(&ringbuf, sizeof(*info), 0);
   if (!info) {
      stats_inc(DROPPED);
      return 0;
   }
   info->ifindex = BPF_CORE_READ(skb, dev, ifindex);
   info->nsindex = nsid;
   __builtin_memcpy(&info->hdr.icmp4, &icmph, sizeof(info->hdr.icmp4));

   /* The kernel quotes data_len bytes from the network header (at most 576 - 28 of them). */
   __u32 size = quote_length(skb, BPF_CORE_READ(icmp_param, data_len));
   info->datalen = size;
   unsigned char* head = BPF_CORE_READ(skb, head);
   __u16 network_header = BPF_CORE_READ(skb, network_header);
   if (size > 0 && size <= ICMP_DATA_MAX_SIZE)
      bpf_probe_read_kernel(info->data, size, head + network_header);
   read_route(skb, info, false);

   info->dst_addr.ip4 = BPF_CORE_READ(cookie, addr);
   info->src_addr.ip4 = BPF_CORE_READ(fl4, saddr);

   stats_inc(QUEUED);
   bpf_ringbuf_submit(info, BPF_RB_FORCE_WAKEUP);
   return 0;
}

SEC("kprobe/icmp_push_reply")
int kprobe_icmp_push_reply(struct pt_regs* ctx) {
   if (icmp_param_arg == 1)
      return report_icmp_error((struct icmp_bxm*)PT_REGS_PARM2(ctx),
                               (struct flowi4*)PT_REGS_PARM3(ctx),
                               (struct ipcm_cookie*)PT_REGS_PARM4(ctx));
   return report_icmp_error((struct icmp_bxm*)PT_REGS_PARM1(ctx),
                            (struct flowi4*)PT_REGS_PARM2(ctx),
                            (struct ipcm_cookie*)PT_REGS_PARM3(ctx));
}

char LICENSE[] SEC("license") = "GPL";
