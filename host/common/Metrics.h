#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Ravel {
class IpPam;
}
namespace Ravel::ProbeResponder {
class Status;
}
namespace Ravel::ErrorResponder {
class Status;
}

namespace Ravel::host {

// The counters the agent publishes, in the Prometheus text exposition format (version 0.0.4),
// for node_exporter's textfile collector or any scraper. Counter names come from the same
// lists the JSON commands walk, so a counter added there shows up here without more work.
class Metrics {
 public:
   using Labels = std::vector<std::pair<std::string, std::string>>;
   struct Sample {
      Labels labels;
      std::string value;  // integer text: counts are exact beyond 2^53
   };
   struct Family {
      std::string name;  // "ravel_..."; counters end in "_total"
      std::string type;  // "counter" or "gauge"
      std::string help;
      std::vector<Sample> samples;
   };

   // Either status may be null (entity not mounted): its families are then left out.
   void probeStatusIs(const ProbeResponder::Status* s);
   void errorStatusIs(const ErrorResponder::Status* s);
   // The packet sockets' counters, labelled by VRF and family; the families are there with no
   // PAM open.
   void pamsIs(const std::vector<const IpPam*>& pams);
   const std::vector<Family>& families() const { return families_; }
   std::string text() const;

   // "requestsReceived" -> "requests_received".
   static std::string snakeCase(std::string_view camel);
   // Label values escape backslash, double quote and newline; HELP text the first and last.
   static std::string escapeLabelValue(std::string_view v);
   static std::string escapeHelp(std::string_view v);

 private:
   Family& family(const std::string& name, const char* type, std::string help);
   std::vector<Family> families_;
};

}  // namespace Ravel::host
