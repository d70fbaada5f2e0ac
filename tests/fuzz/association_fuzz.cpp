// One association of the management endpoint and its peer: any sequence of PDUs, with the real stubs behind it.
#include "management/dcerpc/association.h"

#include <memory>
#include <optional>
#include <utility>

#include "fuzz/association_input.h"
#include "management/dcerpc/wide_text.h"
#include "management/invoke_call.h"
#include "management/invoke_dispatcher.h"
#include "management/invoker_interface.h"
#include "unit/management/dcerpc/fake_security.h"

namespace {

using dcerpc::bytes_t;
using dcerpc::bytes_view_t;

constexpr std::uint32_t TokenContextId = 77;

/// Answers with its arguments.
class CEchoDispatcher : public wrap::IInvokeDispatcher {
 public:
  void Invoke(const std::string& name, const winxml::document_ptr&, COutputArguments& output) override {
    output.SetUnicode("name", name);
  }
};

/// The peer's side: sends what the input says, looks at what comes back.
class CPeer {
 public:
  explicit CPeer(fuzz::CInput input) : mode_(input.Byte()), level_(fuzz::LevelOf(input.Byte())), input_(input) {
    using namespace fuzz::association_mode;
    settings_.interfaces.emplace_back(boost::make_shared<CInvokerInterface>(
        [](const dcerpc::SCaller& caller) {
          if (!caller.authenticated)
            throw exc::runtime_exc_t("Access denied.");
        },
        [] { return std::make_unique<CEchoDispatcher>(); }));
    settings_.secondaryAddress = "6161";
    if ((mode_ & Security) != 0)
      settings_.security = boost::make_shared<test::FakeSecurityProvider>();
    if ((mode_ & SmallBudget) != 0) {
      settings_.maxRequestStub = 3000;
      settings_.knownBudget = boost::make_shared<io::byte_budget_t>(2000);
      settings_.unknownBudget = boost::make_shared<io::byte_budget_t>(1000);
    }
    known_ = settings_.knownBudget->Left();
    unknown_ = settings_.unknownBudget->Left();
    dcerpc::SCaller caller;
    caller.origin = "10.0.0.1:700";
    if ((mode_ & KnownCaller) != 0)
      caller = {"root", "uid 0", "unix:1", dcerpc::auth_level_t::Privacy, true};
    association_.emplace(settings_, caller, CheckAnswer);
  }

  void Run() {
    while (!input_.IsEmpty() && ((mode_ & fuzz::association_mode::Stream) != 0 ? GiveFromStream() : GiveFromList())) {
    }
    association_.reset();
    fuzz::Require(settings_.knownBudget->Left() == known_ && settings_.unknownBudget->Left() == unknown_,
                  "an association gives back all that it took of the budgets");
  }

 private:
  bool GiveFromStream() {
    std::size_t size = dcerpc::HeaderSize;
    fuzz::Try([&] { size = dcerpc::DecodeHeader(input_.Peek()).fragmentLength; });
    return Give(input_.Take(size));
  }

  bool GiveFromList() {
    const std::uint8_t marks = input_.Byte();
    const std::size_t size = input_.Word();
    const bytes_view_t taken = input_.Take(size);
    bytes_t pdu(taken.begin(), taken.end());
    if ((marks & fuzz::pdu_mark::Lengths) != 0)
      MendLengths(pdu);
    if ((marks & fuzz::pdu_mark::Protect) != 0 && association_->Caller().authenticated && settings_.security)
      return GiveProtected(pdu);
    return Give(pdu);
  }

  /// The verifier stays as long as it was, or becomes as long as there is room for.
  static void MendLengths(bytes_t& pdu) {
    constexpr std::size_t LengthOffset = 8;
    constexpr std::size_t AuthLengthOffset = 10;
    constexpr std::size_t OrderOffset = 4;
    if (pdu.size() < dcerpc::HeaderSize)
      return;
    pdu[OrderOffset] &= 0x10;
    const bool isBig = pdu[OrderOffset] == 0;
    std::size_t authLength = std::size_t{pdu[AuthLengthOffset + (isBig ? 0U : 1U)]} << 8;
    authLength |= pdu[AuthLengthOffset + (isBig ? 1U : 0U)];
    const std::size_t room = pdu.size() - dcerpc::HeaderSize;
    if (authLength != 0)
      authLength = std::min(authLength, room < dcerpc::TrailerSize ? 0 : room - dcerpc::TrailerSize);
    dcerpc::SetLengths(pdu, authLength);
    if (isBig) {
      std::swap(pdu[LengthOffset], pdu[LengthOffset + 1]);
      std::swap(pdu[AuthLengthOffset], pdu[AuthLengthOffset + 1]);
    }
  }

  bool GiveProtected(const bytes_t& plain) {
    bool goesOn = true;
    const bool wasRequest = fuzz::Try([&] {
      const dcerpc::SPdu pdu = dcerpc::ParsePdu(plain);
      if (pdu.header.type != dcerpc::pdu_type_t::Request)
        throw exc::runtime_exc_t("Nothing else is protected.");
      if (!context_)
        context_.emplace(level_, true);
      // The association knows better whether headers are signed; both ways come about with the peer's flag.
      const dcerpc::SProtection protection{&*context_, dcerpc::auth_type_t::Ntlm, level_, TokenContextId,
                                           headerSigned_};
      dcerpc::SRequest request = dcerpc::DecodeRequest(pdu);
      dcerpc::SendRequest(pdu.header, request, dcerpc::MaxFragmentSize, protection,
                          [&](bytes_view_t fragment) { goesOn = goesOn && Give(fragment); });
    });
    return wasRequest ? goesOn : Give(plain);
  }

  bool Give(bytes_view_t pdu) {
    // In a block of its own, so that what is read past its end is seen.
    const auto exact = std::make_unique<std::uint8_t[]>(pdu.size());
    std::copy(pdu.begin(), pdu.end(), exact.get());
    const std::span<std::uint8_t> bytes(exact.get(), pdu.size());
    if (!association_->Caller().principal.starts_with("REALM"))
      headerSigned_ = headerSigned_ || (bytes.size() > 3 && (bytes[3] & dcerpc::pdu_flag::SupportHeaderSign) != 0 &&
                                        (bytes[2] == static_cast<std::uint8_t>(dcerpc::pdu_type_t::Bind) ||
                                         bytes[2] == static_cast<std::uint8_t>(dcerpc::pdu_type_t::AlterContext)));
    const bool goesOn = association_->Receive(bytes);
    fuzz::Require(!goesOn || bytes.size() >= dcerpc::HeaderSize, "what is no PDU ends the connection");
    fuzz::Require((mode_ & (fuzz::association_mode::Security | fuzz::association_mode::KnownCaller)) != 0 ||
                      !association_->Caller().authenticated,
                  "nobody is known without having proved anything");
    return goesOn;
  }

  /// What the server sends is well-formed, and the peer's decoder takes it.
  static void CheckAnswer(bytes_view_t bytes) {
    const dcerpc::SPdu pdu = dcerpc::ParsePdu(bytes);
    switch (pdu.header.type) {
      case dcerpc::pdu_type_t::BindAck:
      case dcerpc::pdu_type_t::AlterContextResponse:
        dcerpc::DecodeBindAck(pdu);
        break;
      case dcerpc::pdu_type_t::BindNak:
        dcerpc::DecodeBindNak(pdu);
        break;
      case dcerpc::pdu_type_t::Response:
        dcerpc::DecodeResponse(pdu);
        fuzz::Require(bytes.size() <= dcerpc::MaxFragmentSize, "no fragment is larger than announced");
        break;
      case dcerpc::pdu_type_t::Fault:
        fuzz::Require(dcerpc::DecodeFault(pdu).status != 0, "a fault has a status");
        break;
      default:
        fuzz::Require(false, "a server sends answers alone");
    }
  }

  const std::uint8_t mode_;
  const dcerpc::auth_level_t level_;
  fuzz::CInput input_;
  dcerpc::SAssociationSettings settings_;
  std::size_t known_ = 0;
  std::size_t unknown_ = 0;
  std::optional<dcerpc::CAssociation> association_;
  std::optional<test::FakeSecurityContext> context_;
  bool headerSigned_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CPeer({data, size}).Run();
  return 0;
}
