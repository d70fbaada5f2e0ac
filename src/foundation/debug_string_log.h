// The mirror of the log: standard error, which is the journal under systemd, and a copy by UDP.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>

#include "foundation/log_file.h"

namespace logging::receiver {

/// Where copies of lines go.
struct udp_copy_settings_t {
  bool enabled = false;
  /// A dotted IPv4 address.
  std::string host = "127.0.0.1";
  std::uint16_t port = 37183;
};

/// From ExtLogEnabled, ExtLogHost and ExtLogPort of the service's registry key; a default stands for what is not
/// there or makes no sense. Throws "Failed to open registry key [%1].".
udp_copy_settings_t ReadUdpCopySettings();

/// Each line goes to standard error, and, when the settings say so, as one datagram of its exact length. Never waits:
/// what the other side does not take at once is lost.
class COutputDebugStringLog : public log_file_t {
 public:
  /// The settings are asked for once, at the first line.
  explicit COutputDebugStringLog(std::function<udp_copy_settings_t()> readSettings = ReadUdpCopySettings);
  COutputDebugStringLog(const COutputDebugStringLog&) = delete;
  COutputDebugStringLog& operator=(const COutputDebugStringLog&) = delete;
  ~COutputDebugStringLog() override;

  void Write(std::string_view line) override;
  std::string GetPath() const override { return {}; }
  std::string GetName() const override { return "debug output"; }
  std::uint64_t GetSize() const override { return 0; }
  void Compress(util::zip_writer_t& writer, const std::function<void()>& completion) override;

 private:
  void OpenCopy();

  std::function<udp_copy_settings_t()> readSettings_;
  bool tried_ = false;
  int socket_ = -1;
  sockaddr_in target_{};
  bool copies_ = false;
};

}  // namespace logging::receiver
