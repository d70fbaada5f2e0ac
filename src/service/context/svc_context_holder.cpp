#include "service/context/svc_context_holder.h"

#include <mutex>

#include "foundation/exc.h"
#include "service/context/svc_context.h"

namespace {

struct SHolder {
  std::mutex lock;  // Guards the one below.
  boost::shared_ptr<CSvcContext> context;
};

SHolder& Holder() {
  static SHolder holder;
  return holder;
}

}  // namespace

void CSvcContextHolder::Set(boost::shared_ptr<CSvcContext> context) {
  SHolder& holder = Holder();
  const std::lock_guard<std::mutex> lock(holder.lock);
  // The old one may end here: that happens when the parameter does, after the lock.
  holder.context.swap(context);
}

boost::shared_ptr<CSvcContext> CSvcContextHolder::Get() {
  SHolder& holder = Holder();
  const std::lock_guard<std::mutex> lock(holder.lock);
  if (!holder.context)
    throw exc::runtime_exc_t("Service context is not initialized.");
  return holder.context;
}
