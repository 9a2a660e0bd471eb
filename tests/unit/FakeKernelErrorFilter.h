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
   void vrfDel(const VrfName& vrf) override { installed.erase(vrf); }

   std::map<VrfName, std::string> installed;  // VRF -> namespace path
   std::set<VrfName> failing;                 // vrfIs fails for these
   int calls = 0;
};

}  // namespace Ravel::testing
