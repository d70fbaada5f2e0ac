#include "management/dcerpc/gss_support.h"

#include <cstring>

#include "foundation/exc.h"

namespace dcerpc::gss {
namespace {

// The library's structures hold plain pointers, though it never writes through them.
template <std::size_t size>
gss_OID_desc Identifier(const char (&bytes)[size]) {
  return {static_cast<OM_uint32>(size - 1), const_cast<char*>(bytes)};
}

void AppendStatus(std::string& text, OM_uint32 status, int kind, gss_OID mechanism) {
  OM_uint32 more = 0;
  do {
    OM_uint32 minor = 0;
    CBuffer sentence;
    if (gss_display_status(&minor, status, kind, mechanism, &more, sentence.Out()) != GSS_S_COMPLETE)
      return;
    if (!text.empty())
      text += ": ";
    text += sentence.Text();
  } while (more != 0);
}

}  // namespace

OM_uint32 ReleaseContext(OM_uint32* minor, gss_ctx_id_t* context) {
  return *context == GSS_C_NO_CONTEXT ? GSS_S_COMPLETE : gss_delete_sec_context(minor, context, GSS_C_NO_BUFFER);
}

CBuffer::~CBuffer() {
  OM_uint32 minor = 0;
  gss_release_buffer(&minor, &buffer_);
}

std::string CBuffer::Text() const {
  std::string text(static_cast<const char*>(buffer_.value), buffer_.length);
  while (!text.empty() && text.back() == '\0')
    text.pop_back();
  return text;
}

gss_buffer_desc BufferOver(bytes_view_t bytes) {
  return {bytes.size(), const_cast<std::uint8_t*>(bytes.data())};
}

gss_buffer_desc BufferOver(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}

gss_OID NtlmMechanism() {
  static gss_OID_desc identifier = Identifier("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a");
  return &identifier;
}

gss_OID SpnegoMechanism() {
  static gss_OID_desc identifier = Identifier("\x2b\x06\x01\x05\x05\x02");
  return &identifier;
}

gss_OID KerberosMechanism() {
  static gss_OID_desc identifier = Identifier("\x2a\x86\x48\x86\xf7\x12\x01\x02\x02");
  return &identifier;
}

bool IsSame(gss_const_OID left, gss_const_OID right) {
  return left != GSS_C_NO_OID && right != GSS_C_NO_OID && left->length == right->length &&
         std::memcmp(left->elements, right->elements, left->length) == 0;
}

bool IsRegistered(gss_OID mechanism) {
  OM_uint32 minor = 0;
  gss_OID_set known = GSS_C_NO_OID_SET;
  if (gss_indicate_mechs(&minor, &known) != GSS_S_COMPLETE)
    return false;
  int present = 0;
  const bool asked = gss_test_oid_set_member(&minor, mechanism, known, &present) == GSS_S_COMPLETE;
  gss_release_oid_set(&minor, &known);
  if (!asked || present == 0)
    return false;
  // A line of the configuration is enough for the list; this asks the mechanism itself, and so loads it.
  gss_OID_set attributes = GSS_C_NO_OID_SET;
  gss_OID_set knownAttributes = GSS_C_NO_OID_SET;
  const OM_uint32 major = gss_inquire_attrs_for_mech(&minor, mechanism, &attributes, &knownAttributes);
  gss_release_oid_set(&minor, &attributes);
  gss_release_oid_set(&minor, &knownAttributes);
  return major == GSS_S_COMPLETE;
}

std::string StatusText(OM_uint32 major, OM_uint32 minor, gss_OID mechanism) {
  std::string text;
  AppendStatus(text, major, GSS_C_GSS_CODE, GSS_C_NO_OID);
  if (minor != 0)
    AppendStatus(text, minor, GSS_C_MECH_CODE, mechanism);
  return text;
}

void Fail(std::string_view text, OM_uint32 major, OM_uint32 minor, gss_OID mechanism) {
  throw exc::runtime_exc_t("%1 %2", text, StatusText(major, minor, mechanism));
}

void Check(std::string_view text, OM_uint32 major, OM_uint32 minor, gss_OID mechanism) {
  if (major != GSS_S_COMPLETE)
    Fail(text, major, minor, mechanism);
}

name_t ImportName(std::string_view text, gss_OID form) {
  gss_buffer_desc buffer = BufferOver(text);
  name_t name;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_import_name(&minor, &buffer, form, name.Out());
  if (major != GSS_S_COMPLETE)
    throw exc::runtime_exc_t("The name [%1] cannot be used. %2", text, StatusText(major, minor, GSS_C_NO_OID));
  return name;
}

}  // namespace dcerpc::gss
