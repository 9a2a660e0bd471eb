#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/core/Notifier.h"
#include "platform/core/Ptr.h"
#include "platform/values/Pkt.h"
#include "platform/values/Values.h"

namespace Ravel {

using SockFilterProgram = std::vector<sock_filter>;

struct PamCounters {
   uint64_t txPkts = 0, txBytes = 0, txDrops = 0, txErrors = 0;
   uint64_t rxPkts = 0, rxBytes = 0, rxDrops = 0, rxErrors = 0;
};

// A packet socket of one VRF and family: a raw IP socket opened in the VRF's namespace.
// The IPv4 PAM receives packets from the IPv4 header on and sends from the ICMP header on (the
// kernel builds the IP header); the IPv6 PAM receives and sends ICMPv6 messages and the kernel
// fills the ICMPv6 checksum.
class IpPam : public Node {
 public:
   // Option bits (optionsIs); either turns on IP_PKTINFO / IPV6_RECVPKTINFO.
   // rxDstIpAddr() is the destination in each received packet's header (a broadcast or
   // multicast address stays one), so a reply can come from the address the request was sent
   // to; without the bit it is the empty address.
   static constexpr unsigned kOptRxDstAddr = 0x008;
   // rxIfIndex() is the arrival interface of each received packet; without the bit it is 0.
   static constexpr unsigned kOptRxIfIndex = 0x400;

   IpPam(std::string name, AddressFamily af, int protocol, std::string netNs);
   ~IpPam() override;
   // Every PAM alive in the process, whoever holds it: what the daemon reports counters of.
   static const std::set<const IpPam*>& all();

   const std::string& name() const { return name_; }
   AddressFamily af() const { return af_; }
   int protocol() const { return protocol_; }
   // Namespace name ("" for the agent's own namespace).
   const std::string& netNs() const { return netNs_; }

   virtual void filterProgramIs(const SockFilterProgram& prog) = 0;
   virtual void optionsIs(unsigned options) = 0;
   unsigned options() const { return options_; }
   // A disabled PAM neither notifies nor transmits.
   virtual void enabledIs(bool enabled) = 0;
   bool enabled() const { return enabled_; }

   // Published while enabled when packets are waiting to be read, again on later passes while
   // some still wait. What arrives while nobody observes may be dropped.
   const Notifier<>& readable() const { return readable_; }
   // The next received packet, or null when none is waiting.
   virtual Ptr<Pkt> rxPkt() = 0;
   // Of the packet rxPkt() returned last.
   const IpGenAddr& rxSrcIpAddr() const { return rxSrc_; }
   const IpGenAddr& rxDstIpAddr() const { return rxDst_; }
   uint32_t rxIfIndex() const { return rxIfIndex_; }

   void txSrcIpAddrIs(const IpGenAddr& a) { txSrc_ = a; }
   void txDstIpAddrIs(const IpGenAddr& a) { txDst_ = a; }
   // TTL or hop limit; -1 keeps the socket's default.
   void txTtlIs(int ttl) { txTtl_ = ttl; }
   void txMarkIs(uint32_t mark) { txMark_ = mark; }
   // The interface packets leave through; 0 lets routing choose. A link-local source is only
   // valid with its interface.
   void txIfIndexIs(uint32_t ifIndex) { txIfIndex_ = ifIndex; }
   uint32_t txIfIndex() const { return txIfIndex_; }
   // Sends synchronously; txErrno() is 0 on success, the errno otherwise.
   virtual void txPktIs(const Ptr<Pkt>& pkt) = 0;
   int txErrno() const { return txErrno_; }

   const PamCounters& counters() const { return counters_; }
   void countersClear() { counters_ = {}; }

 protected:
   std::string name_;
   AddressFamily af_;
   int protocol_;
   std::string netNs_;
   unsigned options_ = 0;
   bool enabled_ = false;
   Notifier<> readable_;
   IpGenAddr rxSrc_, rxDst_;
   uint32_t rxIfIndex_ = 0;
   IpGenAddr txSrc_, txDst_;
   int txTtl_ = -1;
   uint32_t txMark_ = 0;
   uint32_t txIfIndex_ = 0;
   int txErrno_ = 0;
   PamCounters counters_;
};

// Creates PAMs. Throws Errno: ENOENT when the namespace does not exist.
class PamFactory {
 public:
   virtual ~PamFactory() = default;
   virtual Ptr<IpPam> ipSocketPamFactory(const std::string& name, int protocol,
                                         const std::string& namespaceName) = 0;
   virtual Ptr<IpPam> ip6SocketPamFactory(const std::string& name, int protocol,
                                          const std::string& namespaceName) = 0;

   // The factory agents use; the daemon installs the real one at start-up.
   static PamFactory& instance();
   static void instanceIs(PamFactory* f);
};

}  // namespace Ravel
