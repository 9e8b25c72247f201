#include "platform/queue/ProcessorBinding.h"

#include <unistd.h>

namespace qx {
namespace {

cpu_set_t only(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  return set;
}

}  // namespace

ProcessorBinding::ProcessorBinding() : thread_(gettid()) {}

void ProcessorBinding::bindToThisProcessor() {
  const int here = sched_getcpu();
  if (here == processor_ || here < 0 || here >= CPU_SETSIZE || !lookAtWhatIsAllowed()) return;
  const auto set = only(here);
  if (!CPU_ISSET(here, &allowed_)) return;
  if (sched_setaffinity(thread_, sizeof(set), &set) == 0) processor_ = here;
}

void ProcessorBinding::release() {
  if (processor_ == free || !lookAtWhatIsAllowed() || processor_ == free) return;
  sched_setaffinity(thread_, sizeof(allowed_), &allowed_);
  processor_ = free;
}

bool ProcessorBinding::lookAtWhatIsAllowed() {
  cpu_set_t current;
  if (sched_getaffinity(thread_, sizeof(current), &current) != 0) return false;
  if (processor_ != free) {
    const auto bound = only(processor_);
    if (CPU_EQUAL(&current, &bound)) return true;
  }
  // Somebody has changed it while it was bound, or it was not bound.
  allowed_ = current;
  processor_ = free;
  return true;
}

}  // namespace qx
