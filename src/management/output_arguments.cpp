#include "management/output_arguments.h"

COutputArguments::COutputArguments()
    : document_(winxml::CreateDocument()),
      root_(winxml::CreateElement(winxml::DocumentNode(document_), "OutputArguments")) {}

void COutputArguments::SetUnicode(const std::string& name, const std::string& text) {
  winxml::SetAttribute(AddNode(name), "value", text);
}

void COutputArguments::SetMultibyte(const std::string& name, const std::string& text) {
  SetUnicode(name, text);
}

void COutputArguments::SetGuid(const std::string& name, const GUID& guid) {
  SetUnicode(name, platform::GuidToText(guid));
}

void COutputArguments::SetInteger(const std::string& name, std::int32_t value) {
  SetUnicode(name, std::to_string(value));
}

void COutputArguments::SetUInt64(const std::string& name, std::uint64_t value) {
  SetUnicode(name, std::to_string(value));
}

void COutputArguments::SetBool(const std::string& name, bool flag) {
  SetUnicode(name, flag ? "true" : "false");
}

winxml::element_ptr COutputArguments::AddNode(const std::string& name) {
  return winxml::CreateElement(root_, name);
}
