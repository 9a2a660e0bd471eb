#include "platform/linux/IpPam.h"

#include "platform/core/Assert.h"

namespace Ravel {

namespace {
PamFactory* gFactory = nullptr;

std::set<const IpPam*>& livePams() {
   static std::set<const IpPam*> pams;
   return pams;
}
}  // namespace

IpPam::IpPam(std::string name, AddressFamily af, int protocol, std::string netNs)
    : name_(std::move(name)), af_(af), protocol_(protocol), netNs_(std::move(netNs)) {
   livePams().insert(this);
}

IpPam::~IpPam() {
   livePams().erase(this);
}

const std::set<const IpPam*>& IpPam::all() {
   return livePams();
}

PamFactory& PamFactory::instance() {
   RAVEL_ASSERT_MSG(gFactory, "no PAM factory installed");
   return *gFactory;
}

void PamFactory::instanceIs(PamFactory* f) {
   gFactory = f;
}

}  // namespace Ravel
