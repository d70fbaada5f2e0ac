#include "management/winxml.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <memory>

#include "foundation/exc.h"
#include "foundation/log.h"
#include "platform/error.h"
#include "platform/text.h"

namespace winxml {

namespace {

bool StartsCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

/// The text as a message shows it. Cut between characters, so that it stays UTF-8.
std::string Abbreviated(const std::string& text) {
  const auto length = static_cast<std::size_t>(std::count_if(text.begin(), text.end(), StartsCharacter));
  if (length <= ShownCharacters)
    return text;
  std::size_t shown = 0;
  const auto end = std::find_if(text.begin(), text.end(),
                                [&shown](char byte) { return StartsCharacter(byte) && ++shown > ShownCharacters; });
  return std::string(text.begin(), end) + "..., length: " + std::to_string(length);
}

[[noreturn]] void ThrowParseFailure(const std::string& text, std::string report) {
  exc::runtime_exc_t failure("Failed to parse XML content. Source content: [%1].", Abbreviated(text));
  failure.AddMessage(std::move(report));
  throw failure;
}

/// What the parser must not see: it stops at a zero byte, it looks past the end of a cut character, and it recurses.
void CheckText(const std::string& text) {
  if (text.find('\0') != std::string::npos)
    ThrowParseFailure(text.substr(0, text.find('\0')), "The text holds a zero character.");
  if (!platform::IsValidUtf8(text))
    ThrowParseFailure(text, "The text is not valid UTF-8.");
  if (static_cast<std::size_t>(std::count(text.begin(), text.end(), '<')) > MaxTags)
    ThrowParseFailure(text, exc::FormatText("The text has more than %1 tags.", MaxTags));
}

void CheckValue(const std::string& value) {
  if (value.find('\0') == std::string::npos && platform::IsValidUtf8(value))
    return;
  throw exc::win_sys_exc_t(
      exc::FormatText("Multibyte UTF8 string cannot be converted to unicode string. Source string: [%1].",
                      value.c_str()),
      platform::error::NoUnicodeTranslation);
}

}  // namespace

document_ptr CreateDocument() {
  return boost::make_shared<TiXmlDocument>();
}

document_ptr ParseDocument(const std::string& text) {
  CheckText(text);
  document_ptr document = CreateDocument();
  document->Parse(text.c_str());
  if (document->Error()) {
    const std::string description = document->ErrorDesc();
    ThrowParseFailure(text, description.empty() ? exc::FormatText("XML error: [%1].", document->ErrorId())
                                                : exc::FormatText("XML error: [%1]. Error code: [%2].", description,
                                                                  document->ErrorId()));
  }
  return document;
}

std::string PrintDocument(const document_ptr& document) {
  TiXmlPrinter printer;
  printer.SetIndent("");
  printer.SetLineBreak("");
  if (!DocumentNode(document)->Accept(&printer))
    throw exc::runtime_exc_t("Failed to serialize XML document.");
  return printer.Str();
}

node_ptr DocumentNode(const document_ptr& document) {
  if (!document)
    throw exc::runtime_exc_t("Failed to convert document to node");
  return document;
}

element_ptr CreateElement(const node_ptr& parent, const std::string& name) {
  if (!parent)
    throw exc::runtime_exc_t("Failed to create XML element [%1]. Parent node is not specified.", name);
  // The parent owns what it links, and deletes what it refuses.
  TiXmlNode* const linked = parent->LinkEndChild(std::make_unique<TiXmlElement>(name).release());
  if (linked == nullptr)
    throw exc::runtime_exc_t("Failed to link XML element to node");
  TiXmlElement* const element = linked->ToElement();
  if (element == nullptr)
    throw exc::runtime_exc_t("Failed to cast new XML node to element");
  return {parent, element};
}

element_ptr FindElement(const node_ptr& parent, const std::string& name) {
  if (!parent)
    throw exc::runtime_exc_t("Failed to retrieve XML element [%1]. Parent node is not specified.", name);
  if (TiXmlElement* const exact = parent->FirstChildElement(name))
    return {parent, exact};
  for (TiXmlElement* child = parent->FirstChildElement(); child != nullptr; child = child->NextSiblingElement()) {
    if (!platform::EqualIgnoringCase(child->ValueStr(), name))
      continue;
    g_rpc_log.Warning(
        "[winxml] Found XML element with case-insensitive search, this is deprecated and will stop working in the "
        "future. Expected name: [%1], got [%2] instead.",
        name, child->ValueStr());
    return {parent, child};
  }
  return {};
}

element_ptr GetElement(const node_ptr& parent, const std::string& name) {
  element_ptr element = FindElement(parent, name);
  if (!element)
    throw exc::runtime_exc_t("Failed to retrieve XML element [%1]. Element doesn't exist.", name);
  return element;
}

std::string GetAttribute(const element_ptr& element, const std::string& name) {
  const std::string* const value = element ? element->Attribute(name) : nullptr;
  if (value == nullptr)
    throw exc::runtime_exc_t("Attribute value is not specified. Attribute: [%1].", name);
  CheckValue(*value);
  return *value;
}

void SetAttribute(const element_ptr& element, const std::string& name, const std::string& value) {
  try {
    if (!element)
      throw exc::runtime_exc_t("Failed to cast XML node to element");
    CheckValue(value);
    element->SetAttribute(name, value);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to set attribute value. Attribute: [%1]. Value: [%2].", failure, name, value.c_str());
  }
}

}  // namespace winxml
