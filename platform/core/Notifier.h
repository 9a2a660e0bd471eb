#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Ravel {

// RAII handle of one observer. Dropping it (or calling reset) detaches the observer; it is safe
// whichever of the notifier and the subscription dies first.
class Subscription {
 public:
   Subscription() = default;
   Subscription(std::weak_ptr<void> state, void (*detach)(void*, uint64_t), uint64_t id)
       : state_(std::move(state)), detach_(detach), id_(id) {}
   Subscription(Subscription&& o) noexcept { *this = std::move(o); }
   Subscription& operator=(Subscription&& o) noexcept {
      if (this != &o) {
         reset();
         state_ = std::move(o.state_);
         detach_ = o.detach_;
         id_ = std::exchange(o.id_, 0);
      }
      return *this;
   }
   Subscription(const Subscription&) = delete;
   Subscription& operator=(const Subscription&) = delete;
   ~Subscription() { reset(); }

   void reset() {
      if (auto s = state_.lock(); s && id_)
         detach_(s.get(), id_);
      state_.reset();
      id_ = 0;
   }
   bool active() const { return id_ != 0 && !state_.expired(); }

 private:
   std::weak_ptr<void> state_;
   void (*detach_)(void*, uint64_t) = nullptr;
   uint64_t id_ = 0;
};

// Synchronous change notification of one attribute. Collections notify with the key. Observers
// may subscribe or unsubscribe (themselves or others) while a notification is being delivered:
// an observer removed during delivery is not called afterwards, one added is called from the
// next notification on.
template <typename... Args>
class Notifier {
 public:
   using Fn = std::function<void(Args...)>;

   Notifier() = default;
   Notifier(const Notifier&) = delete;
   Notifier& operator=(const Notifier&) = delete;

   [[nodiscard]] Subscription subscribe(Fn fn) const {
      uint64_t id = ++state_->lastId;
      state_->observers.push_back({id, std::move(fn)});
      return Subscription(std::weak_ptr<void>(std::static_pointer_cast<void>(state_)), &detach, id);
   }

   void notify(Args... args) const {
      // Hold the state: an observer may destroy the object that owns this notifier.
      auto state = state_;
      uint64_t last = state->lastId;
      ++state->depth;
      for (size_t i = 0; i < state->observers.size(); ++i) {
         if (state->observers[i].id == 0 || state->observers[i].id > last)
            continue;
         Fn fn = state->observers[i].fn;  // the vector may grow during the call
         fn(args...);
      }
      if (--state->depth == 0)
         compact(*state);
   }

   size_t observerCount() const {
      size_t n = 0;
      for (auto& o : state_->observers)
         n += o.id != 0;
      return n;
   }

 private:
   struct Observer {
      uint64_t id;
      Fn fn;
   };
   struct State {
      std::vector<Observer> observers;
      uint64_t lastId = 0;
      int depth = 0;
   };

   static void detach(void* p, uint64_t id) {
      auto* s = static_cast<State*>(p);
      for (auto& o : s->observers) {
         if (o.id == id)
            o.id = 0;
      }
      if (s->depth == 0)
         compact(*s);
   }
   static void compact(State& s) {
      std::erase_if(s.observers, [](const Observer& o) { return o.id == 0; });
   }

   std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace Ravel
