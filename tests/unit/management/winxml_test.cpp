#include "management/winxml.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/captured_log.h"
#include "unit/config/config_fixture.h"

namespace {

using test::ThrownTexts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using winxml::DocumentNode;

std::string Shown(const std::string& text) {
  return "Failed to parse XML content. Source content: [" + text + "].";
}

std::string Repeated(const std::string& text, std::size_t times) {
  std::string result;
  for (std::size_t i = 0; i < times; ++i)
    result += text;
  return result;
}

TEST(WinXml, ReadsBackWhatItPrints) {
  const auto document = winxml::CreateDocument();
  const auto root = winxml::CreateElement(DocumentNode(document), "Root");
  EXPECT_EQ(winxml::PrintDocument(document), "<Root />");
  const std::string value = "a < b & \"c\" 'd' > e\té\n日本";
  winxml::SetAttribute(winxml::CreateElement(root, "First"), "value", value);
  winxml::CreateElement(winxml::CreateElement(root, "Second"), "Below");
  const std::string text = winxml::PrintDocument(document);
  EXPECT_TRUE(text.ends_with("/><Second><Below /></Second></Root>")) << text;
  const auto parsed = winxml::ParseDocument(text);
  const auto first = winxml::GetElement(winxml::GetElement(DocumentNode(parsed), "Root"), "First");
  EXPECT_EQ(winxml::GetAttribute(first, "value"), value);
  EXPECT_EQ(winxml::PrintDocument(parsed), text);
}

TEST(WinXml, AnElementKeepsItsDocument) {
  winxml::element_ptr element;
  {
    const auto document = winxml::ParseDocument("<a><b c=\"d\"/></a>");
    element = winxml::GetElement(winxml::GetElement(DocumentNode(document), "a"), "b");
  }
  EXPECT_EQ(winxml::GetAttribute(element, "c"), "d");
}

TEST(WinXml, SourceTextsAreCutPast128Characters) {
  const std::string whole(128, 'x');
  EXPECT_THAT(ThrownTexts([&] { winxml::ParseDocument("<" + whole.substr(1)); }),
              ElementsAre(Shown("<" + whole.substr(1)), "XML error: [Failed to read Element name]. Error code: [4]."));
  EXPECT_THAT(ThrownTexts([&] { winxml::ParseDocument("<" + whole); }),
              ElementsAre(Shown("<" + whole.substr(1) + "..., length: 129"),
                          "XML error: [Failed to read Element name]. Error code: [4]."));
}

TEST(WinXml, CharactersAreCountedAndNotBytes) {
  const std::string whole = "<" + Repeated("é", 127);
  EXPECT_EQ(ThrownTexts([&] { winxml::ParseDocument(whole); }).at(0), Shown(whole));
  EXPECT_EQ(ThrownTexts([&] { winxml::ParseDocument(whole + "é"); }).at(0), Shown(whole + "..., length: 129"));
}

TEST(WinXml, AnEmptyTextIsNoDocument) {
  EXPECT_THAT(ThrownTexts([] { winxml::ParseDocument(""); }),
              ElementsAre(Shown(""), "XML error: [Error document empty.]. Error code: [12]."));
}

TEST(WinXml, MissingParentsAreTold) {
  EXPECT_THAT(ThrownTexts([] { winxml::CreateElement({}, "x"); }),
              ElementsAre("Failed to create XML element [x]. Parent node is not specified."));
  EXPECT_THAT(ThrownTexts([] { winxml::FindElement({}, "x"); }),
              ElementsAre("Failed to retrieve XML element [x]. Parent node is not specified."));
  EXPECT_THAT(ThrownTexts([] { winxml::GetElement({}, "x"); }),
              ElementsAre("Failed to retrieve XML element [x]. Parent node is not specified."));
  EXPECT_THAT(ThrownTexts([] { DocumentNode({}); }), ElementsAre("Failed to convert document to node"));
  EXPECT_THAT(ThrownTexts([] { winxml::PrintDocument({}); }), ElementsAre("Failed to convert document to node"));
}

TEST(WinXml, MissingElementsAndAttributesAreTold) {
  const auto document = winxml::ParseDocument("<a/>");
  EXPECT_FALSE(winxml::FindElement(DocumentNode(document), "b"));
  EXPECT_THAT(ThrownTexts([&] { winxml::GetElement(DocumentNode(document), "b"); }),
              ElementsAre("Failed to retrieve XML element [b]. Element doesn't exist."));
  EXPECT_THAT(ThrownTexts([&] { winxml::GetAttribute(winxml::GetElement(DocumentNode(document), "a"), "value"); }),
              ElementsAre("Attribute value is not specified. Attribute: [value]."));
}

TEST(WinXml, TheExactNameIsPreferred) {
  const test::CapturedLog log;
  const auto document = winxml::ParseDocument("<r><NAME v='1'/><name v='2'/><Name v='3'/></r>");
  const auto root = winxml::GetElement(DocumentNode(document), "r");
  EXPECT_EQ(winxml::GetAttribute(winxml::GetElement(root, "name"), "v"), "2");
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_EQ(winxml::GetAttribute(winxml::GetElement(root, "nAME"), "v"), "1");
  EXPECT_THAT(log.Texts("Warning"),
              ElementsAre("[winxml] Found XML element with case-insensitive search, this is deprecated and will stop "
                          "working in the future. Expected name: [nAME], got [NAME] instead."));
}

TEST(WinXml, AttributesAreCheckedWhenTheyAreWritten) {
  const auto element = winxml::CreateElement(DocumentNode(winxml::CreateDocument()), "a");
  EXPECT_THAT(ThrownTexts([&] { winxml::SetAttribute(element, "v", "x\xE9"); }),
              ElementsAre("The text cannot be converted between its encodings.",
                          "Multibyte UTF8 string cannot be converted to unicode string. Source string: [x\xE9].",
                          "Error code: 1113", "Failed to set attribute value. Attribute: [v]. Value: [x\xE9]."));
  EXPECT_THAT(
      ThrownTexts([] { winxml::SetAttribute({}, "v", "x"); }),
      ElementsAre("Failed to cast XML node to element", "Failed to set attribute value. Attribute: [v]. Value: [x]."));
}

TEST(WinXml, EntitiesOfTheDocumentAreNotExpanded) {
  const auto document = winxml::ParseDocument(
      R"(<?xml version="1.0" encoding="UTF-8"?><!DOCTYPE a SYSTEM "/etc/passwd"><a v="&b;&lt;&#233;&#x4e2d;"/>)");
  EXPECT_EQ(winxml::GetAttribute(winxml::GetElement(DocumentNode(document), "a"), "v"), "b;<é中");
  // Declarations of entities end the document: what follows the first of them is not looked at.
  const auto declared = winxml::ParseDocument(R"(<!DOCTYPE a [<!ENTITY b "c">]><a v="&b;"/>)");
  EXPECT_FALSE(winxml::FindElement(DocumentNode(declared), "a"));
}

TEST(WinXml, ReferencesThatAreNoTextAreRefused) {
  for (const char* value : {"&#0;", "a&#x0;b", "&#233;", "&#xD800;"}) {
    const auto document = winxml::ParseDocument(std::string("<a v=\"") + value + "\"/>");
    EXPECT_THAT(ThrownTexts([&] { winxml::GetAttribute(winxml::GetElement(DocumentNode(document), "a"), "v"); }).at(1),
                HasSubstr("Multibyte UTF8 string cannot be converted to unicode string. Source string: ["))
        << value;
  }
}

TEST(WinXml, TextsThatAreNoTextAreRefused) {
  EXPECT_THAT(ThrownTexts([] { winxml::ParseDocument(std::string("<a/>\0<b/>", 9)); }),
              ElementsAre(Shown("<a/>"), "The text holds a zero character."));
  EXPECT_THAT(ThrownTexts([] { winxml::ParseDocument("<a v='\xEF"); }),
              ElementsAre(Shown("<a v='\xEF"), "The text is not valid UTF-8."));
}

TEST(WinXml, DeepDocumentsAreRefusedAndNotParsed) {
  const std::string deep = Repeated("<a>", 10000);
  for (const std::string& text : {deep, deep + Repeated("</a>", 10000)}) {
    const auto texts = ThrownTexts([&] { winxml::ParseDocument(text); });
    EXPECT_EQ(texts.back(), "The text has more than 4096 tags.");
    EXPECT_THAT(texts.front(), HasSubstr("..., length: "));
  }
}

TEST(WinXml, TheDeepestDocumentsThatAreParsedNeedLittleStack) {
  const auto deepest =
      winxml::ParseDocument(Repeated("<a>", winxml::MaxTags / 2) + Repeated("</a>", winxml::MaxTags / 2));
  EXPECT_EQ(winxml::PrintDocument(deepest).size(), (winxml::MaxTags / 2 - 1) * 7 + 5);
  EXPECT_EQ(ThrownTexts([] { winxml::ParseDocument(Repeated("<a>", winxml::MaxTags)); }).at(1),
            "XML error: [Error reading Element value.]. Error code: [5].");
}

TEST(WinXml, LargeValuesAreRead) {
  const std::string value(1 << 20, 'v');
  const auto document = winxml::ParseDocument("<a v=\"" + value + "\"/>");
  EXPECT_EQ(winxml::GetAttribute(winxml::GetElement(DocumentNode(document), "a"), "v"), value);
}

TEST(WinXml, CutDocumentsAreRefusedOrHaveWhatWasThere) {
  const std::string text =
      "\xEF\xBB\xBF<?xml version='1.0' encoding=\"UTF-8\" standalone = 'yes' ?><!-- c --><!DOCTYPE x>"
      "<InputArguments><a value=\"&amp;&#x41;é\" b=c/> t <![CDATA[ <x> ]]><?pi ?></InputArguments>";
  for (std::size_t length = 0; length <= text.size(); ++length) {
    for (const char* tail : {"", " ", "\t\n", "&", "&#", "&#x", "<", "'", "\xEF\xBB\xBF"}) {
      try {
        const auto document = winxml::ParseDocument(text.substr(0, length) + tail);
        if (const auto root = winxml::FindElement(DocumentNode(document), "InputArguments")) {
          EXPECT_EQ(length, text.size());
        }
        winxml::PrintDocument(document);
      } catch (const exc::runtime_exc_t& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("Failed to parse XML content."));
      }
    }
  }
}

}  // namespace
