/* Kernel types read by the ICMP probe programs, declared by hand instead of a generated
 * vmlinux.h. Only the fields the programs touch are listed; preserve_access_index makes every
 * read a CO-RE relocation, so libbpf finds each field at its offset in the running kernel's BTF
 * whatever the layout of the rest of the structure. Field names must match the kernel's. */
#ifndef RAVEL_VMLINUX_H
#define RAVEL_VMLINUX_H

/* bpf_tracing.h names the x86-64 argument registers after the kernel's pt_regs (di, si, ...)
 * only when it believes a vmlinux header is in use. */
#define __VMLINUX_H__

typedef unsigned char __u8;
typedef signed char __s8;
typedef unsigned short __u16;
typedef short __s16;
typedef unsigned int __u32;
typedef int __s32;
typedef unsigned long long __u64;
typedef long long __s64;
typedef __u16 __be16;
typedef __u32 __be32;
typedef __u16 __sum16;
typedef __u32 __wsum;
typedef _Bool bool;
#define true 1
#define false 0

enum bpf_map_type {
   BPF_MAP_TYPE_HASH = 1,
   BPF_MAP_TYPE_ARRAY = 2,
   BPF_MAP_TYPE_RINGBUF = 27,
};

enum {
   BPF_RB_NO_WAKEUP = 1,
   BPF_RB_FORCE_WAKEUP = 2,
};

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

/* x86-64 register frame handed to kprobes. */
struct pt_regs {
   unsigned long r15;
   unsigned long r14;
   unsigned long r13;
   unsigned long r12;
   unsigned long bp;
   unsigned long bx;
   unsigned long r11;
   unsigned long r10;
   unsigned long r9;
   unsigned long r8;
   unsigned long ax;
   unsigned long cx;
   unsigned long dx;
   unsigned long si;
   unsigned long di;
   unsigned long orig_ax;
   unsigned long ip;
   unsigned long cs;
   unsigned long flags;
   unsigned long sp;
   unsigned long ss;
};

struct ns_common {
   unsigned int inum;
};

struct net {
   struct ns_common ns;
};

typedef struct {
   struct net* net;
} possible_net_t;

/* Relocated by name: the values are the running kernel's. */
enum netdev_priv_flags {
   IFF_L3MDEV_MASTER = 1 << 18,
   IFF_L3MDEV_SLAVE = 1 << 21,
};

struct net_device {
   int ifindex;
   unsigned int flags;
   unsigned long long priv_flags; /* a bitfield in later kernels: read it probed */
   possible_net_t nd_net;
};

struct dst_entry {
   struct net_device* dev;
};

struct in6_addr {
   __u8 s6_addr[16];
};

/* IPv4 route: the gateway, when rt_gw_family says there is one. */
struct rtable {
   struct dst_entry dst;
   __u8 rt_gw_family;
   union {
      __be32 rt_gw4;
      struct in6_addr rt_gw6;
   };
};

struct rt6_info {
   struct dst_entry dst;
   struct in6_addr rt6i_gateway;
};

struct sock_common {
   possible_net_t skc_net;
};

struct sock {
   struct sock_common __sk_common;
};

struct sk_buff {
   struct net_device* dev;
   struct sock* sk;
   unsigned long _skb_refdst; /* the route, with a flag in bit 0 */
   unsigned int len;
   unsigned int data_len;
   int skb_iif; /* the device it arrived on; 0: made here */
   __u16 network_header;
   __u32 tail;
   unsigned char* head;
   unsigned char* data;
};

struct icmphdr {
   __u8 type;
   __u8 code;
   __sum16 checksum;
   __be32 un;
};

struct icmp_bxm {
   struct sk_buff* skb;
   int offset;
   int data_len;
   struct {
      struct icmphdr icmph;
      __be32 times[3];
   } data;
};

struct flowi4 {
   __be32 saddr;
   __be32 daddr;
};

struct ipcm_cookie {
   __be32 addr;
};

union flowi_uli {
   struct {
      __u8 type;
      __u8 code;
   } icmpt;
};

struct flowi6 {
   struct in6_addr daddr;
   struct in6_addr saddr;
   union flowi_uli uli;
};

#pragma clang attribute pop

#endif
