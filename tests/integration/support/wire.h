// A client of our own that shares no code with the server: XDR, ONC RPC and NFS version 3 by hand.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

using namespace std::chrono_literals;
using bytes_t = std::string;

inline constexpr std::uint32_t PortmapProgram = 100000;
inline constexpr std::uint32_t NfsProgram = 100003;
inline constexpr std::uint32_t MountProgram = 100005;

enum procedure_t : std::uint32_t {
  Null,
  GetAttr,
  SetAttr,
  Lookup,
  Access,
  ReadLink,
  Read,
  Write,
  Create,
  MkDir,
  SymLink,
  MkNod,
  Remove,
  RmDir,
  Rename,
  Link,
  ReadDir,
  ReadDirPlus,
  FsStat,
  FsInfo,
  PathConf,
  Commit
};

/// Appends XDR items.
class CEncoder {
 public:
  CEncoder& U32(std::uint32_t value);
  CEncoder& U64(std::uint64_t value);
  CEncoder& Opaque(const bytes_t& data);
  CEncoder& Raw(const bytes_t& data);
  const bytes_t& Bytes() const { return bytes_; }
  operator const bytes_t&() const { return bytes_; }

 private:
  bytes_t bytes_;
};

/// Reads XDR items; throws std::runtime_error when the bytes end early.
class CDecoder {
 public:
  explicit CDecoder(bytes_t bytes) : bytes_(std::move(bytes)) {}
  std::uint32_t U32();
  std::uint64_t U64();
  bytes_t Opaque();
  bytes_t Fixed(std::size_t length);
  bool AtEnd() const { return position_ == bytes_.size(); }
  bytes_t Rest() const { return bytes_.substr(position_); }

 private:
  bytes_t bytes_;
  std::size_t position_ = 0;
};

/// A call message without its record mark.
bytes_t CallMessage(std::uint32_t xid, std::uint32_t program, std::uint32_t version, std::uint32_t procedure,
                    const bytes_t& arguments, std::uint32_t rpcVersion = 2, std::uint32_t messageType = 0,
                    const bytes_t& credential = {});
bytes_t Mark(std::size_t length, bool last = true);

struct SReply {
  std::uint32_t xid = 0;
  std::uint32_t words[5]{};  ///< What follows the xid: type, reply status, verifier flavour and length, accept status.
  bytes_t body;

  bool IsSuccess() const;
  bool IsUnavailable() const;  ///< The five words 1, 0, 3, 0, 0 and no body.
};
SReply ParseReply(const bytes_t& record);

/// One TCP connection to 127.0.0.1, from any loopback source address.
class CConnection {
 public:
  explicit CConnection(std::uint16_t port, const std::string& sourceAddress = "127.0.0.1");
  CConnection(const CConnection&) = delete;
  CConnection& operator=(const CConnection&) = delete;
  ~CConnection();

  int Socket() const { return socket_; }
  void SendRaw(const bytes_t& data);
  void SendRecord(const bytes_t& message) { SendRaw(Mark(message.size()) + message); }
  /// The next record; nothing when the server closed. Throws after the limit.
  std::optional<bytes_t> ReceiveRecord(std::chrono::milliseconds limit = 30s);
  /// True when the server closes without sending anything more.
  bool IsClosedByServer(std::chrono::milliseconds limit = 30s);
  SReply Call(std::uint32_t program, std::uint32_t procedure, const bytes_t& arguments = {}, std::uint32_t version = 0);
  std::uint32_t NextXid() { return ++xid_; }

 private:
  int socket_ = -1;
  std::uint32_t xid_ = 1000;
};

/// One datagram call to a port of 127.0.0.1; nothing when no answer comes within the limit.
std::optional<SReply> CallUdp(std::uint16_t port, const bytes_t& message, std::chrono::milliseconds limit = 5s);

struct SAttributes {
  std::uint32_t type = 0, mode = 0, nlink = 0, uid = 0, gid = 0;
  std::uint64_t size = 0, used = 0, rdev = 0, fsid = 0, fileid = 0;
  std::uint32_t atime[2]{}, mtime[2]{}, ctime[2]{};
};
SAttributes DecodeAttributes(CDecoder& decoder);

struct SEntry {
  std::uint64_t fileid = 0;
  std::string name;
  std::uint64_t cookie = 0;
  bytes_t handle;
};

struct SPage {
  std::uint32_t status = 0;
  std::vector<SEntry> entries;
  bool eof = false;
};

/// Optional fields of a sattr3.
struct SSetAttributes {
  std::optional<std::uint32_t> mode, uid, gid;
  std::optional<std::uint64_t> size;
  std::uint32_t atimeHow = 0, atime[2]{};
  std::uint32_t mtimeHow = 0, mtime[2]{};
  bytes_t Encode() const;
};

struct SReadResult {
  std::uint32_t status = 0;
  bool eof = false;
  bytes_t data;
};

/// The procedures that tests use most; each returns the nfsstat3 and fills what it is given. A reply that is not
/// shaped as it must be throws.
class CNfsClient {
 public:
  explicit CNfsClient(std::uint16_t nfsPort = 2049, std::uint16_t mountPort = 1058,
                      const std::string& sourceAddress = "127.0.0.1");

  /// The handle of a path, or nothing with the status in MountStatus().
  std::optional<bytes_t> Mount(const std::string& path = "/share");
  std::uint32_t MountStatus() const { return mountStatus_; }

  std::uint32_t GetAttr(const bytes_t& handle, SAttributes* attributes = nullptr);
  std::uint32_t SetAttr(const bytes_t& handle, const SSetAttributes& values,
                        std::optional<std::pair<std::uint32_t, std::uint32_t>> guard = {});
  std::uint32_t Lookup(const bytes_t& folder, const std::string& name, bytes_t* handle = nullptr,
                       SAttributes* attributes = nullptr);
  std::uint32_t Access(const bytes_t& handle, std::uint32_t asked, std::uint32_t* granted = nullptr);
  SReadResult Read(const bytes_t& handle, std::uint64_t offset, std::uint32_t count);
  std::uint32_t Write(const bytes_t& handle, std::uint64_t offset, const bytes_t& data, std::uint32_t stable = 2);
  /// how: 0 unchecked, 1 guarded, 2 exclusive.
  std::uint32_t Create(const bytes_t& folder, const std::string& name, bytes_t* handle = nullptr, std::uint32_t how = 0,
                       const SSetAttributes& values = {});
  std::uint32_t MkDir(const bytes_t& folder, const std::string& name, bytes_t* handle = nullptr);
  std::uint32_t Remove(const bytes_t& folder, const std::string& name);
  std::uint32_t RmDir(const bytes_t& folder, const std::string& name);
  std::uint32_t Rename(const bytes_t& from, const std::string& fromName, const bytes_t& to, const std::string& toName);
  SPage ReadDirPlus(const bytes_t& folder, std::uint64_t cookie, std::uint32_t maxCount = 65536);
  /// All pages from cookie 0; throws on a status.
  std::vector<SEntry> List(const bytes_t& folder);

  CConnection& Nfs() { return nfs_; }

 private:
  /// The decoder of a successful reply's body; throws for any other reply.
  CDecoder NfsCall(std::uint32_t procedure, const bytes_t& arguments);

  std::uint16_t mountPort_;
  std::string sourceAddress_;
  CConnection nfs_;
  std::uint32_t mountStatus_ = 0;
};

/// GETPORT for version 3 of a program over TCP, or another protocol number.
std::uint32_t GetPort(std::uint32_t program, std::uint32_t protocol = 6, std::uint32_t version = 3);

}  // namespace test
