#include "probe/ProbeSchema.h"

#include "platform/agent/AgentFramework.h"

namespace Ravel::ProbeResponder {

RAVEL_REGISTER_ENTITY(Config);
RAVEL_REGISTER_ENTITY(Status);

}  // namespace Ravel::ProbeResponder
