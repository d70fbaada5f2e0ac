#include "management/dcerpc/kerberos_protection.h"

#include <algorithm>
#include <array>

#include "foundation/exc.h"

namespace dcerpc {
namespace {

gss_iov_buffer_desc Part(OM_uint32 type, std::span<std::uint8_t> bytes) {
  return {type, {bytes.size(), bytes.data()}};
}

/// The parts in the order of the PDU, but for the mechanism's own, which comes first.
class CVector {
 public:
  explicit CVector(const SFragment& fragment) {
    const SFragmentParts parts = SplitFragment(fragment);
    Add(Part(GSS_IOV_BUFFER_TYPE_HEADER, parts.auth));
    if (fragment.headerSigned)
      Add(Part(GSS_IOV_BUFFER_TYPE_SIGN_ONLY, parts.header));
    Add(Part(GSS_IOV_BUFFER_TYPE_DATA, parts.stub));
    if (fragment.headerSigned)
      Add(Part(GSS_IOV_BUFFER_TYPE_SIGN_ONLY, parts.trailer));
  }
  gss_iov_buffer_desc* Data() { return parts_.data(); }
  int Count() const { return count_; }
  std::size_t MechanismSize() const { return parts_.front().buffer.length; }

 private:
  void Add(gss_iov_buffer_desc part) { parts_[static_cast<std::size_t>(count_++)] = part; }

  std::array<gss_iov_buffer_desc, 4> parts_{};
  int count_ = 0;
};

std::span<std::uint8_t> SignedPart(const SFragment& fragment) {
  const SFragmentParts parts = SplitFragment(fragment);
  return fragment.headerSigned ? parts.covered : parts.stub;
}

constexpr std::string_view CannotProtect = "Failed to protect a fragment.";
constexpr std::string_view IsWrong = "The signature of a fragment is wrong.";

}  // namespace

CKerberosProtection::CKerberosProtection(gss_ctx_id_t context, auth_level_t level)
    : context_(context), encrypts_(level == auth_level_t::Privacy) {}

std::size_t CKerberosProtection::SignatureSize(std::size_t stubSize) const {
  std::array<gss_iov_buffer_desc, 2> parts{};
  gss_iov_buffer_desc& own = parts.front();
  own.type = encrypts_ ? GSS_IOV_BUFFER_TYPE_HEADER : GSS_IOV_BUFFER_TYPE_MIC_TOKEN;
  parts.back() = {GSS_IOV_BUFFER_TYPE_DATA, {stubSize, nullptr}};
  OM_uint32 minor = 0;
  const int count = static_cast<int>(parts.size());
  const OM_uint32 major =
      encrypts_ ? gss_wrap_iov_length(&minor, context_, 1, GSS_C_QOP_DEFAULT, nullptr, parts.data(), count)
                : gss_get_mic_iov_length(&minor, context_, GSS_C_QOP_DEFAULT, parts.data(), count);
  gss::Check(CannotProtect, major, minor, gss::KerberosMechanism());
  return own.buffer.length;
}

void CKerberosProtection::Protect(const SFragment& fragment) {
  OM_uint32 minor = 0;
  std::size_t size = 0;
  if (encrypts_) {
    CVector parts(fragment);
    int encrypted = 0;
    const OM_uint32 major =
        gss_wrap_iov(&minor, context_, 1, GSS_C_QOP_DEFAULT, &encrypted, parts.Data(), parts.Count());
    gss::Check(CannotProtect, major, minor, gss::KerberosMechanism());
    if (encrypted == 0)
      throw exc::runtime_exc_t("The context cannot encrypt.");
    size = parts.MechanismSize();
  } else {
    gss_buffer_desc message = gss::BufferOver(bytes_view_t(SignedPart(fragment)));
    gss::CBuffer mic;
    const OM_uint32 major = gss_get_mic(&minor, context_, GSS_C_QOP_DEFAULT, &message, mic.Out());
    gss::Check(CannotProtect, major, minor, gss::KerberosMechanism());
    size = mic.Bytes().size();
    if (size == fragment.authSize)
      std::copy(mic.Bytes().begin(), mic.Bytes().end(), fragment.pdu.last(fragment.authSize).begin());
  }
  if (size != fragment.authSize)
    throw exc::runtime_exc_t("A fragment leaves %1 bytes for a signature of %2.", fragment.authSize, size);
}

void CKerberosProtection::Unprotect(const SFragment& fragment) {
  OM_uint32 minor = 0;
  // Success alone will do: a repeated, late or missing fragment comes as a remark beside it.
  if (encrypts_) {
    CVector parts(fragment);
    int encrypted = 0;
    const OM_uint32 major = gss_unwrap_iov(&minor, context_, &encrypted, nullptr, parts.Data(), parts.Count());
    gss::Check(IsWrong, major, minor, gss::KerberosMechanism());
    if (encrypted == 0)
      throw exc::runtime_exc_t("A fragment that must be encrypted is only signed.");
  } else {
    gss_buffer_desc message = gss::BufferOver(bytes_view_t(SignedPart(fragment)));
    gss_buffer_desc mic = gss::BufferOver(bytes_view_t(SplitFragment(fragment).auth));
    const OM_uint32 major = gss_verify_mic(&minor, context_, &message, &mic, nullptr);
    gss::Check(IsWrong, major, minor, gss::KerberosMechanism());
  }
}

}  // namespace dcerpc
