#include "host/common/Traceroute.h"

#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Ravel::host {

std::string printableName(const std::string& raw) {
   std::string out;
   for (unsigned char c : raw) {
      if (c >= 0x20 && c < 0x7f && c != '\\')
         out += static_cast<char>(c);
      else
         out += fmt::format("\\x{:02x}", c);
   }
   return out;
}

namespace {

const char* roleWords(IcmpIntfRole role) {
   switch (role) {
      case IcmpIntfRole::incoming:
         return "incoming";
      case IcmpIntfRole::subIp:
         return "sub-IP";
      case IcmpIntfRole::outgoing:
         return "outgoing";
      case IcmpIntfRole::nextHop:
         return "next-hop";
   }
   return "unknown";
}

std::string hexBytes(std::span<const uint8_t> b) {
   std::string s;
   for (size_t i = 0; i < b.size(); ++i)
      s += fmt::format("{}{:02x}", i > 0 && i % 4 == 0 ? " " : "", b[i]);
   return s;
}

// The extension lines of a reply, without indentation; empty for none.
std::vector<std::string> extensionLines(const TraceReply& r) {
   std::vector<std::string> out;
   if (!r.parsed.msg) {
      if (r.parsed.error != IcmpParseError::none)
         out.push_back(fmt::format("extensions could not be read: {}", toString(r.parsed.error)));
      return out;
   }
   const IcmpErrorMessage& m = *r.parsed.msg;
   if (!m.hasExtensions)
      return out;
   for (const auto& i : m.intfs) {
      std::vector<std::string> parts;
      if (!i.name.empty())
         parts.push_back("name " + printableName(i.name));
      if (i.ifIndex != 0)
         parts.push_back(fmt::format("ifIndex {}", i.ifIndex));
      if (!i.addr.isZero())
         parts.push_back("address " + i.addr.str());
      if (i.mtu != 0)
         parts.push_back(fmt::format("MTU {}", i.mtu));
      // The next hop is a neighbour, not one of the router's interfaces.
      out.push_back(fmt::format(
          "{}: {}",
          i.role == IcmpIntfRole::nextHop ? "next hop"
                                          : fmt::format("{} interface", roleWords(i.role)),
          parts.empty() ? "no details" : fmt::format("{}", fmt::join(parts, ", "))));
   }
   if (m.node) {
      std::vector<std::string> parts;
      if (!m.node->hostName.empty())
         parts.push_back("host " + printableName(m.node->hostName));
      if (!m.node->addr.isZero())
         parts.push_back("address " + m.node->addr.str());
      out.push_back(fmt::format(
          "node: {}", parts.empty() ? "no details" : fmt::format("{}", fmt::join(parts, ", "))));
   }
   for (const auto& o : m.otherObjects) {
      out.push_back(fmt::format("object class {}, c-type {}, {} bytes: {}", o.classNum, o.cType,
                                o.body.size(), hexBytes(o.body)));
   }
   if (out.empty())
      out.push_back("extensions: no objects");
   return out;
}

double roundMs(double ms) {
   return std::round(ms * 1000) / 1000;
}

}  // namespace

std::string renderTraceHopText(const TraceHop& hop) {
   // Consecutive probes answered alike (same address, type, code and extensions) share a line;
   // a lost probe is a '*' on the line it falls in.
   struct Line {
      const TraceReply* reply = nullptr;
      std::vector<std::string> extn;
      size_t leadingStars = 0;
      std::vector<std::string> items;
   };
   std::vector<Line> lines;
   for (const auto& p : hop.probes) {
      if (!p) {
         if (lines.empty())
            lines.emplace_back();
         lines.back().items.push_back("*");
         if (!lines.back().reply)
            ++lines.back().leadingStars;
         continue;
      }
      auto extn = extensionLines(*p);
      bool same = !lines.empty() && lines.back().reply && lines.back().reply->from == p->from &&
                  lines.back().reply->type == p->type && lines.back().reply->code == p->code &&
                  lines.back().extn == extn;
      if (!same && (lines.empty() || lines.back().reply))
         lines.emplace_back();
      Line& l = lines.back();
      if (!l.reply) {
         l.reply = &*p;
         l.extn = std::move(extn);
      }
      l.items.push_back(fmt::format("{:.3f} ms", p->rttMs));
   }
   if (lines.empty())
      lines.emplace_back();
   std::string out;
   bool first = true;
   for (const Line& l : lines) {
      out += first ? fmt::format("{:2}  ", hop.ttl) : std::string(4, ' ');
      first = false;
      std::vector<std::string> items = l.items;
      if (l.reply) {
         items.insert(items.begin() + static_cast<ptrdiff_t>(l.leadingStars), l.reply->from.str());
         items.push_back(icmpMeaning(l.reply->from.af(), l.reply->type, l.reply->code));
      }
      out += fmt::format("{}\n", fmt::join(items, "  "));
      for (const auto& e : l.extn)
         out += fmt::format("       {}\n", e);
   }
   return out;
}

namespace {

nlohmann::json extensionsJson(const TraceReply& r) {
   nlohmann::json j = nlohmann::json::object();
   if (!r.parsed.msg) {
      j["error"] = toString(r.parsed.error);
      return j;
   }
   const IcmpErrorMessage& m = *r.parsed.msg;
   if (!m.intfs.empty()) {
      auto& a = j["interfaces"] = nlohmann::json::array();
      for (const auto& i : m.intfs) {
         nlohmann::json o = {{"role", toString(i.role)}};
         if (i.ifIndex != 0)
            o["ifIndex"] = i.ifIndex;
         if (!i.addr.isZero())
            o["address"] = i.addr.str();
         if (!i.name.empty())
            o["name"] = printableName(i.name);
         if (i.mtu != 0)
            o["mtu"] = i.mtu;
         a.push_back(std::move(o));
      }
   }
   if (m.node) {
      nlohmann::json o = nlohmann::json::object();
      if (!m.node->addr.isZero())
         o["address"] = m.node->addr.str();
      if (!m.node->hostName.empty())
         o["hostName"] = printableName(m.node->hostName);
      j["node"] = std::move(o);
   }
   if (!m.otherObjects.empty()) {
      auto& a = j["other"] = nlohmann::json::array();
      for (const auto& o : m.otherObjects) {
         std::string hex;
         for (uint8_t b : o.body)
            hex += fmt::format("{:02x}", b);
         a.push_back({{"classNum", o.classNum}, {"cType", o.cType}, {"hex", hex}});
      }
   }
   return j;
}

}  // namespace

nlohmann::json traceHopJson(const TraceHop& hop) {
   nlohmann::json replies = nlohmann::json::array();
   for (const auto& p : hop.probes) {
      if (!p)
         continue;
      nlohmann::json r = {{"address", p->from.str()},
                          {"rttMs", roundMs(p->rttMs)},
                          {"type", p->type},
                          {"code", p->code},
                          {"meaning", icmpMeaning(p->from.af(), p->type, p->code)}};
      bool withExtn =
          p->parsed.msg ? p->parsed.msg->hasExtensions : p->parsed.error != IcmpParseError::none;
      if (withExtn)
         r["extensions"] = extensionsJson(*p);
      replies.push_back(std::move(r));
   }
   return {{"ttl", hop.ttl}, {"probes", hop.probes.size()}, {"replies", std::move(replies)}};
}

nlohmann::json traceResultJson(const TraceResult& r) {
   nlohmann::json hops = nlohmann::json::array();
   for (const auto& h : r.hops)
      hops.push_back(traceHopJson(h));
   return {{"destination", r.destination},
           {"address", r.address.str()},
           {"family", toString(r.address.af())},
           {"protocol", r.proto == TraceProto::udp ? "udp" : "icmp"},
           {"reached", r.reached},
           {"hops", std::move(hops)}};
}

}  // namespace Ravel::host
