// A mount agent's end of the pipe.
#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "mount-agent-lib/content.h"
#include "platform/location.h"
#include "platform/message_pipe.h"
#include "platform/named_event.h"

namespace mount_agent {

/// Connections that are served at once, each by a thread; one more is closed as soon as it is made. The service has one
/// a pipe.
inline constexpr std::size_t MaxConnections = 64;

/// Serves a mounted content on pipe number 0 of a base name.
///
/// The reset event of the pipe tells that the service has forgotten all earlier connections and is about to make a new
/// one. Those connections are closed, and what they were still doing is over before a new connection is served: a write
/// that the service gave up must not come after one that it sent since.
///
/// One thread creates and destroys it.
class CAgentServer {
 public:
  /// Gets a sentence for each thing worth telling. Called by several threads, never by two at once.
  using report_t = std::function<void(const std::string&)>;

  /// Begins to serve. The content must outlive the server. Throws when the name cannot be had: another agent has it.
  CAgentServer(const std::string& baseName, IMountedContent& content, report_t report);
  CAgentServer(const CAgentServer&) = delete;
  CAgentServer& operator=(const CAgentServer&) = delete;
  /// Ends every connection after the request that it is at.
  ~CAgentServer();

 private:
  struct SConnection;
  using pipe_ptr_t = boost::shared_ptr<platform::message_pipe_t>;

  void Listen(const std::string& baseName);
  void Run() noexcept;
  /// Takes the next client. False when the server has to end.
  bool Accept();
  void Serve(SConnection& connection) noexcept;
  void Start(pipe_ptr_t pipe);
  /// Forgets what has ended by itself, or everything.
  void Reap(bool all);
  void ResetIfAsked();

  IMountedContent& content_;
  const report_t report_;
  const std::unique_ptr<std::mutex> reportMutex_;
  platform::descriptor_t stop_{-1};  ///< Readable: the server ends.
  boost::shared_ptr<platform::pipe_listener_t> listener_;
  boost::shared_ptr<platform::named_event_t> reset_;
  std::list<SConnection> connections_;  ///< The server thread's.
  std::thread thread_;
};

}  // namespace mount_agent
