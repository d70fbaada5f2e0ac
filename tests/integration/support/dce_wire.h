// A caller of the management endpoint that shares no code with the service: PDUs and stubs by hand, right or wrong.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace test {

using namespace std::chrono_literals;
using bytes_t = std::string;

enum class dce_pdu_t : std::uint8_t { Request = 0, Response = 2, Fault = 3, Bind = 11, BindAck = 12, BindNak = 13 };

inline constexpr std::uint8_t FirstFragment = 1;
inline constexpr std::uint8_t LastFragment = 2;
inline constexpr std::uint8_t WholeRequest = FirstFragment | LastFragment;

inline constexpr std::uint16_t DoRpcOpnum = 0;
inline constexpr std::uint16_t WithBinaryOpnum = 1;
inline constexpr std::uint16_t PingOpnum = 2;

/// Little-endian.
bytes_t Le16(std::uint32_t number);
bytes_t Le32(std::uint32_t number);

/// A PDU whose lengths are right unless they are given.
bytes_t DcePdu(dce_pdu_t type, std::uint8_t flags, const bytes_t& body, std::optional<std::uint32_t> fragment = {},
               std::uint32_t authLength = 0);
/// The bind to the management interface; the trailer, if any, stands at the end.
bytes_t BindBody();
/// The head of a request and (a part of) its stub.
bytes_t RequestBody(std::uint16_t opnum, const bytes_t& stub);
/// All fragments of one request.
bytes_t Fragments(std::uint16_t opnum, const bytes_t& stub);

/// A string as NDR has it, without the padding after it. The counts are right unless they are given.
bytes_t NdrString(const std::u16string& text, std::optional<std::uint32_t> capacity = {},
                  std::optional<std::uint32_t> offset = {}, std::optional<std::uint32_t> count = {},
                  bool terminated = true);
bytes_t PadTo4(bytes_t stub);
/// For texts of ASCII.
std::u16string Wide(std::string_view text);
bytes_t DoRpcStub(const std::u16string& name, const std::u16string& arguments);

/// What came back for a request.
struct SDceAnswer {
  dce_pdu_t type = dce_pdu_t::Fault;
  std::uint32_t status = 0;  ///< Of a fault.
  bytes_t stub;              ///< Of a response, whole.

  bool IsFault(std::uint32_t expected) const { return type == dce_pdu_t::Fault && status == expected; }
};

/// What DoRpc says in a response.
struct SRpcResult {
  bool success = false;
  std::optional<std::u16string> output;
  std::optional<std::u16string> message;
};
/// Throws std::runtime_error for a stub of another shape.
SRpcResult ParseRpcResult(const bytes_t& stub);

/// One connection. Nothing is sent before it is asked for.
class CDceConnection {
 public:
  /// The management port of 127.0.0.1.
  CDceConnection();
  explicit CDceConnection(const std::string& unixPath);
  CDceConnection(const CDceConnection&) = delete;
  CDceConnection& operator=(const CDceConnection&) = delete;
  ~CDceConnection();

  int Socket() const { return socket_; }
  /// False when the peer takes no more.
  bool Send(const bytes_t& bytes);
  /// Nothing more will come from here.
  void EndSending();
  /// The next PDU; nothing at the end of the connection. Throws after the limit.
  std::optional<bytes_t> Receive(std::chrono::milliseconds limit = 120s);
  /// Sends the bind and takes the bind_ack; throws for anything else.
  CDceConnection& Bind();
  /// The whole answer to a request that was sent; nothing at the end of the connection.
  std::optional<SDceAnswer> Answer();
  /// Drops what comes; true when the service ended the connection.
  bool IsEnded(std::chrono::milliseconds limit = 120s);
  SRpcResult DoRpc(const std::u16string& name, const std::u16string& arguments);

 private:
  int socket_ = -1;
};

}  // namespace test
