#include "vfs/items/fs_proc_invoker.h"

#include <algorithm>
#include <boost/make_shared.hpp>

#include "foundation/exc.h"
#include "vfs/items/fs_invocation_thread_pool.h"
#include "vfs/items/synchronous_fs_call_completion_proc.h"

boost::shared_ptr<CFsProcInvoker> CFsProcInvoker::Create(const std::string& name, std::int32_t threadCount,
                                                         boost::shared_ptr<CCompletionEventsAllocator> allocator,
                                                         const SFsInvocationLimits& limits) {
  if (allocator == nullptr)
    throw exc::runtime_exc_t("Incorrect parameter <completionEventsAllocator: {null}>");
  const auto threads = static_cast<std::uint32_t>(std::max(threadCount, 1));
  auto pool = std::make_unique<CFsInvocationThreadPool>(name, threads, std::move(allocator), limits);
  return boost::shared_ptr<CFsProcInvoker>(new CFsProcInvoker(std::move(pool), limits));
}

CFsProcInvoker::CFsProcInvoker(std::unique_ptr<CFsInvocationThreadPool> pool, const SFsInvocationLimits& limits)
    : limits_(limits), pool_(std::move(pool)), queue_(pool_->Queue()) {}

CFsProcInvoker::~CFsProcInvoker() = default;

void CFsProcInvoker::Invoke(boost::shared_ptr<IFsProc> proc, boost::shared_ptr<IFsProcCompletionCallback> callback) {
  queue_.Push(CFsInvocation(std::move(proc), std::move(callback)));
}

void CFsProcInvoker::InvokeAndWait(boost::shared_ptr<IFsProc> proc,
                                   boost::shared_ptr<CCompletionEventsAllocator> allocator) {
  const auto completion =
      boost::make_shared<CSynchronousFsCallCompletionProc>(std::move(allocator), limits_.callLimitMs);
  Invoke(std::move(proc), completion);
  completion->Wait();
}

void CFsProcInvoker::Stop() noexcept {
  pool_->Stop();
}

std::size_t CFsProcInvoker::ThreadCount() const noexcept {
  return pool_->ThreadCount();
}
