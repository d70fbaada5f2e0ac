// The way back to a client, whatever it came in through.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>

#include "rpc/xdr_writer.h"

/// The life of an object that pending work holds on to: a count inside the object. Any thread.
class CCounted {
 public:
  CCounted() = default;
  CCounted(const CCounted&) = delete;
  CCounted& operator=(const CCounted&) = delete;
  virtual ~CCounted() = default;

  void AddRef() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
  /// Destroys the object with its last reference.
  void Release() const noexcept {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
    }
  }
  /// False when the object is being destroyed already; the caller sees to it that its memory still stands.
  bool TryAddRef() const noexcept {
    std::uint32_t count = count_.load(std::memory_order_relaxed);
    while (count != 0) {
      if (count_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel)) {
        return true;
      }
    }
    return false;
  }

 private:
  mutable std::atomic<std::uint32_t> count_{0};
};

inline void intrusive_ptr_add_ref(const CCounted* object) noexcept {
  object->AddRef();
}
inline void intrusive_ptr_release(const CCounted* object) noexcept {
  object->Release();
}

namespace impl {

/// What a caller of Send wants released when the call is over.
using completion_ptr = boost::intrusive_ptr<CCounted>;

/// Made by a transport for one request and used by the worker of the request's queue alone.
class CResponseSender : public CCounted {
 public:
  /// Sends the reply in the writer, which is empty afterwards. completion is released when the call is over. Throws
  /// runtime_exc_t for a reply whose size is no multiple of four and win_sys_exc_t when sending cannot start.
  virtual void Send(CXDRWriter& writer, completion_ptr completion) = 0;
  virtual const sockaddr_in& GetPeerAddress() const = 0;
  virtual bool IsFsAccessAllowed() const = 0;
  /// The connection is closed after the replies that are queued already.
  virtual void Close() = 0;
  /// Replies that wait for company leave now. Called before the worker waits or turns to another client.
  virtual void Flush() {}
};

}  // namespace impl
