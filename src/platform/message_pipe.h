// Pipes that carry whole messages between two processes.
#pragma once

#include <sys/types.h>

#include <array>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/futex.h"
#include "platform/kernel_pipe.h"
#include "platform/location.h"

namespace platform {

/// What ends a wait beside the thing waited for: the moment (then 258), and the first of the descriptors that becomes
/// readable (then 995). What can be done at once is done, whatever these say.
struct pipe_wait_t {
  deadline_t deadline = deadline_t::Never();
  std::span<const int> cancels = {};

  bool IsEndless() const noexcept { return deadline.monotonicNs == deadline_t::NeverNs && cancels.empty(); }
};

/// Bytes that lie in a file.
struct file_part_t {
  int file = -1;  ///< Open for reading; not owned.
  std::uint64_t offset = 0;
  std::size_t length = 0;
};

/// The longest message that the length in front of it can tell.
inline constexpr std::size_t MaxPipeMessage = 0xFFFFFFFF;

/// Gives a pipe's file name: what is behind the prefix `\\.\pipe\`, which may be missing. 3 when that is no plain file
/// name.
error_t PipeFileName(std::string_view pipe, std::string& name);

class message_pipe_t;

/// A place at a pipe's owner, between waiting for the pipe and opening it. Movable; a place that is not opened is given
/// back.
class pipe_place_t {
 public:
  pipe_place_t() = default;

 private:
  friend class message_pipe_t;

  descriptor_t socket_{-1};
  /// Why a pipe that is there cannot be opened.
  error_t failure_ = error::InvalidHandle;
};

/// One end of a pipe: `RuntimeFolder()/pipe/NAME`, a Unix stream socket. A message is its length in 32 bits,
/// little-endian, and that many bytes.
///
/// One thread may write while another reads; no two may write and no two may read. Nothing throws but for memory, and a
/// peer that goes never raises SIGPIPE. No number of a peer's sizes anything.
class message_pipe_t {
 public:
  /// An end made elsewhere: a connected stream socket, which becomes this object's.
  explicit message_pipe_t(descriptor_t socket) noexcept;
  message_pipe_t(const message_pipe_t&) = delete;
  message_pipe_t& operator=(const message_pipe_t&) = delete;

  /// Waits until a pipe's owner has room for a client, up to so many milliseconds; 0 looks once. 2 at once when there
  /// is no such pipe or its owner has died, 121 when there was no room in time, 3 for what is not a name. Every other
  /// obstacle is told by Open.
  static error_t Wait(std::string_view name, std::uint32_t milliseconds, pipe_place_t& place);
  /// Opens the pipe in the place that Wait gave. 2 when the owner has gone meanwhile, 5 when the caller may not open
  /// it, 6 when what has the name is no pipe, or the system's failure.
  static error_t Open(pipe_place_t place, boost::shared_ptr<message_pipe_t>& pipe);
  /// Both at once, without waiting; 231 when there is no room.
  static error_t Open(std::string_view name, boost::shared_ptr<message_pipe_t>& pipe);

  /// Writes one message. 109 when the peer has gone, 87 for a message that is too long. A write that failed in the
  /// middle of the message leaves nothing that could be written after it: every later one is 109.
  error_t Write(std::span<const std::uint8_t> message, const pipe_wait_t& wait = {});
  /// Writes one message whose bytes lie in several places, the last of them in `tail` unless that is null: all that it
  /// holds. A write that fails leaves it with what it has not given.
  error_t Write(std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest, const pipe_wait_t& wait = {},
                kernel_pipe_t* tail = nullptr);

  /// Writes one message whose bytes lie in files, without bringing them into this process's memory. 1117 when a file is
  /// shorter. The calling thread has SIGPIPE blocked or ignored.
  error_t WriteFiles(std::span<const file_part_t> parts, const pipe_wait_t& wait = {});

  /// Fills the buffer from the message at hand, or from the next one. 0: that was the end of the message. 234: the
  /// message goes on, with the next read. 109: the peer has gone, be it between messages or in the middle of one.
  /// `count` tells how many bytes came, also when the wait ended early; then, too, the next read goes on.
  error_t Read(std::span<std::uint8_t> buffer, std::size_t& count, const pipe_wait_t& wait = {});
  /// Reads the rest of the message at hand, or the next one, whole. 234 when it is longer than the limit: `message` has
  /// so many bytes of it. The memory grows as bytes arrive; what `message` held before is room that is there already.
  error_t ReadMessage(std::vector<std::uint8_t>& message, std::size_t limit = MaxPipeMessage,
                      const pipe_wait_t& wait = {});

  /// Writes a request and reads its reply as Read does; in between the thread does the work of its meanwhile_t, under
  /// whatever locks it has. 231, and nothing is written, while something of the peer's has not been read: whatever it
  /// is, it would be taken for this request's reply.
  error_t Transact(std::span<const std::uint8_t> request, std::span<std::uint8_t> reply, std::size_t& count,
                   const pipe_wait_t& wait = {}) {
    return Transact(request, {}, reply, count, wait);
  }
  /// The same with a request whose bytes lie in several places, as for Write.
  error_t Transact(std::span<const std::uint8_t> head, std::span<const std::uint8_t> rest,
                   std::span<std::uint8_t> reply, std::size_t& count, const pipe_wait_t& wait,
                   kernel_pipe_t* tail = nullptr);

  /// The same with room in the kernel too: the bytes of a reply that is neither small nor longer than the reply's
  /// memory can be left in the pipe, which is empty before; `count` tells how many wherever they are, and the pipe what
  /// it holds: all of them or none.
  error_t Transact(std::span<const std::uint8_t> request, std::span<std::uint8_t> reply, kernel_pipe_t& pipe,
                   std::size_t& count, const pipe_wait_t& wait);

  /// For an end that waits for its peer again and again: waits without an end are left to the socket, at half the calls
  /// of the system. What is written from files then waits without an end, too; End ends all of them. Before the first
  /// operation.
  void WaitInSocket() noexcept;
  /// Nothing is to be read or written any more: whoever waits for the peer finds it gone, and so does the peer. Any
  /// thread.
  void End() noexcept;

  /// For waiting on several things: readable when a message begins, or the peer has gone. Owned by the pipe; not to be
  /// read or written.
  int Descriptor() const noexcept { return socket_.Get(); }

 private:
  static constexpr std::size_t HeaderSize = 4;
  using header_t = std::array<std::uint8_t, HeaderSize>;

  static header_t HeaderOf(std::size_t length) noexcept;
  error_t Receive(std::span<std::uint8_t> buffer, std::size_t& count, const pipe_wait_t& wait);
  error_t SendFile(file_part_t part, const pipe_wait_t& wait);
  error_t SendHeld(kernel_pipe_t& pipe, const pipe_wait_t& wait);
  error_t ReceiveOnce(std::span<std::uint8_t> first, std::span<std::uint8_t> rest, std::size_t& count,
                      const pipe_wait_t& wait);
  error_t ReadHeader(std::span<std::uint8_t> room, std::size_t& count, const pipe_wait_t& wait);
  error_t ReceiveIntoPipe(std::span<std::uint8_t> buffer, kernel_pipe_t& pipe, std::size_t& count,
                          const pipe_wait_t& wait);
  std::size_t TakeAhead(std::span<std::uint8_t> buffer);
  error_t LookForUnread() const;

  const descriptor_t socket_;
  bool waitsInSocket_ = false;

  // The writer's.
  bool writeBroken_ = false;

  // The reader's.
  header_t header_{};
  std::size_t headerSize_ = 0;  ///< Bytes of the header that have come; HeaderSize while a message is at hand.
  std::size_t left_ = 0;        ///< Bytes of the message at hand that have not been received.
  /// What came with the end of a message and belongs to those behind it. Mostly empty: who asks waits for the answer.
  std::vector<std::uint8_t> ahead_;
  std::size_t aheadBegin_ = 0;
  bool hasAsked_ = false;  ///< What comes to this end are answers.
};

/// A pipe's owner. Its name is free again when it goes; the pipes that it accepted live on.
class pipe_listener_t {
 public:
  virtual ~pipe_listener_t() = default;

  /// Begins to listen. `socketMode`: of the socket file, below a folder that its group alone can enter. `waiting`: how
  /// many clients may wait to be accepted, beside one. 231 when the pipe has a living owner, 6 when something else has
  /// the name, 3 for what is not a name. An owner who died is replaced.
  static error_t Listen(std::string_view name, mode_t socketMode, int waiting,
                        boost::shared_ptr<pipe_listener_t>& listener);

  /// Takes the next client, which may have gone again. 258 and 995 as the wait says; 4 when no descriptor is free: the
  /// client goes on waiting. One thread at a time.
  virtual error_t Accept(boost::shared_ptr<message_pipe_t>& pipe, const pipe_wait_t& wait = {}) = 0;

  /// For waiting on several things: readable when a client waits. Owned by the listener.
  virtual int Descriptor() const noexcept = 0;
};

}  // namespace platform
