#pragma once

#include <cstdint>
#include <utility>

namespace Ravel {

// Base of every reference-counted object. The count is intrusive so that an object can hand out
// a reference to itself (reactors register `this` with their inputs). Single-threaded by design:
// everything runs on the scheduler thread.
class Node {
 public:
   Node() = default;
   Node(const Node&) = delete;
   Node& operator=(const Node&) = delete;
   virtual ~Node() = default;

   void refInc() const noexcept { ++refCount_; }
   void refDec() const noexcept {
      if (--refCount_ == 0) {
         delete this;
      }
   }
   uint32_t refCount() const noexcept { return refCount_; }

 private:
   mutable uint32_t refCount_ = 0;
};

template <typename T>
class Ptr {
 public:
   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) {  // NOLINT: implicit like a raw pointer
      if (p_)
         p_->refInc();
   }
   Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <typename U>
   Ptr(const Ptr<U>& o) noexcept : Ptr(static_cast<T*>(o.get())) {}
   ~Ptr() { reset(); }

   Ptr& operator=(const Ptr& o) noexcept {
      Ptr(o).swap(*this);
      return *this;
   }
   Ptr& operator=(Ptr&& o) noexcept {
      Ptr(std::move(o)).swap(*this);
      return *this;
   }
   void reset() noexcept {
      if (T* p = std::exchange(p_, nullptr))
         p->refDec();
   }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

   T* get() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
   friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
   T* p_ = nullptr;
};

template <typename T, typename... A>
Ptr<T> make(A&&... args) {
   return Ptr<T>(new T(std::forward<A>(args)...));
}

// A failed cast yields null: a wrong type reads as absent.
template <typename T, typename U>
Ptr<T> ptrCast(const Ptr<U>& p) noexcept {
   return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Ravel
