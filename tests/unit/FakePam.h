#pragma once

// Test doubles of the PAM and its factory: they record what the code under test asks of them
// and fail on demand.

#include <cerrno>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/core/Errno.h"
#include "platform/linux/IpPam.h"

namespace Ravel::testing {

class FakePam : public IpPam {
 public:
   using IpPam::IpPam;

   void filterProgramIs(const SockFilterProgram& prog) override { filter = prog; }
   void optionsIs(unsigned o) override { options_ = o; }
   void enabledIs(bool e) override { enabled_ = e; }

   struct Rx {
      Ptr<Pkt> pkt;
      IpGenAddr src, dst;
      uint32_t ifIndex = 0;
   };
   // Queues a packet and, unless told not to, tells the observers as a readable socket would.
   // Unlike the socket, it notifies whether or not the PAM is enabled.
   void inject(std::span<const uint8_t> bytes, const IpGenAddr& src, const IpGenAddr& dst,
               bool notify = true, uint32_t ifIndex = 0) {
      rx.push_back({Pkt::fromBytes(bytes), src, dst, ifIndex});
      if (notify)
         readable_.notify();
   }
   Ptr<Pkt> rxPkt() override {
      if (rx.empty())
         return nullptr;
      Rx r = std::move(rx.front());
      rx.pop_front();
      rxSrc_ = r.src;
      rxDst_ = r.dst;
      rxIfIndex_ = r.ifIndex;
      ++counters_.rxPkts;
      counters_.rxBytes += r.pkt->size();
      return r.pkt;
   }

   // A sent packet with the transmit settings it went out with.
   struct Tx {
      std::vector<uint8_t> bytes;
      IpGenAddr src, dst;
      int ttl = -1;
      uint32_t mark = 0;
      uint32_t ifIndex = 0;
   };
   // Records the packet unless nextTxErrno is set (then counts an error). Sends whether or not
   // the PAM is enabled.
   void txPktIs(const Ptr<Pkt>& pkt) override {
      txErrno_ = nextTxErrno;
      if (txErrno_) {
         ++counters_.txErrors;
         return;
      }
      tx.push_back({std::vector<uint8_t>(pkt->data(), pkt->data() + pkt->size()), txSrc_, txDst_,
                    txTtl_, txMark_, txIfIndex_});
      ++counters_.txPkts;
      counters_.txBytes += pkt->size();
   }

   void countersIs(const PamCounters& c) { counters_ = c; }

   SockFilterProgram filter;
   std::deque<Rx> rx;
   std::vector<Tx> tx;
   int nextTxErrno = 0;
};

class FakePamFactory : public PamFactory {
 public:
   // The next `times` creations in namespace `ns` for family `af` throw Errno(err), with errno
   // set to err as the real factory leaves it.
   void failNext(const std::string& ns, AddressFamily af, int err, int times = 1) {
      failures[{ns, af}] = {err, times};
   }

   Ptr<IpPam> ipSocketPamFactory(const std::string& name, int protocol,
                                 const std::string& ns) override {
      return create(name, AddressFamily::ipv4, protocol, ns);
   }
   Ptr<IpPam> ip6SocketPamFactory(const std::string& name, int protocol,
                                  const std::string& ns) override {
      return create(name, AddressFamily::ipv6, protocol, ns);
   }

   // Every PAM created, in order (the factory keeps a reference).
   std::vector<Ptr<FakePam>> created;
   // (namespace, family) -> (errno, creations left to fail)
   std::map<std::pair<std::string, AddressFamily>, std::pair<int, int>> failures;

 private:
   Ptr<IpPam> create(const std::string& name, AddressFamily af, int protocol,
                     const std::string& ns) {
      if (auto it = failures.find({ns, af}); it != failures.end() && it->second.second > 0) {
         --it->second.second;
         Errno e(it->second.first, "fake PAM creation in " + ns);
         errno = it->second.first;
         throw e;
      }
      auto pam = make<FakePam>(name, af, protocol, ns);
      created.push_back(pam);
      return pam;
   }
};

}  // namespace Ravel::testing
