#pragma once

// The one owner of a file descriptor: move-only, closes what it holds.

#include <unistd.h>

#include <utility>

namespace Ravel {

class Fd {
 public:
   Fd() = default;
   explicit Fd(int fd) : fd_(fd) {}
   ~Fd() { reset(); }
   Fd(Fd&& other) noexcept : fd_(other.release()) {}
   Fd& operator=(Fd&& other) noexcept {
      if (this != &other)
         reset(other.release());
      return *this;
   }
   Fd(const Fd&) = delete;
   Fd& operator=(const Fd&) = delete;

   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }
   int release() { return std::exchange(fd_, -1); }
   void reset(int fd = -1) {
      if (fd_ >= 0)
         ::close(fd_);
      fd_ = fd;
   }

 private:
   int fd_ = -1;
};

}  // namespace Ravel
