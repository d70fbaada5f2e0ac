// The little of the GSS-API that the contexts share: owners of its handles, its mechanisms, its errors.
#pragma once

// Some of the declarations lack the linkage of C.
extern "C" {
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_ext.h>
}

#include <string>
#include <string_view>
#include <utility>

#include "management/dcerpc/rpc_interface.h"

namespace dcerpc::gss {

/// Owns one handle of the GSS-API. Not shared between threads.
template <typename handle_type_t, OM_uint32 (*Release)(OM_uint32*, handle_type_t*)>
class CHandle {
 public:
  CHandle() = default;
  CHandle(CHandle&& other) noexcept : handle_(std::exchange(other.handle_, handle_type_t{})) {}
  CHandle& operator=(CHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~CHandle() {
    OM_uint32 minor = 0;
    Release(&minor, &handle_);
  }

  const handle_type_t& Get() const { return handle_; }
  /// For calls that fill the handle in, or go on with it.
  handle_type_t* Out() { return &handle_; }
  bool IsEmpty() const { return handle_ == handle_type_t{}; }

 private:
  handle_type_t handle_{};
};

OM_uint32 ReleaseContext(OM_uint32* minor, gss_ctx_id_t* context);

using name_t = CHandle<gss_name_t, gss_release_name>;
using credential_t = CHandle<gss_cred_id_t, gss_release_cred>;
using context_t = CHandle<gss_ctx_id_t, ReleaseContext>;
using buffer_set_t = CHandle<gss_buffer_set_t, gss_release_buffer_set>;

/// Owns a buffer that the library allocates.
class CBuffer {
 public:
  CBuffer() = default;
  CBuffer(const CBuffer&) = delete;
  CBuffer& operator=(const CBuffer&) = delete;
  ~CBuffer();

  gss_buffer_t Out() { return &buffer_; }
  bytes_view_t Bytes() const { return {static_cast<const std::uint8_t*>(buffer_.value), buffer_.length}; }
  /// As text, without the zero bytes that some mechanisms count at the end.
  std::string Text() const;

 private:
  gss_buffer_desc buffer_{};
};

/// A buffer of the library over bytes that stay the caller's, who sees to it that the callee does not change constant
/// ones.
gss_buffer_desc BufferOver(bytes_view_t bytes);
gss_buffer_desc BufferOver(std::string_view text);

/// The mechanisms that are known here. The identifiers are constant and live as long as the process.
gss_OID NtlmMechanism();
gss_OID SpnegoMechanism();
gss_OID KerberosMechanism();

bool IsSame(gss_const_OID left, gss_const_OID right);

/// The library knows the mechanism and can load it. Tells nothing of keys or users. Any thread.
bool IsRegistered(gss_OID mechanism);

/// The library's sentences for a status, "major: minor".
std::string StatusText(OM_uint32 major, OM_uint32 minor, gss_OID mechanism);

/// Throws exc::runtime_exc_t with the text and the library's sentences.
[[noreturn]] void Fail(std::string_view text, OM_uint32 major, OM_uint32 minor, gss_OID mechanism);

/// Throws as Fail does unless the status is plain success.
void Check(std::string_view text, OM_uint32 major, OM_uint32 minor, gss_OID mechanism);

/// The name of one of the forms that the library knows (GSS_C_NT_…). Throws exc::runtime_exc_t.
name_t ImportName(std::string_view text, gss_OID form);

}  // namespace dcerpc::gss
