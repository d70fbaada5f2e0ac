#include <poll.h>
#include <sys/socket.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <exception>

#include "platform/message_pipe.h"
#include "platform/pipe_wait.h"
#include "platform/socket_folder.h"

namespace platform {
namespace {

class pipe_owner_t final : public pipe_listener_t {
 public:
  pipe_owner_t(socket_folder_t folder, std::string name) : folder_(std::move(folder)), name_(std::move(name)) {}
  pipe_owner_t(const pipe_owner_t&) = delete;
  pipe_owner_t& operator=(const pipe_owner_t&) = delete;

  /// The folder's lock is held by the caller.
  error_t Start(mode_t mode, int waiting) { return folder_.Listen(name_, mode, waiting, listener_, file_); }

  ~pipe_owner_t() override {
    if (!listener_.IsOpen())
      return;
    // It listens until the name is free, so a creator who has the lock sees an owner or none.
    const descriptor_t lock = folder_.Lock();
    folder_.Remove(name_, file_);
  }

  error_t Accept(boost::shared_ptr<message_pipe_t>& pipe, const pipe_wait_t& wait) override {
    pipe.reset();
    for (;;) {
      descriptor_t peer(::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (peer.IsOpen()) {
        pipe = boost::make_shared<message_pipe_t>(std::move(peer));
        return error::Success;
      }
      if (errno == EAGAIN) {
        const error_t waited = WaitForReadiness(listener_.Get(), POLLIN, wait);
        if (waited != error::Success)
          return waited;
      } else if (errno != EINTR && errno != ECONNABORTED) {
        return LastError();
      }
    }
  }

  int Descriptor() const noexcept override { return listener_.Get(); }

 private:
  const socket_folder_t folder_;
  const std::string name_;
  descriptor_t listener_{-1};
  file_id_t file_;
};

error_t Create(std::string_view pipe, mode_t mode, int waiting, boost::shared_ptr<pipe_listener_t>& listener) {
  std::string name;
  socket_folder_t folder;
  error_t result = PipeFileName(pipe, name);
  if (result == error::Success)
    result = folder.Open(PipeFolder, PipeFolderMode, true);
  if (result != error::Success)
    return result;
  const descriptor_t lock = folder.Lock();
  result = folder.Probe(name);
  if (result == error::Success)
    return error::PipeBusy;
  if (result == error::ConnectionRefused)
    result = folder.RemoveLeftover(name);
  if (result != error::Success && result != error::FileNotFound)
    return result;
  const boost::shared_ptr<pipe_owner_t> owner = boost::make_shared<pipe_owner_t>(std::move(folder), name);
  result = owner->Start(mode, waiting);
  if (result == error::Success)
    listener = owner;
  // Someone who went on without the lock was quicker.
  return result == error::AlreadyExists ? error::PipeBusy : result;
}

}  // namespace

error_t pipe_listener_t::Listen(std::string_view name, mode_t socketMode, int waiting,
                                boost::shared_ptr<pipe_listener_t>& listener) {
  listener.reset();
  try {
    return Create(name, socketMode, waiting, listener);
  } catch (const std::exception&) {
    return error::NotEnoughMemory;
  }
}

}  // namespace platform
