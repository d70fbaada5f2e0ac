// The options of NFS clients, of which the service uses the time-out of its talk with a portmapper.
#pragma once

#include <cstdint>

struct SNfsOptions {
  std::uint32_t connectRetryCount = 10;
  std::uint32_t connectRetryMaxTimeoutSec = 30;
  std::uint32_t readCacheSizeMb = 0;
  std::uint32_t clientsThreadsNum = 1;
  bool multipleWriteEnabled = false;
  std::uint32_t prereadMaxSizeMb = 4;
  std::uint32_t prereadQueueDepth = 25;
  std::uint32_t asyncPrereadBlockSizeMb = 2;
  std::uint32_t asyncPrereadQueueDepthChunks = 64;
  std::uint32_t clientMinPort = 300;
  std::uint32_t clientMaxPort = 999;
  std::uint32_t recvTimeoutSec = 30;  ///< Of the exchange with a portmapper.
  std::uint32_t fileReconnectCount = 6;
  std::uint32_t fileReconnectInterval = 300;
  std::uint32_t fileCommandRetryCount = 30;
  bool asyncSessionEnabled = true;
  bool asyncWriteEnabled = true;
  std::uint32_t asyncRpcRecvThreadsNum = 1;  ///< Set at loading: the processors, at most 8.
  std::uint32_t protocolVersion = 0;
  std::uint32_t commandRetryNumber = 5;
  /// No value of the registry reaches these two: theirs go to asyncPrereadBlockSizeMb and
  /// asyncPrereadQueueDepthChunks, and win there.
  std::uint32_t tintryAsyncPrereadBlockSizeMb = 1;
  std::uint32_t tintryAsyncPrereadQueueDepthChunks = 4;
};

/// Reads the options and logs each that is there; what is missing keeps its default. Never throws.
SNfsOptions LoadNfsOptions();

/// The process's options, loaded by the first call. Any thread.
const SNfsOptions& NfsOptions();
