#include "platform/event_folder.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace platform {
namespace {

constexpr std::string_view Prefix = "Global\\";
constexpr std::uint64_t AnswerMilliseconds = 2000;

bool IsEventfd(int descriptor) {
  constexpr std::string_view Kind = "anon_inode:[eventfd]";
  std::array<char, 64> text{};
  const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), text.data(), text.size());
  return length > 0 && std::string_view(text.data(), static_cast<std::size_t>(length)) == Kind;
}

/// Takes the first descriptor of a message and closes all others that came with it.
descriptor_t TakeDescriptor(msghdr& message) {
  descriptor_t taken(-1);
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
      continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof(int));
      descriptor_t owned(descriptor);
      if (!taken.IsOpen())
        taken = std::move(owned);
    }
  }
  return taken;
}

/// Room for the descriptors of one message, which the kernel cuts to it.
union control_t {
  cmsghdr header;
  std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

error_t ReceiveEvent(int socket, const deadline_t& deadline, event_folder_t::found_t& found, descriptor_t& event) {
  for (;;) {
    char byte = 0;
    iovec data{&byte, 1};
    control_t control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);
    const ssize_t received = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (received > 0) {
      event = TakeDescriptor(message);
      if (!event.IsOpen() || !IsEventfd(event.Get()))
        return error::InvalidHandle;
      found = event_folder_t::found_t::Event;
      return error::Success;
    }
    if (received == 0 || errno == ECONNRESET)
      return error::Success;  // The owner has just gone: nothing is found.
    if (errno != EAGAIN && errno != EINTR)
      return LastError();
    pollfd readable{socket, POLLIN, 0};
    if (deadline.IsOver())
      return error::SemaphoreTimeout;
    ::poll(&readable, 1, static_cast<int>(deadline.RemainingMs()));
  }
}

}  // namespace

error_t EventFileName(std::string_view event, std::string& name) {
  if (event.starts_with(Prefix))
    event.remove_prefix(Prefix.size());
  if (!IsPlainName(event))
    return error::PathNotFound;
  name = event;
  return error::Success;
}

error_t event_folder_t::Find(const std::string& name, found_t& found, descriptor_t& event) const {
  found = found_t::Nothing;
  const descriptor_t socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen())
    return LastError();
  const error_t connected = Connect(socket.Get(), name, deadline_t::After(AnswerMilliseconds));
  if (connected == error::FileNotFound)
    return error::Success;
  if (connected == error::ConnectionRefused) {
    found = found_t::Leftover;
    return error::Success;
  }
  if (connected != error::Success)
    return connected;
  return ReceiveEvent(socket.Get(), deadline_t::After(AnswerMilliseconds), found, event);
}

void SendEvent(int socket, int event) noexcept {
  char byte = 0;
  iovec data{&byte, 1};
  control_t control{};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof(control);
  control.header.cmsg_level = SOL_SOCKET;
  control.header.cmsg_type = SCM_RIGHTS;
  control.header.cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(&control.header), &event, sizeof(int));
  ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace platform
