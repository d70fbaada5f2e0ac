#include "integration/support/wire.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace test {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_in Address(const std::string& host, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  return address;
}

bool WaitReadable(int socket, std::chrono::steady_clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  pollfd poll{socket, POLLIN, 0};
  return ::poll(&poll, 1, static_cast<int>(std::max<long long>(0, left.count()))) > 0;
}

/// Skips a post_op_attr or pre_op_attr part of wcc_data.
void SkipWcc(CDecoder& decoder) {
  if (decoder.U32() != 0)
    decoder.Fixed(24);
  if (decoder.U32() != 0)
    DecodeAttributes(decoder);
}

}  // namespace

CEncoder& CEncoder::U32(std::uint32_t value) {
  const std::uint32_t network = htonl(value);
  bytes_.append(reinterpret_cast<const char*>(&network), 4);
  return *this;
}

CEncoder& CEncoder::U64(std::uint64_t value) {
  U32(static_cast<std::uint32_t>(value >> 32));
  return U32(static_cast<std::uint32_t>(value));
}

CEncoder& CEncoder::Opaque(const bytes_t& data) {
  U32(static_cast<std::uint32_t>(data.size()));
  bytes_ += data;
  bytes_.append((4 - data.size() % 4) % 4, '\0');
  return *this;
}

CEncoder& CEncoder::Raw(const bytes_t& data) {
  bytes_ += data;
  return *this;
}

bytes_t CDecoder::Fixed(std::size_t length) {
  if (bytes_.size() - position_ < length)
    throw std::runtime_error("reply ends early");
  position_ += length;
  return bytes_.substr(position_ - length, length);
}

std::uint32_t CDecoder::U32() {
  std::uint32_t network = 0;
  std::memcpy(&network, Fixed(4).data(), 4);
  return ntohl(network);
}

std::uint64_t CDecoder::U64() {
  const std::uint64_t high = U32();
  return high << 32 | U32();
}

bytes_t CDecoder::Opaque() {
  const std::uint32_t length = U32();
  bytes_t data = Fixed(length);
  Fixed((4 - length % 4) % 4);
  return data;
}

bytes_t CallMessage(std::uint32_t xid, std::uint32_t program, std::uint32_t version, std::uint32_t procedure,
                    const bytes_t& arguments, std::uint32_t rpcVersion, std::uint32_t messageType,
                    const bytes_t& credential) {
  CEncoder message;
  message.U32(xid).U32(messageType).U32(rpcVersion).U32(program).U32(version).U32(procedure);
  message.U32(credential.empty() ? 0 : 1).Opaque(credential).U32(0).U32(0).Raw(arguments);
  return message;
}

bytes_t Mark(std::size_t length, bool last) {
  return CEncoder().U32(static_cast<std::uint32_t>(length) | (last ? 0x80000000U : 0U));
}

bool SReply::IsSuccess() const {
  return words[0] == 1 && words[1] == 0 && words[2] == 0 && words[3] == 0 && words[4] == 0;
}

bool SReply::IsUnavailable() const {
  return words[0] == 1 && words[1] == 0 && words[2] == 3 && words[3] == 0 && words[4] == 0 && body.empty();
}

SReply ParseReply(const bytes_t& record) {
  CDecoder decoder(record);
  SReply reply;
  reply.xid = decoder.U32();
  for (std::uint32_t& word : reply.words)
    word = decoder.U32();
  reply.body = decoder.Rest();
  return reply;
}

CConnection::CConnection(std::uint16_t port, const std::string& sourceAddress) {
  socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in source = Address(sourceAddress, 0);
  const sockaddr_in target = Address("127.0.0.1", port);
  if (bind(socket_, reinterpret_cast<const sockaddr*>(&source), sizeof source) != 0)
    Fail("bind");
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    Fail("connect");
}

CConnection::~CConnection() {
  close(socket_);
}

void CConnection::SendRaw(const bytes_t& data) {
  std::size_t sent = 0;
  while (sent < data.size()) {
    const ssize_t count = send(socket_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (count < 0)
      Fail("send");
    sent += static_cast<std::size_t>(count);
  }
}

std::optional<bytes_t> CConnection::ReceiveRecord(std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const auto receive = [&](std::size_t length) -> std::optional<bytes_t> {
    bytes_t data(length, '\0');
    std::size_t have = 0;
    while (have < length) {
      if (!WaitReadable(socket_, end))
        throw std::runtime_error("no reply in time");
      const ssize_t count = recv(socket_, data.data() + have, length - have, 0);
      if (count < 0 && errno == ECONNRESET)
        return std::nullopt;
      if (count < 0)
        Fail("recv");
      if (count == 0)
        return std::nullopt;
      have += static_cast<std::size_t>(count);
    }
    return data;
  };
  const std::optional<bytes_t> mark = receive(4);
  if (!mark)
    return std::nullopt;
  const std::uint32_t word = CDecoder(*mark).U32();
  if ((word & 0x80000000U) == 0)
    throw std::runtime_error("reply is no last fragment");
  return receive(word & 0x7FFFFFFFU);
}

bool CConnection::IsClosedByServer(std::chrono::milliseconds limit) {
  if (!WaitReadable(socket_, std::chrono::steady_clock::now() + limit))
    return false;
  char byte = 0;
  return recv(socket_, &byte, 1, 0) <= 0;
}

SReply CConnection::Call(std::uint32_t program, std::uint32_t procedure, const bytes_t& arguments,
                         std::uint32_t version) {
  if (version == 0)
    version = program == PortmapProgram ? 2 : 3;
  const std::uint32_t xid = NextXid();
  SendRecord(CallMessage(xid, program, version, procedure, arguments));
  const std::optional<bytes_t> record = ReceiveRecord();
  if (!record)
    throw std::runtime_error("connection closed instead of a reply");
  SReply reply = ParseReply(*record);
  if (reply.xid != xid)
    throw std::runtime_error("reply with another xid");
  return reply;
}

std::optional<SReply> CallUdp(std::uint16_t port, const bytes_t& message, std::chrono::milliseconds limit) {
  const int channel = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in target = Address("127.0.0.1", port);
  sendto(channel, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
  std::optional<SReply> reply;
  if (WaitReadable(channel, std::chrono::steady_clock::now() + limit)) {
    bytes_t data(65536, '\0');
    const ssize_t count = recv(channel, data.data(), data.size(), 0);
    if (count >= 0)
      reply = ParseReply(data.substr(0, static_cast<std::size_t>(count)));
  }
  close(channel);
  return reply;
}

SAttributes DecodeAttributes(CDecoder& decoder) {
  SAttributes a;
  a.type = decoder.U32();
  a.mode = decoder.U32();
  a.nlink = decoder.U32();
  a.uid = decoder.U32();
  a.gid = decoder.U32();
  a.size = decoder.U64();
  a.used = decoder.U64();
  a.rdev = decoder.U64();
  a.fsid = decoder.U64();
  a.fileid = decoder.U64();
  for (std::uint32_t* time : {a.atime, a.mtime, a.ctime}) {
    time[0] = decoder.U32();
    time[1] = decoder.U32();
  }
  return a;
}

bytes_t SSetAttributes::Encode() const {
  CEncoder out;
  for (const auto& field : {mode, uid, gid}) {
    out.U32(field ? 1 : 0);
    if (field)
      out.U32(*field);
  }
  out.U32(size ? 1 : 0);
  if (size)
    out.U64(*size);
  out.U32(atimeHow);
  if (atimeHow == 2)
    out.U32(atime[0]).U32(atime[1]);
  out.U32(mtimeHow);
  if (mtimeHow == 2)
    out.U32(mtime[0]).U32(mtime[1]);
  return out;
}

CNfsClient::CNfsClient(std::uint16_t nfsPort, std::uint16_t mountPort, const std::string& sourceAddress)
    : mountPort_(mountPort), sourceAddress_(sourceAddress), nfs_(nfsPort, sourceAddress) {}

std::optional<bytes_t> CNfsClient::Mount(const std::string& path) {
  CConnection mount(mountPort_, sourceAddress_);
  const SReply reply = mount.Call(MountProgram, 1, CEncoder().Opaque(path));
  if (!reply.IsSuccess())
    throw std::runtime_error("MNT was refused");
  CDecoder decoder(reply.body);
  mountStatus_ = decoder.U32();
  if (mountStatus_ != 0)
    return std::nullopt;
  bytes_t handle = decoder.Opaque();
  for (std::uint32_t flavours = decoder.U32(); flavours > 0; --flavours)
    decoder.U32();
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the MNT result");
  return handle;
}

CDecoder CNfsClient::NfsCall(std::uint32_t procedure, const bytes_t& arguments) {
  const SReply reply = nfs_.Call(NfsProgram, procedure, arguments);
  if (!reply.IsSuccess())
    throw std::runtime_error("call was refused");
  return CDecoder(reply.body);
}

std::uint32_t CNfsClient::GetAttr(const bytes_t& handle, SAttributes* attributes) {
  CDecoder decoder = NfsCall(test::GetAttr, CEncoder().Opaque(handle));
  const std::uint32_t status = decoder.U32();
  if (status == 0) {
    const SAttributes found = DecodeAttributes(decoder);
    if (attributes != nullptr)
      *attributes = found;
  }
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the GETATTR result");
  return status;
}

std::uint32_t CNfsClient::SetAttr(const bytes_t& handle, const SSetAttributes& values,
                                  std::optional<std::pair<std::uint32_t, std::uint32_t>> guard) {
  CEncoder arguments;
  arguments.Opaque(handle).Raw(values.Encode()).U32(guard ? 1 : 0);
  if (guard)
    arguments.U32(guard->first).U32(guard->second);
  CDecoder decoder = NfsCall(test::SetAttr, arguments);
  const std::uint32_t status = decoder.U32();
  SkipWcc(decoder);
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the SETATTR result");
  return status;
}

std::uint32_t CNfsClient::Lookup(const bytes_t& folder, const std::string& name, bytes_t* handle,
                                 SAttributes* attributes) {
  CDecoder decoder = NfsCall(test::Lookup, CEncoder().Opaque(folder).Opaque(name));
  const std::uint32_t status = decoder.U32();
  if (status == 0) {
    const bytes_t found = decoder.Opaque();
    if (handle != nullptr)
      *handle = found;
    if (decoder.U32() != 0) {
      const SAttributes object = DecodeAttributes(decoder);
      if (attributes != nullptr)
        *attributes = object;
    }
  }
  if (decoder.U32() != 0)
    DecodeAttributes(decoder);
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the LOOKUP result");
  return status;
}

std::uint32_t CNfsClient::Access(const bytes_t& handle, std::uint32_t asked, std::uint32_t* granted) {
  CDecoder decoder = NfsCall(test::Access, CEncoder().Opaque(handle).U32(asked));
  const std::uint32_t status = decoder.U32();
  if (decoder.U32() != 0)
    DecodeAttributes(decoder);
  if (status == 0) {
    const std::uint32_t bits = decoder.U32();
    if (granted != nullptr)
      *granted = bits;
  }
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the ACCESS result");
  return status;
}

SReadResult CNfsClient::Read(const bytes_t& handle, std::uint64_t offset, std::uint32_t count) {
  CDecoder decoder = NfsCall(test::Read, CEncoder().Opaque(handle).U64(offset).U32(count));
  SReadResult result;
  result.status = decoder.U32();
  if (decoder.U32() != 0)
    throw std::runtime_error("READ sends no attributes");
  if (result.status == 0) {
    const std::uint32_t length = decoder.U32();
    result.eof = decoder.U32() != 0;
    result.data = decoder.Opaque();
    if (result.data.size() != length)
      throw std::runtime_error("READ count and data differ");
  }
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the READ result");
  return result;
}

std::uint32_t CNfsClient::Write(const bytes_t& handle, std::uint64_t offset, const bytes_t& data,
                                std::uint32_t stable) {
  const auto count = static_cast<std::uint32_t>(data.size());
  CDecoder decoder = NfsCall(test::Write, CEncoder().Opaque(handle).U64(offset).U32(count).U32(stable).Opaque(data));
  const std::uint32_t status = decoder.U32();
  SkipWcc(decoder);
  if (status == 0) {
    if (decoder.U32() != count)
      throw std::runtime_error("WRITE count");
    if (decoder.U32() != 2)
      throw std::runtime_error("WRITE must be FILE_SYNC");
    if (decoder.Fixed(8) != bytes_t(8, '\0'))
      throw std::runtime_error("WRITE verifier");
  }
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the WRITE result");
  return status;
}

std::uint32_t CNfsClient::Create(const bytes_t& folder, const std::string& name, bytes_t* handle, std::uint32_t how,
                                 const SSetAttributes& values) {
  CEncoder arguments;
  arguments.Opaque(folder).Opaque(name).U32(how);
  if (how < 2)
    arguments.Raw(values.Encode());
  if (how == 2)
    arguments.U64(0x0102030405060708ULL);
  CDecoder decoder = NfsCall(test::Create, arguments);
  const std::uint32_t status = decoder.U32();
  if (status == 0) {
    if (decoder.U32() != 1)
      throw std::runtime_error("CREATE gives a handle");
    const bytes_t made = decoder.Opaque();
    if (handle != nullptr)
      *handle = made;
    if (decoder.U32() != 1)
      throw std::runtime_error("CREATE gives attributes");
    DecodeAttributes(decoder);
  }
  SkipWcc(decoder);
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the CREATE result");
  return status;
}

std::uint32_t CNfsClient::MkDir(const bytes_t& folder, const std::string& name, bytes_t* handle) {
  CDecoder decoder = NfsCall(test::MkDir, CEncoder().Opaque(folder).Opaque(name).Raw(SSetAttributes{}.Encode()));
  const std::uint32_t status = decoder.U32();
  if (status == 0) {
    if (decoder.U32() != 1)
      throw std::runtime_error("MKDIR gives a handle");
    const bytes_t made = decoder.Opaque();
    if (handle != nullptr)
      *handle = made;
    if (decoder.U32() != 1)
      throw std::runtime_error("MKDIR gives attributes");
    DecodeAttributes(decoder);
  }
  SkipWcc(decoder);
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the MKDIR result");
  return status;
}

std::uint32_t CNfsClient::Remove(const bytes_t& folder, const std::string& name) {
  CDecoder decoder = NfsCall(test::Remove, CEncoder().Opaque(folder).Opaque(name));
  const std::uint32_t status = decoder.U32();
  SkipWcc(decoder);
  return status;
}

std::uint32_t CNfsClient::RmDir(const bytes_t& folder, const std::string& name) {
  CDecoder decoder = NfsCall(test::RmDir, CEncoder().Opaque(folder).Opaque(name));
  const std::uint32_t status = decoder.U32();
  SkipWcc(decoder);
  return status;
}

std::uint32_t CNfsClient::Rename(const bytes_t& from, const std::string& fromName, const bytes_t& to,
                                 const std::string& toName) {
  CDecoder decoder = NfsCall(test::Rename, CEncoder().Opaque(from).Opaque(fromName).Opaque(to).Opaque(toName));
  const std::uint32_t status = decoder.U32();
  SkipWcc(decoder);
  SkipWcc(decoder);
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the RENAME result");
  return status;
}

SPage CNfsClient::ReadDirPlus(const bytes_t& folder, std::uint64_t cookie, std::uint32_t maxCount) {
  CDecoder decoder = NfsCall(test::ReadDirPlus, CEncoder().Opaque(folder).U64(cookie).U64(0).U32(1200).U32(maxCount));
  SPage page;
  page.status = decoder.U32();
  if (decoder.U32() != 0)
    throw std::runtime_error("READDIRPLUS sends no folder attributes");
  if (page.status != 0)
    return page;
  decoder.Fixed(8);
  while (decoder.U32() != 0) {
    SEntry entry;
    entry.fileid = decoder.U64();
    entry.name = decoder.Opaque();
    entry.cookie = decoder.U64();
    if (decoder.U32() != 0)
      throw std::runtime_error("READDIRPLUS sends no attributes");
    if (decoder.U32() != 1)
      throw std::runtime_error("READDIRPLUS sends handles");
    entry.handle = decoder.Opaque();
    page.entries.push_back(std::move(entry));
  }
  page.eof = decoder.U32() != 0;
  if (!decoder.AtEnd())
    throw std::runtime_error("bytes behind the READDIRPLUS result");
  return page;
}

std::vector<SEntry> CNfsClient::List(const bytes_t& folder) {
  std::vector<SEntry> all;
  std::uint64_t cookie = 0;
  for (;;) {
    SPage page = ReadDirPlus(folder, cookie);
    if (page.status != 0)
      throw std::runtime_error("READDIRPLUS status " + std::to_string(page.status));
    for (SEntry& entry : page.entries) {
      cookie = entry.cookie;
      all.push_back(std::move(entry));
    }
    if (page.eof)
      return all;
    if (page.entries.empty())
      throw std::runtime_error("an empty page without eof");
  }
}

std::uint32_t GetPort(std::uint32_t program, std::uint32_t protocol, std::uint32_t version) {
  CConnection portmap(111);
  const SReply reply = portmap.Call(PortmapProgram, 3, CEncoder().U32(program).U32(version).U32(protocol).U32(0));
  if (!reply.IsSuccess())
    throw std::runtime_error("GETPORT was refused");
  return CDecoder(reply.body).U32();
}

}  // namespace test
