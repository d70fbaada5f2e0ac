#include "kelvo-nfsctl/envelope.h"

#include <tinyxml.h>

#include <algorithm>

#include "foundation/exc.h"
#include "platform/text.h"

namespace nfsctl {
namespace {

/// Every character that markup or white space rules would change goes as a reference.
std::string Escape(std::string_view value) {
  std::string text;
  text.reserve(value.size());
  for (const char c : value) {
    if (c == '&' || c == '<' || c == '>' || c == '"' || c == '\'' || static_cast<unsigned char>(c) < ' ') {
      text += "&#" + std::to_string(static_cast<unsigned>(c)) + ";";
    } else {
      text += c;
    }
  }
  return text;
}

bool IsLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

[[noreturn]] void RefuseAnswer(std::string_view why) {
  throw exc::runtime_exc_t("The answer of the service cannot be read: %1.", why);
}

}  // namespace

bool IsArgumentName(std::string_view name) {
  return !name.empty() && IsLetter(name[0]) && std::all_of(name.begin(), name.end(), [](char c) {
    return IsLetter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
  });
}

std::string MakeInput(const arguments_t& arguments) {
  std::string xml = "<InputArguments>";
  for (const auto& [name, value] : arguments)
    xml += "<" + name + " value=\"" + Escape(value) + "\"/>";
  return xml + "</InputArguments>";
}

COutput::COutput(const std::string& xml) {
  TiXmlDocument document;
  document.Parse(xml.c_str(), nullptr, TIXML_ENCODING_UTF8);
  if (document.Error())
    RefuseAnswer(document.ErrorDesc());
  const TiXmlElement* const root = document.FirstChildElement("OutputArguments");
  if (root == nullptr)
    RefuseAnswer("it holds no OutputArguments");
  for (const TiXmlElement* element = root->FirstChildElement(); element != nullptr;
       element = element->NextSiblingElement()) {
    SResult result;
    result.name = element->ValueStr();
    if (const std::string* const value = element->Attribute(std::string("value")))
      result.value = *value;
    for (const TiXmlElement* item = element->FirstChildElement(); item != nullptr; item = item->NextSiblingElement()) {
      arguments_t attributes;
      for (const TiXmlAttribute* attribute = item->FirstAttribute(); attribute != nullptr;
           attribute = attribute->Next())
        attributes.emplace_back(attribute->NameTStr(), attribute->ValueStr());
      result.items.push_back(std::move(attributes));
    }
    results_.push_back(std::move(result));
  }
}

const SResult& COutput::Find(std::string_view name) const {
  const auto found =
      std::find_if(results_.begin(), results_.end(), [name](const SResult& result) { return result.name == name; });
  if (found == results_.end())
    RefuseAnswer("it holds no " + std::string(name));
  return *found;
}

const std::string& COutput::Text(std::string_view name) const {
  const SResult& result = Find(name);
  if (!result.value)
    RefuseAnswer(result.name + " has no value");
  return *result.value;
}

std::uint64_t COutput::Number(std::string_view name) const {
  const auto number = platform::ParseU64(Text(name));
  if (!number)
    RefuseAnswer(std::string(name) + " is no number");
  return *number;
}

bool COutput::Flag(std::string_view name) const {
  const std::string& text = Text(name);
  if (text != "true" && text != "false")
    RefuseAnswer(std::string(name) + " is neither true nor false");
  return text == "true";
}

const std::vector<arguments_t>& COutput::Items(std::string_view name) const {
  return Find(name).items;
}

nlohmann::ordered_json COutput::ToJson() const {
  auto json = nlohmann::ordered_json::object();
  for (const SResult& result : results_) {
    if (result.value) {
      json[result.name] = *result.value;
      continue;
    }
    auto& items = json[result.name] = nlohmann::ordered_json::array();
    for (const arguments_t& attributes : result.items) {
      auto item = nlohmann::ordered_json::object();
      for (const auto& [name, value] : attributes)
        item[name] = value;
      items.push_back(std::move(item));
    }
  }
  return json;
}

}  // namespace nfsctl
