// How every NFS operation ends, and what the operations share.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <exception>
#include <string>
#include <string_view>

#include "platform/file_attributes.h"
#include "vfs/items/fs_item.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/nfs3/nfs_attributes.h"
#include "vfs/nfs3/nfs_results.h"

/// Runs the operation. A failure is told to `log` (failure, status) and becomes the failed form of the result.
template <typename Result, typename Operation, typename Log>
void AnswerFailures(Result& result, const Operation& operation, const Log& log) noexcept {
  try {
    operation();
  } catch (const std::exception& failure) {
    const nfsstat3 status = StatusFromException(failure);
    try {
      log(failure, status);
    } catch (const std::exception&) {
      // Without memory for the line the client still gets its answer.
    }
    SetFailedResult(result, status);
  }
}

/// The caller's address in dotted form, for log lines.
inline std::string AddressText(const sockaddr_in& client) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &client.sin_addr, text, sizeof text);
  return text;
}

inline fattr3 MakeFattr(std::uint64_t fid, IFsItem& item) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  item.GetAttributes(attributes);
  return FattrFromAttributes(fid, attributes);
}

inline wcc_attr MakeWccAttr(IFsItem& item) {
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  item.GetAttributes(attributes);
  return WccAttrFromAttributes(attributes);
}

/// Throws 13 for a client that may not touch the item.
inline void CheckAddress(IFsItem& item, const sockaddr_in& client) {
  if (!item.IsAddressAllowed(client))
    throw CVirtualFsExc(NFS3ERR_ACCES);
}

/// The folder, or empty for a file.
inline boost::shared_ptr<IFsFolder> AsFolder(const boost::shared_ptr<IFsItem>& item) {
  return boost::dynamic_pointer_cast<IFsFolder>(item);
}

/// Whether an entry can have the name at all: it is not empty and holds neither a separator nor a zero byte.
inline bool IsEntryName(std::string_view name) {
  return !name.empty() && name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

inline bool IsDotName(std::string_view name) {
  return name == "." || name == "..";
}

/// Throws 22 for a name that cannot be given to a new entry.
inline void CheckNewName(std::string_view name) {
  if (!IsEntryName(name) || IsDotName(name))
    throw CVirtualFsExc(NFS3ERR_INVAL);
}

/// Applies what a client asks to be set, in the order of mode, size, access and modification time. Owner and group are
/// ignored. Throws 22 for the size of a folder and for an unknown way to set a time.
void ApplyAttributes(IFsItem& item, const sattr3& attributes);

/// Throws win_sys_exc_t 1113 for a name that is not UTF-8.
void CheckNameEncoding(const std::string& name);
