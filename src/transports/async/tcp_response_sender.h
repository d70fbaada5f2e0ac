// The way back to a client over its TCP connection.
#pragma once

#include "transports/async/async_connection.h"
#include "transports/async/response_sender.h"

namespace impl {

/// Keeps its connection, so that a reply finds it even when the peer is gone; and counts as one of the requests that
/// the connection has under way.
class CTcpResponseSender : public CResponseSender {
 public:
  CTcpResponseSender(boost::intrusive_ptr<CAsyncConnection> connection, std::size_t recordSize);
  ~CTcpResponseSender() override;

  void Send(CXDRWriter& writer, completion_ptr completion) override;
  const sockaddr_in& GetPeerAddress() const override { return connection_->PeerAddress(); }
  bool IsFsAccessAllowed() const override { return fsAccessAllowed_; }
  void Close() override { connection_->Close(); }
  void Hold(CXDRWriter& writer, completion_ptr completion) override;
  void SendHeld() override { connection_->SendHeld(); }
  bool MayAnswer() override { return connection_->MayAnswer(); }
  bool TakesPipes() const override { return connection_->TakesPipes(); }
  void DataMayStay(std::uint32_t offset) noexcept override {
    // A small request tells nothing of where the data of the large ones goes.
    if (recordSize_ >= platform::kernel_pipe_t::Least)
      connection_->LeaveDataFrom(offset);
  }
  const void* Client() const override { return connection_.get(); }

 private:
  const boost::intrusive_ptr<CAsyncConnection> connection_;
  const std::size_t recordSize_;
  const bool fsAccessAllowed_;
};

}  // namespace impl
