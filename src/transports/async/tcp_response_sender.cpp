#include "transports/async/tcp_response_sender.h"

#include <utility>

#include "foundation/log.h"

namespace impl {

CTcpResponseSender::CTcpResponseSender(boost::intrusive_ptr<CAsyncConnection> connection, std::size_t recordSize)
    : connection_(std::move(connection)), recordSize_(recordSize), fsAccessAllowed_(connection_->IsFsAccessAllowed()) {
  connection_->RequestBegun(recordSize_);
}

CTcpResponseSender::~CTcpResponseSender() {
  connection_->RequestOver(recordSize_);
}

void CTcpResponseSender::Send(CXDRWriter& writer, completion_ptr) {
  logging::quiet_log_scope_t scope(g_nfs_log, "Sending XDR data with TCP.");
  connection_->SendReply(writer, false);
  scope.Success();
}

void CTcpResponseSender::Hold(CXDRWriter& writer, completion_ptr) {
  connection_->SendReply(writer, true);
}

}  // namespace impl
