#pragma once

// Test double of the kernel error filter: holds the VRFs it was given and fails on demand.

#include <map>
#include <set>
#include <string>

#include "error/datapath/KernelErrorFilter.h"

namespace Ravel::testing {

class FakeKernelErrorFilter final : public ErrorResponder::KernelErrorFilter {
 public:
   bool vrfIs(const VrfName& vrf, const std::string& nsPath) override {
      ++calls;
      if (failing.count(vrf))
         return false;
      installed[vrf] = nsPath;
      return true;
   }
   void vrfDel(const VrfName& vrf) override {
      installed.erase(vrf);
      live.erase(vrf);
   }
   bool liveIs(const VrfName& vrf, ErrorResponder::LiveFamilies families) override {
      ++refreshes;
      if (!installed.count(vrf) || failing.count(vrf)) {
         live.erase(vrf);
         return false;
      }
      live[vrf] = families;
      return true;
   }

   std::map<VrfName, std::string> installed;              // VRF -> namespace path
   std::map<VrfName, ErrorResponder::LiveFamilies> live;  // the last liveIs per VRF
   std::set<VrfName> failing;                             // vrfIs and liveIs fail for these
   int calls = 0;
   int refreshes = 0;
};

}  // namespace Ravel::testing
