#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/IpPam.h"
#include "platform/Scheduler.h"

namespace Ravel {

// Raw IP socket opened inside a VRF's namespace. Receives through recvmsg with packet-info
// control messages (the option bits), sends with sendmsg, and tells observers of readable()
// from a level-triggered FdTask that is armed only while the PAM is enabled and observed:
// with nobody reading, a readable socket would otherwise keep the scheduler spinning.
class SocketPam : public IpPam {
 public:
   // Opens the socket in `<netnsDir>/<namespaceName>` (the current namespace when the name is
   // empty). Throws Errno (ENOENT when the namespace file is missing).
   SocketPam(std::string name, AddressFamily af, int protocol, std::string namespaceName,
             const std::string& netnsDir);
   ~SocketPam() override;

   void filterProgramIs(const SockFilterProgram& prog) override;
   void optionsIs(unsigned options) override;
   void enabledIs(bool enabled) override;
   Ptr<Pkt> rxPkt() override;
   void txPktIs(const Ptr<Pkt>& pkt) override;
   int fd() const { return fd_; }

 private:
   void updateWatch();

   int fd_ = -1;
   uint32_t appliedMark_ = 0;
   std::unique_ptr<FdTask> task_;
   Subscription observerWatch_;
   std::vector<uint8_t> rxBuf_;
};

using IpSocketPam = SocketPam;
using Ip6SocketPam = SocketPam;

// Runs `fn` with the calling thread inside the namespace file `nsPath` (when not empty) and
// always returns to the original namespace. Throws Errno (ENOENT for a missing file).
void inNamespace(const std::string& nsPath, const std::function<void()>& fn);

std::unique_ptr<PamFactory> makeSocketPamFactory(std::string netnsDir);

}  // namespace Ravel
