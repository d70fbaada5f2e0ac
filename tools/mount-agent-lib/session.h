// One connection's side of the protocol: requests in, replies out, without a transport.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mount-agent-lib/content.h"
#include "mount-agent-lib/wire.h"

namespace mount_agent {

/// The commands of the protocol; each request begins with one.
enum class command_t : std::uint32_t { Enumerate = 0, Open = 1, Read = 2, Write = 3, GetSize = 4 };

/// The longest read that is answered in full; a longer one gets this much, and the service does not ask for it.
inline constexpr std::uint32_t MaxReadLength = 40U << 20U;
/// The longest request that is received: the largest write, and room to spare.
inline constexpr std::uint32_t MaxRequestLength = MaxReadLength + 4096;
/// Reads of this length and more are answered from where they lie, when the item tells: below, a copy costs less.
inline constexpr std::size_t LeastFromFiles = 16U << 10U;
/// Files that one connection may have open.
inline constexpr std::size_t MaxHandles = 65536;

/// What was opened, and what is answered. One thread.
///
/// Replies have no field for a failure. An empty message is none of the replies that Enumerate, Open, Write and GetSize
/// have, so the service takes it for a failure of that one call and goes on with the pipe; that is how failures are
/// told. Bytes of any number are a good reply to Read, and too few of them would be taken for the end of the file: a
/// read that fails costs the connection.
///
/// A file of the root folder has a handle that follows from its name, and keeps it on every connection of every agent
/// that serves the same folder: a handle of a connection that was lost leads to the same file. (Where two names would
/// have the same handle, one in a thousand millions, it is the one's who comes first, and is not found from its
/// number.)
class CSession {
 public:
  explicit CSession(IMountedContent& content) : content_(content) {}
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  /// Replaces `reply`. False: the request is none, or cannot be answered, and the connection has to be closed.
  bool Answer(const void* request, std::size_t length, bytes_t& reply);
  /// Where the reply lies, in the place of bytes; empty when it is those. Good until the next request.
  const std::vector<platform::file_part_t>& FileParts() const { return fileParts_; }

  /// The handle that a file of the root folder gets unless another one has it already.
  static std::int32_t HandleOf(std::string_view name);

 private:
  struct SOpened {
    std::string path;
    boost::shared_ptr<IMountedItem> item;
  };
  using item_ptr_t = boost::shared_ptr<IMountedItem>;

  bool AnswerEnumerate(CRequestReader& request, bytes_t& reply);
  bool AnswerOpen(CRequestReader& request, bytes_t& reply);
  bool AnswerRead(CRequestReader& request, bytes_t& reply);
  bool AnswerWrite(CRequestReader& request, bytes_t& reply);
  bool AnswerGetSize(CRequestReader& request, bytes_t& reply);

  /// The item of a handle; empty for one that leads nowhere.
  item_ptr_t Find(std::uint32_t handle);
  item_ptr_t FindByName(std::uint32_t handle);
  /// Gives the path a handle, or the one that it has.
  std::int32_t Keep(std::string path, const item_ptr_t& item);

  IMountedContent& content_;
  std::unordered_map<std::int32_t, SOpened> opened_;
  std::int32_t nextUnnamed_ = -1;  // Chosen when first needed.
  std::vector<platform::file_part_t> fileParts_;
};

}  // namespace mount_agent
