#pragma once

#include "pam/PamRecords.h"
#include "platform/agent/AgentFramework.h"
#include "platform/store/NetSchema.h"

namespace Ravel {

// Base of the two sub-agents. The agent core fills the inputs before doMountsComplete.
class MiniAgent : public Node {
 public:
   explicit MiniAgent(CAgent* cAgent) : cAgent_(cAgent) {}
   ~MiniAgent() override;

   virtual void doMountsComplete(MountStatus status, const Ptr<EntityManager>& em) = 0;
   virtual void doInit(const Ptr<MountGroup>& mountGroup) = 0;
   virtual void dumpState(DumpContext& ctx, int indent) const;

   CAgent* cAgent() const { return cAgent_; }
   const Ptr<PamCollection>& pamCollection() const { return pamCollection_; }
   void pamCollectionIs(const Ptr<PamCollection>& p) { pamCollection_ = p; }
   const Ptr<AllIntfStatusDir>& allIntfStatusDir() const { return allIntfStatusDir_; }
   void allIntfStatusDirIs(const Ptr<AllIntfStatusDir>& p) { allIntfStatusDir_ = p; }
   const Ptr<IpStatus>& ipStatus() const { return ipStatus_; }
   void ipStatusIs(const Ptr<IpStatus>& p) { ipStatus_ = p; }
   const Ptr<Ip6Status>& ip6Status() const { return ip6Status_; }
   void ip6StatusIs(const Ptr<Ip6Status>& p) { ip6Status_ = p; }
   const Ptr<AllVrfStatusLocal>& allVrfStatusLocal() const { return allVrfStatusLocal_; }
   void allVrfStatusLocalIs(const Ptr<AllVrfStatusLocal>& p) { allVrfStatusLocal_ = p; }
   const Ptr<PamConfig>& pamConfig() const { return pamConfig_; }
   void pamConfigIs(const Ptr<PamConfig>& p) { pamConfig_ = p; }

 private:
   Ptr<PamCollection> pamCollection_;
   CAgent* cAgent_;
   Ptr<AllIntfStatusDir> allIntfStatusDir_;
   Ptr<IpStatus> ipStatus_;
   Ptr<Ip6Status> ip6Status_;
   Ptr<AllVrfStatusLocal> allVrfStatusLocal_;
   Ptr<PamConfig> pamConfig_;
};

// Prints one line of a dump: plain at indent 0, otherwise prefixed by `indent` spaces.
#define RAVEL_DUMP(ctx, indent, format, ...)                                   \
   do {                                                                        \
      if ((indent) == 0) {                                                     \
         (ctx).printf(format __VA_OPT__(, ) __VA_ARGS__);                      \
      } else {                                                                 \
         (ctx).printf("%*c" format, (indent), ' ' __VA_OPT__(, ) __VA_ARGS__); \
      }                                                                        \
   } while (0)

}  // namespace Ravel
