#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/core/Fd.h"
#include "platform/core/Scheduler.h"
#include "platform/linux/IpPam.h"

namespace Ravel {

// A raw IP socket opened inside a VRF's namespace; receives with recvmsg and packet-info
// control messages (the option bits), sends with sendmsg.
//
// Filter race: a drop-all filter is attached right after socket() and the queue is then
// drained, so what arrived before the owner's program is never read; filterProgramIs swaps
// the program atomically (SO_ATTACH_FILTER replaces the old one).
//
// Readability: while enabled, a level-triggered FdTask watches the socket. With observers of
// readable() it notifies them on every pass while packets wait; with none it reads and drops
// what waits (rxDrops), so an unread socket cannot keep the scheduler spinning. Notifier has no
// hook for observers coming and going, so the watch cannot follow them.
class SocketPam : public IpPam {
 public:
   ~SocketPam() override;

   void filterProgramIs(const SockFilterProgram& prog) override;
   void optionsIs(unsigned options) override;
   void enabledIs(bool enabled) override;
   Ptr<Pkt> rxPkt() override;
   void txPktIs(const Ptr<Pkt>& pkt) override;
   int fd() const { return fd_.get(); }

 protected:
   // Throws Errno: ENOENT when `<netnsDir>/<namespaceName>` is missing.
   SocketPam(std::string name, AddressFamily af, int protocol, std::string namespaceName,
             const std::string& netnsDir);

 private:
   void handleReadable();
   Fd fd_;
   uint32_t appliedMark_ = 0;
   std::unique_ptr<FdTask> task_;
};

// AF_INET: receives from the IPv4 header on, sends from the ICMP header on.
class IpSocketPam final : public SocketPam {
 public:
   IpSocketPam(std::string name, int protocol, std::string namespaceName,
               const std::string& netnsDir)
       : SocketPam(std::move(name), AddressFamily::ipv4, protocol, std::move(namespaceName),
                   netnsDir) {}
};

// AF_INET6: receives and sends ICMPv6 messages; the kernel fills the checksum.
class Ip6SocketPam final : public SocketPam {
 public:
   Ip6SocketPam(std::string name, int protocol, std::string namespaceName,
                const std::string& netnsDir)
       : SocketPam(std::move(name), AddressFamily::ipv6, protocol, std::move(namespaceName),
                   netnsDir) {}
};

// Runs `fn` with the calling thread inside the namespace file `nsPath` (the current namespace
// when empty) and always returns it to the agent's own namespace, also when `fn` throws.
// Throws Errno (ENOENT for a missing file, EINVAL for one that is not a network namespace).
void inNamespace(const std::string& nsPath, const std::function<void()>& fn);

std::unique_ptr<PamFactory> makeSocketPamFactory(std::string netnsDir);

}  // namespace Ravel
