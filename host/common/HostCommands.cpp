#include "host/common/HostCommands.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "error/ErrorResponderSchema.h"
#include "host/common/Daemon.h"
#include "host/common/Metrics.h"
#include "platform/core/Scheduler.h"
#include "platform/linux/IpPam.h"
#include "platform/store/NetSchema.h"
#include "probe/ProbeSchema.h"

namespace Ravel::host {

ShowCallback::ShowCallback(Daemon& daemon)
    : AgentCommandCallback("ravel", "show"), daemon_(daemon) {
   handlerIs("status", [this](int fd, bool json) { showStatus(fd, json); });
   handlerIs("probe", [this](int fd, bool json) { showProbe(fd, json); });
   handlerIs("state", [this](int fd, bool json) { showState(fd, json); });
   handlerIs("errors", [this](int fd, bool json) { showErrors(fd, json); });
   handlerIs("metrics", [this](int fd, bool) { showMetrics(fd); });
   handlerIs("config", [this](int fd, bool) {
      auto* c = daemon_.configService();
      std::string out = c ? renderConfig(c->config()) : std::string("# no configuration\n");
      if (c && !c->lastError().empty()) {
         out = "# last reload failed, still in effect below: " + c->lastError() + "\n" + out;
      }
      writeAll(fd, out);
   });
}

void ShowCallback::handleCommand(unsigned socketFd, const std::string& command) {
   int fd = static_cast<int>(socketFd);
   std::istringstream in(command);
   std::string what, word;
   in >> what;
   bool json = false;
   while (in >> word)
      json |= word == "--json";
   auto it = handlers_.find(what);
   if (it == handlers_.end()) {
      std::string known;
      for (auto& [name, h] : handlers_)
         known += " " + name;
      writeAll(fd, fmt::format("Unknown command: show {} (known:{})\n", what, known));
      return;
   }
   it->second(fd, json);
}

void ShowCallback::showStatus(int fd, bool json) {
   auto& opts = daemon_.options();
   nlohmann::json j;
   j["pid"] = getpid();
   j["uptimeSeconds"] = daemon_.scheduler().now() - daemon_.startTime();
   j["socket"] = opts.socketPath;
   j["config"] = opts.configFile;
   j["netnsDir"] = opts.netnsDir;
   j["agent"] = opts.agentLib;
   nlohmann::json ents = nlohmann::json::object();
   for (auto& [path, e] : daemon_.entityManager()->entities())
      ents[path] = e->typeName();
   j["entities"] = ents;
   nlohmann::json cbs = nlohmann::json::array();
   for (auto& [name, cb] : daemon_.commands()->callbacks())
      cbs.push_back(name);
   j["commands"] = cbs;
   if (json) {
      writeAll(fd, j.dump(2) + "\n");
      return;
   }
   std::string out = fmt::format(
       "pid {}\nuptime {:.1f} s\nsocket {}\nconfig {}\nnetns dir {}\nagent {}\ncommands",
       j["pid"].get<int>(), j["uptimeSeconds"].get<double>(), opts.socketPath,
       opts.configFile.empty() ? "(none)" : opts.configFile, opts.netnsDir, opts.agentLib);
   for (auto& c : cbs)
      out += " " + c.get<std::string>();
   out += "\nentities\n";
   for (auto& [path, type] : ents.items()) {
      out += fmt::format("  {} {}\n", path, type.get<std::string>());
   }
   writeAll(fd, out);
}

// The network state the agent sees, as the providers published it.
void ShowCallback::showState(int fd, bool json) {
   auto em = daemon_.entityManager();
   nlohmann::json j;
   if (auto vrfs = em->entityAs<AllVrfStatusLocal>("ip/vrf/status/local")) {
      for (auto& [name, v] : vrfs->vrf) {
         j["vrfs"][name.str()] = {{"state", toString(v->state())},
                                  {"nsInode", v->nsInode()},
                                  {"nsInodeValid", v->nsInodeValid()}};
      }
   }
   if (auto ids = em->entityAs<VrfIdMapStatus>("vrf/vrfIdMapStatus")) {
      for (auto& [id, name] : ids->vrfName)
         j["vrfIds"][name.str()] = id;
   }
   auto l3 = em->entityAs<L3IntfStatusDir>("l3/intf/status");
   auto ip = em->entityAs<IpStatus>("ip/status");
   auto ip6 = em->entityAs<Ip6Status>("ip6/status");
   if (auto intfs = em->entityAs<AllIntfStatusDir>("interface/status/all")) {
      for (auto& [id, s] : intfs->intfStatus) {
         nlohmann::json e = {{"oper", toString(s->operStatus())},
                             {"mtu", s->mtu()},
                             {"ifindex", s->snmpIndex()},
                             {"device", s->deviceName()}};
         if (auto l = l3 ? l3->intfStatus.get(id) : nullptr)
            e["vrf"] = l->vrf().str();
         if (auto a = ip ? ip->ipIntfStatus.get(id) : nullptr) {
            e["ipv4"] = nlohmann::json::array({a->primaryAddr().str()});
            for (auto& x : a->secondaryAddrs())
               e["ipv4"].push_back(x.str());
         }
         if (auto a = ip6 ? ip6->ip6IntfStatus.get(id) : nullptr) {
            e["ipv6"] = nlohmann::json::array();
            for (auto& x : a->addrs())
               e["ipv6"].push_back(x.str());
         }
         j["interfaces"][id.str()] = e;
      }
   }
   if (auto arp = em->entityAs<ArpTableStatus>("arp/status")) {
      for (auto* t : {&arp->arp, &arp->nd}) {
         for (auto& [k, v] : *t) {
            j[t == &arp->arp ? "arp" : "nd"].push_back({{"vrfId", k.vrfId},
                                                        {"addr", k.addr.str()},
                                                        {"intf", k.intfId.str()},
                                                        {"mac", v.mac}});
         }
      }
   }
   writeAll(fd, json ? j.dump(2) + "\n" : j.dump(1) + "\n");
}

void ShowCallback::showProbe(int fd, bool json) {
   auto em = daemon_.entityManager();
   auto config = em->entityAs<ProbeResponder::Config>("icmp/probe/config");
   auto status = em->entityAs<ProbeResponder::Status>("icmp/probe/status");
   nlohmann::json j;
   if (config) {
      j["config"] = {{"enabled", config->enabled()}, {"ifname", config->ifname()},
                     {"ifindex", config->ifindex()}, {"ifaddr", config->ifaddr()},
                     {"remote", config->remote()},   {"maxQueueLength", config->maxQueueLength()}};
   }
   if (status) {
      nlohmann::json counters = nlohmann::json::object();
#define RAVEL_PROBE_COUNTER_JSON(name) counters[#name] = status->name;
      RAVEL_PROBE_COUNTERS(RAVEL_PROBE_COUNTER_JSON)
#undef RAVEL_PROBE_COUNTER_JSON
      nlohmann::json codes = nlohmann::json::object();
      for (auto& [code, n] : status->codeCount)
         codes[std::to_string(code)] = n;
      counters["codeCount"] = codes;
      counters["lastTxErrno"] = status->lastTxErrno;
      j["status"] = counters;
   }
   if (json) {
      writeAll(fd, j.dump(2) + "\n");
      return;
   }
   std::string out;
   if (j.contains("config")) {
      out += "config\n";
      for (auto& [k, v] : j["config"].items())
         out += fmt::format("  {} {}\n", k, v.dump());
   } else {
      out += "config (none)\n";
   }
   if (j.contains("status")) {
      out += "counters\n";
      for (auto& [k, v] : j["status"].items()) {
         if (k == "codeCount") {
            for (auto& [code, n] : v.items())
               out += fmt::format("  codeCount[{}] {}\n", code, n.dump());
         } else {
            out += fmt::format("  {} {}\n", k, v.dump());
         }
      }
   }
   writeAll(fd, out);
}

// The error responder as published: per family whether its program is loaded, its counters,
// and the VRFs programmed into it with their namespace inodes.
void ShowCallback::showErrors(int fd, bool json) {
   using namespace ErrorResponder;
   auto em = daemon_.entityManager();
   auto status = em->entityAs<Status>("icmp/errorResponder/status");
   auto ebpf = em->entityAs<EbpfConfig>("icmp/errorResponder/ebpfConfig");
   nlohmann::json j;
   j["nsInodeConflict"] = status ? status->nsInodeConflict : 0;
   j["ebpfLoadFailed"] = status ? status->ebpfLoadFailed : 0;
   j["kernelErrorFilterFailed"] = status ? status->kernelErrorFilterFailed : 0;
   j["vrfMapAddFailed"] = status ? status->vrfMapAddFailed : 0;
   j["families"] = nlohmann::json::object();
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      auto a = status ? status->afStatus.get(af) : nullptr;
      nlohmann::json f = {{"loaded", bool(a)}};
      if (auto r = status ? status->loadRetry.find(af) : Status::LoadRetries::iterator();
          status && r != status->loadRetry.end()) {
         double in = std::max(0.0, r->second.nextAttempt - Scheduler::defaultScheduler().now());
         f["loadError"] = r->second.error;
         f["loadFailures"] = r->second.failures;
         f["nextAttemptSeconds"] = std::round(in * 10) / 10;
      }
      nlohmann::json counters = nlohmann::json::object();
      nlohmann::json vrfs = nlohmann::json::object();
      if (a) {
         for (size_t i = 0; i < kAfCounterCount; ++i) {
            auto id = static_cast<AfCounterId>(i);
            counters[toString(id)] = a->counter(id);
         }
         for (auto& [name, v] : a->vrfStatus) {
            nlohmann::json vc = nlohmann::json::object();
            for (size_t i = 0; i < kVrfCounterCount; ++i) {
               auto id = static_cast<VrfCounterId>(i);
               vc[toString(id)] = v->counter(id);
            }
            auto e = ebpf ? ebpf->entry.get(name) : nullptr;
            vrfs[name.str()] = {{"nsInode", e ? e->nsInode : 0},
                                {"kernelErrorsDropped", v->kernelErrorsDropped},
                                {"counters", vc}};
         }
      }
      f["counters"] = counters;
      f["vrfs"] = vrfs;
      j["families"][toString(af)] = f;
   }
   if (json) {
      writeAll(fd, j.dump(2) + "\n");
      return;
   }
   std::string out;
   for (auto& [af, f] : j["families"].items()) {
      out += fmt::format("{} program {}\n", af, f["loaded"].get<bool>() ? "loaded" : "not loaded");
      if (f.contains("loadError"))
         out += fmt::format("  load failed {} times in a row: {}; next attempt in {} s\n",
                            f["loadFailures"].dump(), f["loadError"].get<std::string>(),
                            f["nextAttemptSeconds"].dump());
      for (auto& [k, v] : f["counters"].items())
         out += fmt::format("  {} {}\n", k, v.dump());
      for (auto& [vrf, v] : f["vrfs"].items()) {
         out += fmt::format("  vrf {} nsInode {} kernel errors {}\n", vrf, v["nsInode"].dump(),
                            v["kernelErrorsDropped"].get<bool>() ? "dropped" : "sent");
         for (auto& [k, n] : v["counters"].items())
            out += fmt::format("    {} {}\n", k, n.dump());
      }
   }
   out += fmt::format(
       "nsInodeConflict {}\nebpfLoadFailed {}\nkernelErrorFilterFailed {}\nvrfMapAddFailed {}\n",
       j["nsInodeConflict"].dump(), j["ebpfLoadFailed"].dump(), j["kernelErrorFilterFailed"].dump(),
       j["vrfMapAddFailed"].dump());
   writeAll(fd, out);
}

// Every counter in the Prometheus text format ("ravelctl metrics").
void ShowCallback::showMetrics(int fd) {
   auto em = daemon_.entityManager();
   Metrics m;
   m.probeStatusIs(em->entityAs<ProbeResponder::Status>("icmp/probe/status").get());
   m.errorStatusIs(em->entityAs<ErrorResponder::Status>("icmp/errorResponder/status").get());
   m.pamsIs({IpPam::all().begin(), IpPam::all().end()});
   writeAll(fd, m.text());
}

}  // namespace Ravel::host
