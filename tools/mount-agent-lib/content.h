// What a mount agent serves: a tree of items, whatever it is made of.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "platform/message_pipe.h"

namespace mount_agent {

/// One entry of a listing. The service hands kind and size on and gives them no meaning; an agent that has none of its
/// own uses 0 for files and 1 for folders.
struct SListedItem {
  std::uint32_t kind = 0;
  std::uint64_t size = 0;
  std::string name;  ///< UTF-8, one component.
};

/// A file of the backup. Any thread, several at once; destroyed when the last connection that opened it is gone.
/// No operation throws.
class IMountedItem {
 public:
  virtual ~IMountedItem() = default;

  /// Reads what there is: fewer bytes than asked for only at the end of the file.
  virtual platform::error_t Read(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) = 0;
  /// Appends where the bytes lie in files that stay open for as long as the item; all of the length is there. They are
  /// then sent from there, without a copy, and as they are by then. False, and nothing appended, where they have to be
  /// read.
  virtual bool Locate(std::uint64_t /*offset*/, std::size_t /*length*/, std::vector<platform::file_part_t>& /*parts*/) {
    return false;
  }
  /// Writes everything or fails. After success the data survives the death of the agent: the service has told the guest
  /// that it is stored.
  virtual platform::error_t Write(std::uint64_t offset, const void* data, std::size_t length) = 0;
  virtual platform::error_t GetSize(std::uint64_t& size) = 0;
};

/// The backup. Any thread, several at once. No operation throws.
///
/// Paths come from the peer, cut into components at `/` and `\`, empty ones dropped; what the components hold is
/// unchecked: "..", zero bytes, bytes that are no UTF-8.
class IMountedContent {
 public:
  using path_t = std::vector<std::string_view>;

  virtual ~IMountedContent() = default;

  /// Replaces `items` by the entries of a folder; no components are the root. Any failure makes the service keep what
  /// it knows of the folder.
  virtual platform::error_t List(const path_t& path, std::vector<SListedItem>& items) = 0;
  /// Opens a file. 2 or 3: there is none, and the service forgets the item for good; any other failure leaves it known.
  virtual platform::error_t Open(const path_t& path, boost::shared_ptr<IMountedItem>& item) = 0;
  /// Brings what was written to the disk, where that makes a difference. Called when the agent ends in order.
  virtual platform::error_t Flush() = 0;
};

}  // namespace mount_agent
