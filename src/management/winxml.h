// Documents, elements and attributes, with a text for each failure.
#pragma once

#include <tinyxml.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>
#include <string_view>

/// All texts are UTF-8. Every reference shares the ownership of its document, which lives as long as any of them. One
/// document belongs to one thread at a time; every failure is an exc::exc_base_t.
namespace winxml {

using document_ptr = boost::shared_ptr<TiXmlDocument>;
using node_ptr = boost::shared_ptr<TiXmlNode>;
using element_ptr = boost::shared_ptr<TiXmlElement>;

/// A text with more `<` than this is refused: the parser recurses once an element, and must not run out of stack. No
/// command needs more than a dozen.
inline constexpr std::size_t MaxTags = 4096;
/// How much of the text a failure to parse it shows.
inline constexpr std::size_t ShownCharacters = 128;

document_ptr CreateDocument();
/// Entities of the document's own are not expanded, and nothing outside the text is read. Throws for what the parser
/// refuses, for a text with a zero byte, one that is not UTF-8 and one with more than MaxTags tags.
document_ptr ParseDocument(const std::string& text);
/// Without a declaration, blanks or line breaks between the elements.
std::string PrintDocument(const document_ptr& document);

/// The document as a parent of elements.
node_ptr DocumentNode(const document_ptr& document);
/// A new element at the end of the parent.
element_ptr CreateElement(const node_ptr& parent, const std::string& name);
/// The first child element of that name, or else the first whose name differs only by ASCII case, with a warning in the
/// log; empty when there is none.
element_ptr FindElement(const node_ptr& parent, const std::string& name);
/// The same; throws when there is none.
element_ptr GetElement(const node_ptr& parent, const std::string& name);

/// Throws when there is no such attribute, and for a value that is not UTF-8 or holds a zero byte, as character
/// references can make it.
std::string GetAttribute(const element_ptr& element, const std::string& name);
void SetAttribute(const element_ptr& element, const std::string& name, const std::string& value);

}  // namespace winxml
