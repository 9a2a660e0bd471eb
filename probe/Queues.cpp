#include "probe/Queues.h"

namespace Ravel::ProbeResponder {

namespace {
Ptr<QueueEntry> popFront(std::deque<Ptr<QueueEntry>>& q) {
   if (q.empty())
      return nullptr;
   Ptr<QueueEntry> e = std::move(q.front());
   q.pop_front();
   return e;
}
}  // namespace

void Queues::inputEnq(const Ptr<QueueEntry>& e) {
   input_.push_back(e);
   inputNotifier_.notify();
}

Ptr<QueueEntry> Queues::inputDeq() {
   return popFront(input_);
}

void Queues::outputEnq(const Ptr<QueueEntry>& e) {
   output_.push_back(e);
   outputNotifier_.notify();
}

Ptr<QueueEntry> Queues::outputDeq() {
   return popFront(output_);
}

}  // namespace Ravel::ProbeResponder
