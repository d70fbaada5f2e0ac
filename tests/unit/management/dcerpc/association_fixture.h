// An association and the peer that talks to it, without a connection.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <optional>
#include <string>
#include <vector>

#include "management/dcerpc/association.h"
#include "unit/management/dcerpc/fake_interface.h"
#include "unit/management/dcerpc/fake_security.h"

namespace test {

inline constexpr std::uint32_t SecurityContextId = 77;

inline dcerpc::SPduHeader ClientHeader(dcerpc::pdu_type_t type, std::uint32_t callId = 1) {
  dcerpc::SPduHeader header;
  header.type = type;
  header.callId = callId;
  return header;
}

inline dcerpc::SBind BindOf(std::vector<dcerpc::SPresentationContext> contexts) {
  return {dcerpc::MaxFragmentSize, dcerpc::MaxFragmentSize, 0, std::move(contexts)};
}

/// The interface of the fake under the context 0.
inline dcerpc::SBind PlainBind() {
  return BindOf({{0, FakeInterface::Identity(), {dcerpc::NdrSyntax}}});
}

inline dcerpc::SToken TokenOf(std::string_view text, dcerpc::auth_level_t level = dcerpc::auth_level_t::Privacy,
                              dcerpc::auth_type_t type = dcerpc::auth_type_t::Ntlm) {
  return {{type, level, 0, SecurityContextId}, Bytes(text)};
}

class AssociationTest : public testing::Test {
 protected:
  AssociationTest() {
    settings_.interfaces.push_back(interface_);
    settings_.security = boost::make_shared<FakeSecurityProvider>();
    settings_.secondaryAddress = "6161";
    Connect();
  }

  /// A new association; what was sent on the old one is forgotten.
  void Connect(const dcerpc::SCaller& caller = {}) {
    sent_.clear();
    association_.emplace(settings_, caller,
                         [this](dcerpc::bytes_view_t pdu) { sent_.emplace_back(pdu.begin(), pdu.end()); });
  }

  bool Give(dcerpc::bytes_t pdu) { return association_->Receive(pdu); }

  /// The oldest answer that was not taken yet, as long as its header tells.
  dcerpc::bytes_t Answer() {
    if (sent_.empty()) {
      ADD_FAILURE() << "There is no answer.";
      return dcerpc::EncodeEmpty({});
    }
    dcerpc::bytes_t first = sent_.front();
    sent_.erase(sent_.begin());
    return first;
  }
  /// Status of the next answer, which must be a fault of the call.
  std::uint32_t FaultStatus(std::uint32_t callId) {
    const dcerpc::bytes_t answer = Answer();
    const dcerpc::SPdu pdu = dcerpc::ParsePdu(answer);
    EXPECT_EQ(pdu.header.type, dcerpc::pdu_type_t::Fault);
    EXPECT_EQ(pdu.header.callId, callId);
    return pdu.header.type == dcerpc::pdu_type_t::Fault ? dcerpc::DecodeFault(pdu).status : 0;
  }
  /// The stub of the next answers, which must be a whole response of the call.
  dcerpc::bytes_t ResponseStub(std::uint32_t callId, const dcerpc::SProtection& protection = {}) {
    dcerpc::bytes_t stub;
    for (bool isLast = false; !isLast;) {
      dcerpc::bytes_t answer = Answer();
      const dcerpc::SPdu pdu = dcerpc::ParsePdu(answer);
      EXPECT_EQ(pdu.header.type, dcerpc::pdu_type_t::Response);
      EXPECT_EQ(pdu.header.callId, callId);
      EXPECT_EQ((pdu.header.flags & dcerpc::pdu_flag::First) != 0, stub.empty());
      if (pdu.header.type != dcerpc::pdu_type_t::Response)
        return stub;
      if (protection.IsOn()) {
        EXPECT_EQ(dcerpc::Unprotect(answer, pdu, dcerpc::StubOffset(pdu.header), protection),
                  dcerpc::protection_result_t::Good);
      }
      const dcerpc::SResponse part = dcerpc::DecodeResponse(pdu);
      stub.insert(stub.end(), part.stub.begin(), part.stub.end());
      isLast = (pdu.header.flags & dcerpc::pdu_flag::Last) != 0;
    }
    return stub;
  }

  /// Binds the fake's interface as context 0 without authentication.
  void Bind() {
    ASSERT_TRUE(Give(dcerpc::EncodeBind(ClientHeader(dcerpc::pdu_type_t::Bind), PlainBind(), std::nullopt)));
    const dcerpc::bytes_t answer = Answer();
    ASSERT_EQ(dcerpc::ParsePdu(answer).header.type, dcerpc::pdu_type_t::BindAck);
  }

  /// One fragment of a request; by default all of it.
  static dcerpc::bytes_t Fragment(std::uint32_t callId, std::uint16_t opnum, std::string_view stub,
                                  std::uint8_t flags = dcerpc::pdu_flag::First | dcerpc::pdu_flag::Last,
                                  std::uint16_t contextId = 0) {
    dcerpc::SPduHeader header = ClientHeader(dcerpc::pdu_type_t::Request, callId);
    header.flags = flags;
    dcerpc::bytes_t pdu = dcerpc::EncodeRequestHead(header, {0, contextId, opnum, std::nullopt, {}});
    pdu.insert(pdu.end(), stub.begin(), stub.end());
    dcerpc::SetLengths(pdu, 0);
    return pdu;
  }

  const boost::shared_ptr<FakeInterface> interface_ = boost::make_shared<FakeInterface>();
  dcerpc::SAssociationSettings settings_;
  std::vector<dcerpc::bytes_t> sent_;
  std::optional<dcerpc::CAssociation> association_;
};

}  // namespace test
