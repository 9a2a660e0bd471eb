#include "platform/store/NetSchema.h"

#include "platform/agent/AgentFramework.h"

namespace Ravel {

const char* toString(OperStatus s) {
   switch (s) {
      case OperStatus::up:
         return "up";
      case OperStatus::down:
         return "down";
      default:
         return "unknown";
   }
}

const char* toString(VrfState s) {
   return s == VrfState::active ? "active" : "inactive";
}

RAVEL_REGISTER_ENTITY(AllIntfStatusDir);
RAVEL_REGISTER_ENTITY(AllIntfStatusLocalDir);
RAVEL_REGISTER_ENTITY(IfIndexStatus);
RAVEL_REGISTER_ENTITY(L3IntfStatusDir);
RAVEL_REGISTER_ENTITY(IpStatus);
RAVEL_REGISTER_ENTITY(Ip6Status);
RAVEL_REGISTER_ENTITY(AllVrfStatusLocal);
RAVEL_REGISTER_ENTITY(ArpTableStatus);
RAVEL_REGISTER_ENTITY(VrfIdMapStatus);
RAVEL_REGISTER_ENTITY(KniNsStatus);
RAVEL_REGISTER_ENTITY(ShowDebug);

}  // namespace Ravel
