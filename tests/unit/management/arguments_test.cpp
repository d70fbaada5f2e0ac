#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "management/input_arguments.h"
#include "management/output_arguments.h"
#include "support/captured_log.h"
#include "unit/config/config_fixture.h"

namespace {

using test::ThrownTexts;
using testing::ElementsAre;

CInputArguments Parse(const std::string& children) {
  return CInputArguments(winxml::ParseDocument("<InputArguments>" + children + "</InputArguments>"));
}

CInputArguments Value(const std::string& value) {
  return Parse("<x value=\"" + value + "\"/>");
}

constexpr char GuidText[] = "d1c2c07a-d989-48cc-a423-b73ecd518d40";

TEST(InputArguments, TextsAreReadAsTheyStand) {
  const auto input = Parse("<x value=' a &lt;b&gt; é ' other='1'/><y>ignored</y>");
  EXPECT_EQ(input.GetUnicode("x"), " a <b> é ");
  EXPECT_EQ(input.GetMultibyte("x"), " a <b> é ");
  EXPECT_EQ(Value("").GetUnicode("x"), "");
}

TEST(InputArguments, AGuidMayMissEitherBrace) {
  const GUID expected = *platform::GuidFromText("{" + std::string(GuidText) + "}");
  for (const char* text : {"d1c2c07a-d989-48cc-a423-b73ecd518d40", "{d1c2c07a-d989-48cc-a423-b73ecd518d40}",
                           "{d1c2c07a-d989-48cc-a423-b73ecd518d40", "D1C2C07A-D989-48CC-A423-B73ECD518D40}"}) {
    EXPECT_EQ(Value(text).GetGuid("x"), expected) << text;
  }
}

TEST(InputArguments, WhatIsNoGuidIsTold) {
  EXPECT_THAT(ThrownTexts([] { Value("{12}").GetGuid("x"); }),
              ElementsAre("The text is not a UUID.", "Failed to convert string [12] to UUID.", "Error code: 1705",
                          "Failed to retrieve value of the GUID attribute 'x'."));
  for (const std::string& text : {std::string(), std::string("{"), std::string("}"), std::string("{}"),
                                  "{{" + std::string(GuidText) + "}}", " " + std::string(GuidText)}) {
    EXPECT_EQ(ThrownTexts([&] { Value(text).GetGuid("x"); }).size(), 4U) << text;
  }
}

TEST(InputArguments, IntegersAreDecimal) {
  EXPECT_EQ(Value("0").GetInteger("x"), 0U);
  EXPECT_EQ(Value("4294967295").GetInteger("x"), 4294967295U);
  EXPECT_EQ(Value("-1").GetInteger("x"), 4294967295U);
  EXPECT_EQ(Value("-2147483648").GetInteger("x"), 2147483648U);
  EXPECT_EQ(Value("18446744073709551615").GetUInt64("x"), 18446744073709551615U);
}

TEST(InputArguments, WhatIsNoIntegerIsTold) {
  for (const char* text : {"", "-", "x", "1x", " 1", "0x10", "4294967296", "-2147483649", "--1"}) {
    EXPECT_THAT(ThrownTexts([&] { Value(text).GetInteger("x"); }),
                ElementsAre("Failed to convert string [" + std::string(text) + "] to number.",
                            "Failed to retrieve value of the integer attribute 'x'."));
  }
  for (const char* text : {"", "-1", "1.5", "18446744073709551616"}) {
    EXPECT_THAT(ThrownTexts([&] { Value(text).GetUInt64("x"); }),
                ElementsAre("Failed to convert string [" + std::string(text) + "] to number.",
                            "Failed to retrieve value of the UInt64 attribute 'x'."));
  }
}

TEST(InputArguments, EachReaderNamesItself) {
  const auto input = Parse("");
  const std::string missing = "Value of the argument 'x' is not defined.";
  EXPECT_THAT(ThrownTexts([&] { input.GetUnicode("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the unicode attribute 'x'."));
  EXPECT_THAT(ThrownTexts([&] { input.GetMultibyte("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the multibyte attribute 'x'."));
  EXPECT_THAT(ThrownTexts([&] { input.GetGuid("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the GUID attribute 'x'."));
  EXPECT_THAT(ThrownTexts([&] { input.GetInteger("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the integer attribute 'x'."));
  EXPECT_THAT(ThrownTexts([&] { input.GetUInt64("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the UInt64 attribute 'x'."));
}

TEST(InputArguments, AnElementWithoutValueIsTold) {
  const auto input = Parse("<x Value='1'/>");
  EXPECT_TRUE(input.HasArgument("x"));
  EXPECT_THAT(ThrownTexts([&] { input.GetMultibyte("x"); }),
              ElementsAre("Attribute value is not specified. Attribute: [value].",
                          "Failed to retrieve value of the multibyte attribute 'x'."));
}

TEST(InputArguments, WithoutRootNothingIsThereToAsk) {
  const CInputArguments input(winxml::ParseDocument("<Arguments><x value='1'/></Arguments>"));
  const std::string missing = "Failed to retrieve XML element [InputArguments]. Element doesn't exist.";
  EXPECT_THAT(ThrownTexts([&] { input.HasArgument("x"); }), ElementsAre(missing));
  EXPECT_THAT(ThrownTexts([&] { input.GetUnicode("x"); }),
              ElementsAre(missing, "Failed to retrieve value of the unicode attribute 'x'."));
}

TEST(InputArguments, CaseIsForgivenWithAWarningEachTime) {
  const test::CapturedLog log;
  const auto input = Parse("<SHAREID value='1'/>");
  EXPECT_TRUE(input.HasArgument("shareId"));
  EXPECT_EQ(input.GetUnicode("shareId"), "1");
  EXPECT_FALSE(input.HasArgument("share"));
  EXPECT_EQ(log.Texts("Warning").size(), 2U);
  const CInputArguments other(winxml::ParseDocument("<inputarguments><x value='1'/></inputarguments>"));
  EXPECT_EQ(other.GetUnicode("x"), "1");
  EXPECT_EQ(log.Texts("Warning").size(), 3U);
}

TEST(OutputArguments, AreThereWithoutResults) {
  EXPECT_EQ(winxml::PrintDocument(COutputArguments().Document()), "<OutputArguments />");
}

TEST(OutputArguments, StandInTheOrderOfWriting) {
  COutputArguments output;
  output.SetUnicode("u", "é");
  output.SetMultibyte("m", "<\"&");
  output.SetGuid("g", *platform::GuidFromText("{" + std::string(GuidText) + "}"));
  output.SetInteger("i", -1);
  output.SetUInt64("l", 18446744073709551615U);
  output.SetBool("b", true);
  output.SetBool("b", false);
  output.AddNode("n");
  EXPECT_EQ(winxml::PrintDocument(output.Document()),
            "<OutputArguments><u value=\"é\" /><m value='&lt;&quot;&amp;' />"
            "<g value=\"{d1c2c07a-d989-48cc-a423-b73ecd518d40}\" /><i value=\"-1\" />"
            "<l value=\"18446744073709551615\" /><b value=\"true\" /><b value=\"false\" /><n /></OutputArguments>");
}

TEST(OutputArguments, AreTexts) {
  COutputArguments output;
  EXPECT_EQ(ThrownTexts([&] { output.SetMultibyte("m", "\xFF"); }).at(1),
            "Multibyte UTF8 string cannot be converted to unicode string. Source string: [\xFF].");
}

}  // namespace
