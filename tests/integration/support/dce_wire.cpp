#include "integration/support/dce_wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace test {
namespace {

constexpr std::uint16_t ManagementPort = 6161;
constexpr std::size_t HeaderSize = 16;
constexpr std::size_t RequestHeadSize = 8;
constexpr std::size_t FragmentSize = 5840;

using clock_t = std::chrono::steady_clock;

static_assert(std::endian::native == std::endian::little);

std::uint32_t Number(const bytes_t& bytes, std::size_t at, std::size_t size) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < size; ++i)
    number |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
  return number;
}

/// Reads a stub; throws at its end.
class reader_t {
 public:
  explicit reader_t(const bytes_t& stub) : stub_(stub) {}

  std::uint32_t U32() {
    position_ = (position_ + 3) / 4 * 4;
    position_ += 4;
    return Number(stub_, position_ - 4, 4);
  }
  std::optional<std::u16string> UniqueString() {
    if (U32() == 0)
      return {};
    U32();
    U32();
    const std::uint32_t count = U32();
    std::u16string text;
    for (std::uint32_t i = 0; i < count; ++i, position_ += 2)
      text.push_back(static_cast<char16_t>(Number(stub_, position_, 2)));
    if (text.empty() || text.back() != 0)
      throw std::runtime_error("a string without its end");
    text.pop_back();
    return text;
  }
  bool AtEnd() const { return position_ == stub_.size(); }

 private:
  const bytes_t& stub_;
  std::size_t position_ = 0;
};

/// Waits until there is something to read; false when the time has passed.
bool IsReadable(int socket, clock_t::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock_t::now()).count();
  pollfd entry{socket, POLLIN, 0};
  return poll(&entry, 1, static_cast<int>(std::max<long>(left, 0))) > 0;
}

/// False at the end of the connection.
bool Fill(int socket, bytes_t& bytes, std::size_t size, clock_t::time_point end) {
  while (bytes.size() < size) {
    if (!IsReadable(socket, end))
      throw std::runtime_error("no answer");
    std::array<char, 65536> part{};
    const ssize_t got = recv(socket, part.data(), std::min(part.size(), size - bytes.size()), 0);
    if (got <= 0)
      return false;
    bytes.append(part.data(), static_cast<std::size_t>(got));
  }
  return true;
}

void Connect(int socket, const sockaddr* address, socklen_t size) {
  if (socket < 0 || connect(socket, address, size) != 0)
    throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
}

}  // namespace

bytes_t Le16(std::uint32_t number) {
  return {static_cast<char>(number), static_cast<char>(number >> 8)};
}
bytes_t Le32(std::uint32_t number) {
  return Le16(number) + Le16(number >> 16);
}

bytes_t DcePdu(dce_pdu_t type, std::uint8_t flags, const bytes_t& body, std::optional<std::uint32_t> fragment,
               std::uint32_t authLength) {
  const bytes_t head{5, 0, static_cast<char>(type), static_cast<char>(flags), 0x10, 0, 0, 0};
  return head + Le16(fragment.value_or(HeaderSize + body.size())) + Le16(authLength) + Le32(1) + body;
}

bytes_t BindBody() {
  using namespace std::string_literals;
  return Le16(FragmentSize) + Le16(FragmentSize) + Le32(0) + "\1\0\0\0"s + "\0\0\1\0"s +
         "\x7a\xc0\xc2\xd1\x89\xd9\xcc\x48\xa4\x23\xb7\x3e\xcd\x51\x8d\x40\1\0\0\0"s +
         "\x04\x5d\x88\x8a\xeb\x1c\xc9\x11\x9f\xe8\x08\x00\x2b\x10\x48\x60\2\0\0\0"s;
}

bytes_t RequestBody(std::uint16_t opnum, const bytes_t& stub) {
  return Le32(static_cast<std::uint32_t>(stub.size())) + Le16(0) + Le16(opnum) + stub;
}

bytes_t Fragments(std::uint16_t opnum, const bytes_t& stub) {
  constexpr std::size_t Part = FragmentSize - HeaderSize - RequestHeadSize;
  bytes_t all;
  all.reserve(stub.size() + stub.size() / 100 + FragmentSize);
  for (std::size_t at = 0; at == 0 || at < stub.size(); at += Part) {
    const auto flags =
        static_cast<std::uint8_t>((at == 0 ? FirstFragment : 0) | (at + Part >= stub.size() ? LastFragment : 0));
    all += DcePdu(dce_pdu_t::Request, flags, RequestBody(opnum, stub.substr(at, Part)));
  }
  return all;
}

bytes_t NdrString(const std::u16string& text, std::optional<std::uint32_t> capacity,
                  std::optional<std::uint32_t> offset, std::optional<std::uint32_t> count, bool terminated) {
  const auto units = static_cast<std::uint32_t>(text.size() + (terminated ? 1 : 0));
  bytes_t stub = Le32(capacity.value_or(units)) + Le32(offset.value_or(0)) + Le32(count.value_or(units));
  // The order of this machine's integers is that of the PDU.
  stub.append(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t));
  return terminated ? stub.append(2, '\0') : stub;
}

bytes_t PadTo4(bytes_t stub) {
  stub.resize((stub.size() + 3) / 4 * 4);
  return stub;
}

std::u16string Wide(std::string_view text) {
  return {text.begin(), text.end()};
}

bytes_t DoRpcStub(const std::u16string& name, const std::u16string& arguments) {
  return PadTo4(NdrString(name)) + NdrString(arguments);
}

SRpcResult ParseRpcResult(const bytes_t& stub) {
  reader_t reader(stub);
  SRpcResult result;
  try {
    result.output = reader.UniqueString();
    // The structure begins at a multiple of four, and so does its second field.
    result.success = (reader.U32() & 0xff) != 0;
    result.message = reader.UniqueString();
  } catch (const std::out_of_range&) {
    throw std::runtime_error("a response that ends early");
  }
  if (!reader.AtEnd())
    throw std::runtime_error("a response that is too long");
  return result;
}

CDceConnection::CDceConnection() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(ManagementPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  Connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int on = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

CDceConnection::CDceConnection(const std::string& unixPath) : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (unixPath.size() >= sizeof address.sun_path)
    throw std::runtime_error("path");
  std::memcpy(address.sun_path, unixPath.data(), unixPath.size());
  Connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

CDceConnection::~CDceConnection() {
  close(socket_);
}

bool CDceConnection::Send(const bytes_t& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t sent = send(socket_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
    if (sent <= 0)
      return false;
    at += static_cast<std::size_t>(sent);
  }
  return true;
}

void CDceConnection::EndSending() {
  shutdown(socket_, SHUT_WR);
}

std::optional<bytes_t> CDceConnection::Receive(std::chrono::milliseconds limit) {
  const auto end = clock_t::now() + limit;
  bytes_t pdu;
  if (!Fill(socket_, pdu, HeaderSize, end) || !Fill(socket_, pdu, Number(pdu, 8, 2), end))
    return {};
  return pdu;
}

CDceConnection& CDceConnection::Bind() {
  Send(DcePdu(dce_pdu_t::Bind, WholeRequest, BindBody()));
  const std::optional<bytes_t> answer = Receive();
  if (!answer || static_cast<dce_pdu_t>(answer->at(2)) != dce_pdu_t::BindAck)
    throw std::runtime_error("the bind is not accepted");
  return *this;
}

std::optional<SDceAnswer> CDceConnection::Answer() {
  SDceAnswer answer;
  for (;;) {
    const std::optional<bytes_t> pdu = Receive();
    if (!pdu)
      return {};
    answer.type = static_cast<dce_pdu_t>(pdu->at(2));
    if (answer.type == dce_pdu_t::Fault)
      answer.status = Number(*pdu, HeaderSize + RequestHeadSize, 4);
    if (answer.type != dce_pdu_t::Response)
      return answer;
    answer.stub.append(*pdu, HeaderSize + RequestHeadSize);
    if ((pdu->at(3) & LastFragment) != 0)
      return answer;
  }
}

bool CDceConnection::IsEnded(std::chrono::milliseconds limit) {
  const auto end = clock_t::now() + limit;
  std::array<char, 65536> dropped{};
  while (IsReadable(socket_, end)) {
    if (recv(socket_, dropped.data(), dropped.size(), 0) <= 0)
      return true;
  }
  return false;
}

SRpcResult CDceConnection::DoRpc(const std::u16string& name, const std::u16string& arguments) {
  Send(Fragments(DoRpcOpnum, DoRpcStub(name, arguments)));
  const std::optional<SDceAnswer> answer = Answer();
  if (!answer || answer->type != dce_pdu_t::Response)
    throw std::runtime_error("DoRpc is not answered");
  return ParseRpcResult(answer->stub);
}

}  // namespace test
