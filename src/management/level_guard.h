// The authentication level that a call of the management interface must have.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <utility>

#include "management/dcerpc/rpc_interface.h"

/// Answers operation 0, the one that runs commands, with the fault AccessDenied for callers who proved who they are at
/// a level below the minimum. Callers who proved nothing pass: the test of the caller refuses them with words. The
/// other operations ask for no level. Any thread.
class CLevelGuard : public dcerpc::IRpcInterface {
 public:
  CLevelGuard(boost::shared_ptr<dcerpc::IRpcInterface> inner, dcerpc::auth_level_t minimum)
      : inner_(std::move(inner)), minimum_(minimum) {}

  const dcerpc::SSyntaxId& Id() const override { return inner_->Id(); }
  dcerpc::bytes_t Call(std::uint16_t opnum, dcerpc::bytes_view_t stub, dcerpc::byte_order_t order,
                       const dcerpc::SCaller& caller) override {
    constexpr std::uint16_t DoRpc = 0;
    if (opnum == DoRpc && caller.authenticated && caller.level < minimum_)
      throw dcerpc::fault_exc_t("The authentication level of the call is too low.", dcerpc::fault::AccessDenied);
    return inner_->Call(opnum, stub, order, caller);
  }

 private:
  const boost::shared_ptr<dcerpc::IRpcInterface> inner_;
  const dcerpc::auth_level_t minimum_;
};
