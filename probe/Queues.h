#pragma once

#include <cstddef>
#include <deque>
#include <functional>

#include "platform/core/Notifier.h"
#include "platform/core/Ptr.h"
#include "probe/QueueEntry.h"

namespace Ravel::ProbeResponder {

// Input (received) and output (replies) FIFOs. Enqueueing notifies, which is what wakes the
// tasks; the queues have no limit of their own, the reader applies maxQueueLength.
class Queues : public Node {
 public:
   void inputEnq(const Ptr<QueueEntry>& e);
   // The front entry, or null when empty (then nothing is published).
   Ptr<QueueEntry> inputDeq();
   Ptr<QueueEntry> inputFront() const { return input_.empty() ? nullptr : input_.front(); }
   Ptr<QueueEntry> inputBack() const { return input_.empty() ? nullptr : input_.back(); }
   Ptr<QueueEntry> input(size_t i) const { return i < input_.size() ? input_[i] : nullptr; }
   bool inputHas(size_t i) const { return i < input_.size(); }
   void inputDelAll() { input_.clear(); }
   size_t inputSize() const { return input_.size(); }
   [[nodiscard]] Subscription inputSubscribe(std::function<void()> fn) const {
      return inputNotifier_.subscribe(std::move(fn));
   }

   void outputEnq(const Ptr<QueueEntry>& e);
   Ptr<QueueEntry> outputDeq();
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
   std::deque<Ptr<QueueEntry>> input_;
   std::deque<Ptr<QueueEntry>> output_;
   Notifier<> inputNotifier_;
   Notifier<> outputNotifier_;
};

inline Ptr<Queues> queuesFactory() {
   return make<Queues>();
}

}  // namespace Ravel::ProbeResponder
