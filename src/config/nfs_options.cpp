#include "config/nfs_options.h"

#include <algorithm>

#include "config/common_options.h"
#include "config/option_rows.h"
#include "foundation/log.h"
#include "platform/process.h"
#include "platform/registry.h"

namespace {

using row_t = option_row_t<SNfsOptions>;

/// In the order in which they are read: a later row wins over an earlier one of the same field.
constexpr row_t Rows[] = {
    {"NfsConnectRetryCount", {}, &SNfsOptions::connectRetryCount},
    {"NfsConnectRetryMaxTimeoutSec", {}, &SNfsOptions::connectRetryMaxTimeoutSec},
    {"NfsReadCacheSizeMb2", "NFS read cache size in MB", &SNfsOptions::readCacheSizeMb},
    {"NFSClientsThreadsNum", {}, &SNfsOptions::clientsThreadsNum},
    {"NfsMultipleWriteEnabled", "NFS multiple write: Enabled", &SNfsOptions::multipleWriteEnabled},
    {"NfsPrereadMaxSizeMb", "NFS preread max size", &SNfsOptions::prereadMaxSizeMb},
    {"NfsPrereadQueueDepth", "NFS preread queue depth", &SNfsOptions::prereadQueueDepth},
    {"NfsAsyncPrereadBlockSizeMb", "NFS async preread block size", &SNfsOptions::asyncPrereadBlockSizeMb},
    {"NfsAsyncPrereadQueueDepthChunks", "NFS async preread queue depth", &SNfsOptions::asyncPrereadQueueDepthChunks},
    {"NfsTintryAsyncPrereadBlockSizeMb", "NFS Tintry async preread block size", &SNfsOptions::asyncPrereadBlockSizeMb},
    {"NfsTintryAsyncPrereadQueueDepthChunks", "NFS Tintry async preread queue depth",
     &SNfsOptions::asyncPrereadQueueDepthChunks},
    {"NfsClientMinPort", {}, &SNfsOptions::clientMinPort},
    {"NfsClientMaxPort", {}, &SNfsOptions::clientMaxPort},
    {"NfsRecvTimeoutSec", {}, &SNfsOptions::recvTimeoutSec},
    {"NfsFileReconnectCount", {}, &SNfsOptions::fileReconnectCount},
    {"NfsFileReconnectInterval", {}, &SNfsOptions::fileReconnectInterval},
    {"NfsFileCommandRetryCount", {}, &SNfsOptions::fileCommandRetryCount},
    {"NfsAsyncSessionEnabled", {}, &SNfsOptions::asyncSessionEnabled},
    {"NfsAsyncWriteEnabled", {}, &SNfsOptions::asyncWriteEnabled},
    {"NfsAsyncRpcRecvThreadsNum", {}, &SNfsOptions::asyncRpcRecvThreadsNum},
    {"NfsProtocolVersion", {}, &SNfsOptions::protocolVersion},
    {"NfsCommandRetryNumber", "NFS command retry number", &SNfsOptions::commandRetryNumber},
};

}  // namespace

SNfsOptions LoadNfsOptions() {
  constexpr std::uint32_t MaxRecvThreads = 8;
  SNfsOptions options;
  options.asyncRpcRecvThreadsNum = std::min(platform::ProcessorCount(), MaxRecvThreads);
  g_log.Info("Loading NFS registry options");
  try {
    const std::string& key = CCommonOptions::Instance().registryPath;
    ReadOptions(key, Rows, options, [](const row_t& row, const std::string& text) {
      g_log.Info("Non-default option [%1] : [%2]", row.description.empty() ? row.key : row.description, text);
    });
    const std::string subKey = key + "\\NFS";
    ThrowIfFailed(platform::registry_t::Instance().CreateKey(subKey), "Failed to create registry key [%1].", subKey);
  } catch (const std::exception& failure) {
    g_log.Warning("Failed to load NFS registry options.", failure);
  }
  return options;
}

const SNfsOptions& NfsOptions() {
  static const SNfsOptions options = LoadNfsOptions();
  return options;
}
