// An endpoint mapper within the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "management/dcerpc/endpoint_mapper.h"
#include "management/dcerpc/ndr.h"
#include "management/dcerpc/rpc_runtime.h"

namespace test {

inline constexpr std::chrono::milliseconds Patience{30000};

/// A mapper that keeps what it is told, and answers with a status or a fault.
class FakeMapper : public dcerpc::IRpcInterface {
 public:
  static constexpr std::uint16_t Insert = 0;
  static constexpr std::uint16_t Delete = 1;

  struct Seen {
    std::uint16_t opnum = 0;
    dcerpc::bytes_t stub;
    bool operator==(const Seen&) const = default;
  };

  const dcerpc::SSyntaxId& Id() const override { return dcerpc::EndpointMapperInterfaceId(); }
  dcerpc::bytes_t Call(std::uint16_t opnum, dcerpc::bytes_view_t stub, dcerpc::byte_order_t,
                       const dcerpc::SCaller&) override {
    const std::lock_guard lock(mutex_);
    calls_.push_back({opnum, {stub.begin(), stub.end()}});
    if (faultStatus != 0)
      throw dcerpc::fault_exc_t("No.", faultStatus);
    dcerpc::CNdrWriter writer;
    writer.UInt(status);
    return writer.Take();
  }
  std::vector<Seen> Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }

  /// Set before the calls.
  std::uint32_t status = 0;
  std::uint32_t faultStatus = 0;

 private:
  mutable std::mutex mutex_;
  std::vector<Seen> calls_;
};

/// A server on a port of its own.
class MapperServer {
 public:
  explicit MapperServer(boost::shared_ptr<dcerpc::IRpcInterface> interface) {
    EXPECT_EQ(runtime_.UseAnyPort(), platform::error::Success);
    EXPECT_EQ(runtime_.RegisterInterface(std::move(interface)), platform::error::Success);
    std::vector<std::string> bindings;
    EXPECT_EQ(runtime_.InquireBindings(bindings), platform::error::Success);
    port_ = static_cast<std::uint16_t>(std::stoi(bindings.at(0).substr(bindings.at(0).find(':') + 1)));
    EXPECT_EQ(runtime_.Listen(), platform::error::Success);
  }
  dcerpc::SEndpointMapperPlace Place() const { return {port_, Patience}; }
  void Stop() { runtime_.StopListening(); }

 private:
  // It does not look for a mapper: nothing of it is registered.
  dcerpc::CRpcRuntime runtime_{nullptr};
  std::uint16_t port_ = 0;
};

}  // namespace test
