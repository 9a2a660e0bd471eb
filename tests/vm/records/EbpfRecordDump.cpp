// Drives the real loader for the VM tests: commands on stdin, one JSON object per line on stdout.
//   load [RING [MAP]]  load both families           add PATH     filter the namespace at PATH
//   drain              consume both rings            stats        the kernel programs' counts
//   unload             unload both families          quit
#include <arpa/inet.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "bpf/IcmpPktInfo.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/datapath/EbpfIpGenHelper.h"

using namespace Ravel;
using namespace Ravel::ErrorResponder;

namespace {

struct Family {
   AddressFamily af;
   Ptr<EbpfHelperBase> helper;
   Ptr<EbpfHandlerContext> ctx;
   EbpfInitParams params;
   Subscription sub;
};

std::string hex(const uint8_t* p, size_t n) {
   std::string s;
   for (size_t i = 0; i < n; ++i)
      s += fmt::format("{:02x}", p[i]);
   return s;
}

std::string addr(AddressFamily af, const packet_info_addr& a) {
   char buf[INET6_ADDRSTRLEN];
   inet_ntop(af == AddressFamily::ipv4 ? AF_INET : AF_INET6, &a, buf, sizeof(buf));
   return buf;
}

void printRecord(AddressFamily af, const packet_info& r) {
   bool v4 = af == AddressFamily::ipv4;
   std::cout << fmt::format(R"({{"event":"record","af":"{}","ifindex":{},"nsindex":{},"type":{},)"
                            R"("code":{},"dst":"{}","src":"{}","datalen":{},"head":"{}"}})",
                            toString(af), r.ifindex, r.nsindex,
                            v4 ? r.hdr.icmp4.type : r.hdr.icmp6.icmp6_type,
                            v4 ? r.hdr.icmp4.code : r.hdr.icmp6.icmp6_code, addr(af, r.dst_addr),
                            addr(af, r.src_addr), r.datalen,
                            hex(r.data, std::min<uint32_t>(r.datalen, 48)))
             << std::endl;
}

}  // namespace

int main() {
   auto stats = make<ErrorResponderStats>();
   Family fam[2] = {{AddressFamily::ipv4, ebpfIpv4HelperFactory(), nullptr, {}, {}},
                    {AddressFamily::ipv6, ebpfIpv6HelperFactory(), nullptr, {}, {}}};
   for (auto& f : fam) {
      f.ctx = make<EbpfHandlerContext>(stats);
      f.sub = f.ctx->subscribePktInfoInReg([&f] {
         printRecord(f.af, *static_cast<const packet_info*>(f.ctx->pktInfoInReg()->data()));
      });
   }
   std::string line;
   while (std::getline(std::cin, line)) {
      std::istringstream in(line);
      std::string cmd;
      in >> cmd;
      if (cmd == "load") {
         auto cfg = make<EbpfConfig>();
         uint32_t ringBufSz = 0, vrfMapSz = 0;
         in >> ringBufSz >> vrfMapSz;
         cfg->ringBufSz.set(ringBufSz);
         cfg->vrfMapSz.set(vrfMapSz);
         std::string loaded;
         for (auto& f : fam) {
            stats->errorResponderAfStatsIs(f.af);
            auto t0 = std::chrono::steady_clock::now();
            f.params = f.helper->loadProgram(cfg, f.ctx);
            auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::steady_clock::now() - t0)
                          .count();
            loaded += fmt::format(R"(,"{}":{},"{}_us":{})", toString(f.af), bool(f.params),
                                  toString(f.af), us);
         }
         std::cout << R"({"event":"loaded")" << loaded << "}" << std::endl;
      } else if (cmd == "add" || cmd == "remove") {
         std::string path;
         in >> path;
         struct stat st {};
         if (::stat(path.c_str(), &st) != 0) {
            std::cout << R"({"event":"error","what":"stat"})" << std::endl;
            continue;
         }
         for (auto& f : fam) {
            if (cmd == "add")
               f.helper->addToVrfMap(f.params.nsMapFd, st.st_ino);
            else
               f.helper->removeFromVrfMap(f.params.nsMapFd, st.st_ino);
         }
         std::cout << fmt::format(R"({{"event":"{}","inode":{}}})", cmd, st.st_ino) << std::endl;
      } else if (cmd == "drain") {
         int total = 0;
         for (auto& f : fam) {
            if (f.params)
               total += f.helper->consume(f.params);
         }
         std::cout << fmt::format(R"({{"event":"drained","count":{}}})", total) << std::endl;
      } else if (cmd == "stats") {
         std::string out = R"({"event":"stats")";
         for (auto& f : fam) {
            EbpfKernelStats k;
            if (f.params && f.helper->kernelStats(f.params, k))
               out += fmt::format(
                   R"(,"{}":{{"queued":{},"dropped":{},"received":{},)"
                   R"("invalid":{},"insufficient":{}}})",
                   toString(f.af), k.queued, k.dropped,
                   stats->errorResponderAfStats(f.af)->counter(AfCounterId::pktInfoReceived),
                   stats->errorResponderAfStats(f.af)->counter(AfCounterId::invalidDataSize),
                   stats->errorResponderAfStats(f.af)->counter(AfCounterId::insufficientDataLen));
         }
         std::cout << out << "}" << std::endl;
      } else if (cmd == "unload") {
         for (auto& f : fam) {
            if (f.params)
               f.helper->unloadProgram(f.params);
            f.params = {};
         }
         std::cout << R"({"event":"unloaded"})" << std::endl;
      } else if (cmd == "quit") {
         break;
      }
   }
   for (auto& f : fam) {
      if (f.params)
         f.helper->unloadProgram(f.params);
   }
   return 0;
}
