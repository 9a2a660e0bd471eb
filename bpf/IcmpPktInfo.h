/* The record the ICMP probe programs put in their ring buffer and the agent reads back, and the
 * indices of their statistics map. Compiled both as BPF C and as the agent's C++: the layout
 * checks at the end hold the two sides to the same bytes. */
#ifndef RAVEL_ICMP_PKT_INFO_H
#define RAVEL_ICMP_PKT_INFO_H

#ifndef __bpf__
#include <linux/types.h>
#endif

/* Most of the offending datagram a record carries. */
#define ICMP_DATA_MAX_SIZE 1024

/* ICMP header as the kernel prepared it, in wire order. */
struct packet_info_icmp4 {
   __u8 type;
   __u8 code;
   __u16 checksum;
   __u8 rest[4];
};

/* Only icmp6_type and icmp6_code are written by the IPv6 program. */
struct packet_info_icmp6 {
   __u8 icmp6_type;
   __u8 icmp6_code;
   __u16 icmp6_cksum;
   __u8 icmp6_data[4];
};

/* An address in network order; an IPv4 record writes only ip4. */
union packet_info_addr {
   __be32 ip4;
   __u8 ip6[16];
};

struct packet_info {
   __u32 ifindex; /* device of the offending packet */
   __u32 nsindex; /* inode of its network namespace */
   union {
      struct packet_info_icmp4 icmp4;
      struct packet_info_icmp6 icmp6;
   } hdr;
   union packet_info_addr dst_addr; /* the ICMP error's destination */
   union packet_info_addr src_addr; /* the source the kernel chose for it */
   __u32 datalen;                   /* valid bytes in data */
   __u8 data[ICMP_DATA_MAX_SIZE];   /* the offending datagram from its IP header on */
   __u32 iif;                       /* the device it arrived on */
   __u32 oif;                       /* the device its route leads to; 0: none, or delivered here */
   union packet_info_addr gateway;  /* that route's gateway; zero: on-link or none */
};

/* Indices of stats_map. */
enum EbpfStatsType {
   DROPPED = 0, /* a ring buffer reservation failed */
   QUEUED = 1,  /* a record was submitted */
};

#ifdef __cplusplus
#define PACKET_INFO_ASSERT static_assert
#else
#define PACKET_INFO_ASSERT _Static_assert
#endif

PACKET_INFO_ASSERT(sizeof(struct packet_info) == 1100, "packet_info is 1100 bytes");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, ifindex) == 0, "ifindex at 0");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, nsindex) == 4, "nsindex at 4");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, hdr) == 8, "hdr at 8");
PACKET_INFO_ASSERT(sizeof(((struct packet_info*)0)->hdr) == 8, "hdr is 8 bytes");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, hdr.icmp6.icmp6_type) == 8,
                   "icmp6_type at 8");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, hdr.icmp6.icmp6_code) == 9,
                   "icmp6_code at 9");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, dst_addr) == 16, "dst_addr at 16");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, src_addr) == 32, "src_addr at 32");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, datalen) == 48, "datalen at 48");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, data) == 52, "data at 52");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, iif) == 1076, "iif at 1076");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, oif) == 1080, "oif at 1080");
PACKET_INFO_ASSERT(__builtin_offsetof(struct packet_info, gateway) == 1084, "gateway at 1084");
PACKET_INFO_ASSERT(sizeof(enum EbpfStatsType) == 4, "EbpfStatsType is 32 bits");

#undef PACKET_INFO_ASSERT

#endif
