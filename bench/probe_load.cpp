// Load generator: sends one RFC 8335 request over and over (sendmmsg batches) for a fixed
// time and counts the Extended Echo Replies that come back. At most WINDOW requests are
// outstanding, so the responder is measured at its capacity rather than in overload (where a
// user-space responder sharing its core with receive processing starves). Requests still
// unanswered after 20 ms count as lost and free their window. Prints one JSON line.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "wire/ProbePacket.h"

using namespace Ravel;

namespace {
double now() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}
}  // namespace

int main(int argc, char** argv) {
   if (argc < 4) {
      std::fprintf(stderr, "usage: probe_load DST_IPV4 IFNAME SECONDS [WINDOW]\n");
      return 2;
   }
   const uint64_t window = argc > 4 ? std::stoull(argv[4]) : 256;
   auto dst = IpGenAddr::parse(argv[1]);
   std::string ifname = argv[2];
   double seconds = std::stod(argv[3]);
   if (!dst || !dst->isV4())
      return 2;
   const uint16_t id = static_cast<uint16_t>(getpid());
   auto msg = buildExtendedEchoRequest(AddressFamily::ipv4, id, 1, true, ifname);

   int tx = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
   int rx = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
   if (tx < 0 || rx < 0) {
      std::perror("socket");
      return 1;
   }
   int big = 1 << 24;
   setsockopt(rx, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
   setsockopt(tx, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
   sockaddr_in to{};
   to.sin_family = AF_INET;
   to.sin_addr = dst->v4Addr();

   std::atomic<bool> stop{false};
   std::atomic<uint64_t> replies{0};
   double measureStart = now();
   std::thread counter([&] {
      uint8_t buf[2048];
      while (!stop.load(std::memory_order_relaxed)) {
         pollfd p{rx, POLLIN, 0};
         if (poll(&p, 1, 50) <= 0)
            continue;
         for (;;) {
            ssize_t n = recv(rx, buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0)
               break;
            size_t hl = size_t(buf[0] & 0x0f) * 4;
            if (size_t(n) >= hl + 8 && buf[hl] == 43 && (buf[hl + 4] << 8 | buf[hl + 5]) == id) {
               replies.fetch_add(1, std::memory_order_relaxed);
            }
         }
      }
   });

   constexpr int kBatch = 64;
   std::vector<mmsghdr> msgs(kBatch);
   std::vector<iovec> iov(kBatch);
   for (int i = 0; i < kBatch; ++i) {
      iov[i] = {msg.data(), msg.size()};
      msgs[i] = {};
      msgs[i].msg_hdr.msg_name = &to;
      msgs[i].msg_hdr.msg_namelen = sizeof to;
      msgs[i].msg_hdr.msg_iov = &iov[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
   }
   uint64_t sent = 0, lost = 0, lastReplies = 0;
   double end = measureStart + seconds, lastProgress = measureStart;
   while (true) {
      double t = now();
      if (t >= end)
         break;
      uint64_t got = replies.load(std::memory_order_relaxed);
      if (got != lastReplies) {
         lastReplies = got;
         lastProgress = t;
      } else if (t - lastProgress > 0.02) {
         lost = sent - got;
         lastProgress = t;
      }
      uint64_t inflight = sent - got - lost;
      if (inflight >= window)
         continue;
      int want = int(std::min<uint64_t>(kBatch, window - inflight));
      int n = sendmmsg(tx, msgs.data(), unsigned(want), 0);
      if (n > 0)
         sent += uint64_t(n);
   }
   double sendSeconds = now() - measureStart;
   usleep(200000);  // replies still in flight
   stop = true;
   counter.join();
   std::printf(
       "{\"sent\": %llu, \"replies\": %llu, \"seconds\": %.3f, \"sent_per_second\": %.0f, "
       "\"replies_per_second\": %.0f}\n",
       (unsigned long long)sent, (unsigned long long)replies.load(), sendSeconds,
       double(sent) / sendSeconds, double(replies.load()) / sendSeconds);
   return 0;
}
