#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <variant>

#include "platform/store/Entity.h"
#include "platform/values/Pkt.h"
#include "platform/values/Values.h"
#include "probe/ProbeSchema.h"

namespace Ravel::ProbeResponder {

enum class ParseResultCode : uint8_t { good = 0, malformedPacket = 1, malformedRequest = 2 };
const char* toString(ParseResultCode c);
// Throws std::invalid_argument for an unknown name.
ParseResultCode parseResultCodeFromString(std::string_view name);

// The interface an Interface Identification Object names (RFC 8335 section 2.1).
class RequestedInterface {
 public:
   using Value = std::variant<int32_t, std::string, IpGenAddr>;  // ifIndex, ifName, ifAddr

   RequestedInterface() : v_(int32_t{0}) {}
   static RequestedInterface ifIndex(int32_t i) { return RequestedInterface(Value(i)); }
   static RequestedInterface ifName(std::string n) {
      return RequestedInterface(Value(std::move(n)));
   }
   static RequestedInterface ifAddr(IpGenAddr a) { return RequestedInterface(Value(a)); }

   bool containsIfIndex() const { return v_.index() == 0; }
   bool containsIfName() const { return v_.index() == 1; }
   bool containsIfAddr() const { return v_.index() == 2; }
   // Reading an alternative that is not held throws std::bad_variant_access.
   int32_t ifIndexValue() const { return std::get<0>(v_); }
   const std::string& ifNameValue() const { return std::get<1>(v_); }
   const IpGenAddr& ifAddrValue() const { return std::get<2>(v_); }

   // "Value('Ravel::ProbeResponder::RequestedInterface', ifName=eth0)"
   std::string str() const;
   // Accepts the text form or its "<alternative>=<value>" core; throws std::invalid_argument.
   static RequestedInterface fromString(std::string_view text);

   auto operator<=>(const RequestedInterface&) const = default;
   bool operator==(const RequestedInterface&) const = default;

 private:
   explicit RequestedInterface(Value v) : v_(std::move(v)) {}
   Value v_;
};

// One received packet and, later, its reply (written into the same buffer).
class QueueEntry : public Node {
 public:
   IpGenAddr src;
   IpGenAddr dst;
   Ptr<Pkt> pkt;
   VrfName vrf;
   uint32_t rxIfIndex = 0;  // arrival interface; the reply leaves through it (0: unknown)
};

// Input (received) and output (replies) FIFOs. Enqueueing notifies; the queues have no limit
// of their own, the reader applies maxQueueLength.
class Queues : public Node {
 public:
   void inputEnq(const Ptr<QueueEntry>& e) {
      input_.push_back(e);
      inputNotifier_.notify();
   }
   Ptr<QueueEntry> inputDeq() { return deq(input_); }
   Ptr<QueueEntry> inputFront() const { return input_.empty() ? nullptr : input_.front(); }
   Ptr<QueueEntry> inputBack() const { return input_.empty() ? nullptr : input_.back(); }
   Ptr<QueueEntry> input(size_t i) const { return i < input_.size() ? input_[i] : nullptr; }
   bool inputHas(size_t i) const { return i < input_.size(); }
   void inputDelAll() { input_.clear(); }
   size_t inputSize() const { return input_.size(); }
   [[nodiscard]] Subscription inputSubscribe(std::function<void()> fn) const {
      return inputNotifier_.subscribe(std::move(fn));
   }

   void outputEnq(const Ptr<QueueEntry>& e) {
      output_.push_back(e);
      outputNotifier_.notify();
   }
   Ptr<QueueEntry> outputDeq() { return deq(output_); }
   Ptr<QueueEntry> outputFront() const { return output_.empty() ? nullptr : output_.front(); }
   Ptr<QueueEntry> outputBack() const { return output_.empty() ? nullptr : output_.back(); }
   Ptr<QueueEntry> output(size_t i) const { return i < output_.size() ? output_[i] : nullptr; }
   bool outputHas(size_t i) const { return i < output_.size(); }
   void outputDelAll() { output_.clear(); }
   size_t outputSize() const { return output_.size(); }
   [[nodiscard]] Subscription outputSubscribe(std::function<void()> fn) const {
      return outputNotifier_.subscribe(std::move(fn));
   }

 private:
   static Ptr<QueueEntry> deq(std::deque<Ptr<QueueEntry>>& q) {
      if (q.empty())
         return nullptr;
      Ptr<QueueEntry> e = std::move(q.front());
      q.pop_front();
      return e;
   }
   std::deque<Ptr<QueueEntry>> input_;
   std::deque<Ptr<QueueEntry>> output_;
   Notifier<> inputNotifier_;
   Notifier<> outputNotifier_;
};

struct IntermediateParserResult {
   uint8_t code = 0;
   uint32_t pktBytes = 0;
   const uint8_t* extnHdr = nullptr;  // first byte after the Extended Echo header
   void pktBytesInc(int32_t n) {
      pktBytes = static_cast<uint32_t>(static_cast<int32_t>(pktBytes) + n);
   }
};

// The parsed request. identifier, seq and localNode are views of `request` (bytes 4-7).
class PacketParserResult : public Node {
 public:
   uint32_t request = 0;
   RequestedInterface interface;

   uint16_t identifier() const { return static_cast<uint16_t>(request >> 16); }
   void identifierIs(uint16_t v) { request = (request & 0x0000ffffu) | (uint32_t{v} << 16); }
   uint8_t seq() const { return static_cast<uint8_t>(request >> 8); }
   void seqIs(uint8_t v) { request = (request & 0xffff00ffu) | (uint32_t{v} << 8); }
   bool localNode() const { return request & 1u; }
};

// The reply decision: code and bytes 4-7 of the Extended Echo Reply.
class ProbeHandlerResult : public Node {
 public:
   static constexpr uint32_t kActive = 1u << 2, kIpv4 = 1u << 1, kIpv6 = 1u << 0;
   uint8_t icmpCode = 0;
   uint32_t reply = 0;
   void stateIs(uint8_t state) { reply = (reply & ~0xe0u) | (uint32_t{state & 7u} << 5); }
   uint8_t state() const { return static_cast<uint8_t>((reply >> 5) & 7u); }
};

inline Ptr<QueueEntry> queueEntryFactory() {
   return make<QueueEntry>();
}
inline Ptr<Queues> queuesFactory() {
   return make<Queues>();
}
inline Ptr<PacketParserResult> packetParserResultFactory() {
   return make<PacketParserResult>();
}
inline Ptr<ProbeHandlerResult> probeHandlerResultFactory() {
   return make<ProbeHandlerResult>();
}

}  // namespace Ravel::ProbeResponder
