#include "probe/PamInputReactor.h"

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ProbePamInputReactor");

namespace Ravel::ProbeResponder {

PamInputReactor::PamInputReactor(VrfNameAndAddressFamily key, Ptr<IpPam> pam, Ptr<Queues> queues,
                                 Ptr<Config> config, Ptr<Status> status,
                                 Ptr<RequestAdmission> admission)
    : key_(std::move(key)),
      pam_(std::move(pam)),
      queues_(std::move(queues)),
      config_(std::move(config)),
      status_(std::move(status)),
      admission_(std::move(admission)) {
   RAVEL_ASSERT(admission_);
   RAVEL_ASSERT(pam_);
   RAVEL_ASSERT(queues_);
   RAVEL_ASSERT(config_);
   RAVEL_ASSERT(status_);
   sub_ = pam_->readable().subscribe([this] { handlePamReadable(); });
}

void PamInputReactor::handlePamReadable() {
   // Hold ourselves: enqueueing runs reactors that may drop this one.
   Ptr<PamInputReactor> self(this);
   while (Ptr<Pkt> pkt = pam_->rxPkt()) {
      switch (admission_->admit(pam_->rxSrcIpAddr(), pam_->rxDstIpAddr(), pam_->rxIfIndex())) {
         case Admission::notUnicast:
            status_->notUnicastInc(1);
            continue;
         case Admission::rateLimited:
            status_->rateLimitedInc(1);
            continue;
         case Admission::admitted:
            break;
      }
      // The only brake on a flood: the output queue counts too, so replies that cannot leave
      // stop new work.
      uint32_t limit = config_->maxQueueLength();
      size_t in = queues_->inputSize(), out = queues_->outputSize();
      if (in > limit || out > limit) {
         TRACE(5, "Dropping packet {}->{} in vrf {} due to queue lengths - input {} output {}",
               pam_->rxSrcIpAddr(), pam_->rxDstIpAddr(), key_.vrf, in, out);
         status_->queueTooLongInc(1);
         continue;
      }
      auto entry = queueEntryFactory();
      entry->pkt = pkt;
      entry->src = pam_->rxSrcIpAddr();
      entry->dst = pam_->rxDstIpAddr();
      entry->vrf = key_.vrf;
      entry->rxIfIndex = pam_->rxIfIndex();
      TRACE(6, "Received packet {}->{} in vrf {}", entry->src, entry->dst, entry->vrf);
      TRACE(8, "Received packet {} {}->{} in vrf {}", pkt->size(), entry->src, entry->dst,
            entry->vrf);
      status_->requestsReceivedInc(1);
      queues_->inputEnq(entry);
   }
}

}  // namespace Ravel::ProbeResponder
