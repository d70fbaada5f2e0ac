// The requests of one program and the worker that carries them out.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/byte_buffer.h"
#include "rpc/rpc_message.h"
#include "transports/async/response_sender.h"

namespace synch {
class thread_t;
}

namespace impl {

/// One worker: the requests of a program run strictly one after another, in order of arrival across all connections,
/// so that replies follow in the order of their requests. Any thread may post; the owner stops and destroys.
class CRequestQueue {
 public:
  /// handler has what it works on bound and keeps it alive. Throws when the worker cannot be started.
  CRequestQueue(std::string name, rpc_handler_t handler);
  CRequestQueue(const CRequestQueue&) = delete;
  CRequestQueue& operator=(const CRequestQueue&) = delete;
  /// Stops. Senders may share the queue through their connections, so its owner stops it first: the last reference
  /// must not go on the worker itself.
  ~CRequestQueue();

  const std::string& Name() const { return name_; }

  /// Hands a record over. extra is released when its reply was given to the sender. Dropped after Stop.
  void Post(boost::intrusive_ptr<CResponseSender> sender, boost::shared_ptr<io::byte_buffer_t> record,
            completion_ptr extra = nullptr);
  /// Takes no more requests, runs out those that are in, and joins the worker. The second call does nothing.
  void Stop();

 private:
  struct SItem {
    boost::intrusive_ptr<CResponseSender> sender;
    boost::shared_ptr<io::byte_buffer_t> record;
    completion_ptr extra;
  };

  void Work() noexcept;
  /// The next requests, in order; false when the worker is to end.
  bool Take(std::vector<SItem>& batch);
  void SpinForWork() const noexcept;
  void Process(SItem& item) const noexcept;

  const std::string name_;
  const rpc_handler_t handler_;

  std::mutex lock_;
  std::condition_variable notEmpty_;
  /// Guarded by lock_; the count may be read without it.
  std::vector<SItem> items_;
  std::atomic<std::size_t> itemsCount_{0};
  bool sleeping_ = false;
  std::atomic<bool> stopping_{false};

  std::unique_ptr<synch::thread_t> thread_;
};

}  // namespace impl
