#include "platform/linux/IpPam.h"

#include "platform/core/Assert.h"

namespace Ravel {

namespace {
PamFactory* gFactory = nullptr;
}

PamFactory& PamFactory::instance() {
   RAVEL_ASSERT_MSG(gFactory, "no PAM factory installed");
   return *gFactory;
}

void PamFactory::instanceIs(PamFactory* f) {
   gFactory = f;
}

}  // namespace Ravel
