#include "agent/MiniAgent.h"

namespace Ravel {

// Attributes go in reverse declaration order.
MiniAgent::~MiniAgent() {
   pamConfig_.reset();
   allVrfStatusLocal_.reset();
   ip6Status_.reset();
   ipStatus_.reset();
   allIntfStatusDir_.reset();
   pamCollection_.reset();
}

void MiniAgent::dumpState(DumpContext&, int) const {}

}  // namespace Ravel
