#include "management/invoke_call.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "management/dcerpc/wide_text.h"
#include "management/input_arguments.h"
#include "management/invoke_dispatcher.h"
#include "support/captured_log.h"

namespace {

using dcerpc::SInvokeResponse;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

/// One command, "Echo", that answers its argument; it notes what it is asked.
class FakeDispatcher : public wrap::IInvokeDispatcher {
 public:
  void Invoke(const std::string& name, const winxml::document_ptr& input, COutputArguments& output) override {
    steps.push_back("Invoke " + name);
    output.SetUnicode("before", "failure");
    if (name == "Foreign")
      throw std::runtime_error("from outside the family");
    if (name != "Echo")
      throw exc::runtime_exc_t("Unknown command: '%1'.", name);
    output.SetUnicode("text", CInputArguments(input).GetUnicode("text"));
  }
  void SoapEnter(const std::string& name, const std::string& input) override {
    steps.push_back("SoapEnter " + name + " " + input);
    IInvokeDispatcher::SoapEnter(name, input);
  }
  void SoapExit(const std::string& name, const std::string& output) override {
    steps.push_back("SoapExit " + name + " " + output);
    if (exitFails)
      throw exc::runtime_exc_t("No exit.");
    IInvokeDispatcher::SoapExit(name, output);
  }
  void OnCallFailed(const std::string& name, const std::string& input, const std::exception& failure) override {
    steps.push_back("OnCallFailed " + name + " " + input + " " + failure.what());
    IInvokeDispatcher::OnCallFailed(name, input, failure);
  }

  bool exitFails = false;
  std::vector<std::string> steps;
};

class InvokeCallTest : public testing::Test {
 protected:
  SInvokeResponse Call(const std::string& name, const std::string& input) {
    return InvokeCall(
        dispatcher, [] {}, dcerpc::WideText(name), dcerpc::WideText(input));
  }
  FakeDispatcher dispatcher;
  test::CapturedLog log;
};

constexpr char Echo[] = "<InputArguments><text value=\"é日\"/></InputArguments>";

TEST_F(InvokeCallTest, ACallThatSucceedsAnswersItsOutput) {
  const SInvokeResponse response = Call("Echo", Echo);
  EXPECT_EQ(response.output, "<OutputArguments><before value=\"failure\" /><text value=\"é日\" /></OutputArguments>");
  EXPECT_EQ(response.result, dcerpc::SRpcResult{});
  EXPECT_THAT(dispatcher.steps,
              ElementsAre(std::string("SoapEnter Echo ") + Echo, "Invoke Echo", "SoapExit Echo " + *response.output));
}

TEST_F(InvokeCallTest, EntryAndExitAreInTheLog) {
  Call("Echo", Echo);
  EXPECT_THAT(log.Lines(),
              ElementsAre(test::CapturedLog::Line{"Info", ""},
                          test::CapturedLog::Line{"Info", std::string("[SoapEnter] Echo:") + Echo},
                          test::CapturedLog::Line{"Info",
                                                  "[SoapExit] Echo:<OutputArguments><before value=\"failure\" "
                                                  "/><text value=\"é日\" /></OutputArguments>"}));
}

TEST_F(InvokeCallTest, AnExitDropsOneLineEnd) {
  dispatcher.SoapExit("Name", "text\r\n");
  dispatcher.SoapExit("Name", "text\n");
  EXPECT_THAT(log.Texts(), ElementsAre("[SoapExit] Name:text", "[SoapExit] Name:text", ""));
}

TEST_F(InvokeCallTest, TheCallerIsTestedBeforeAllElse) {
  const SInvokeResponse response = InvokeCall(
      dispatcher, [] { throw exc::runtime_exc_t("Not you."); }, std::nullopt, std::nullopt);
  EXPECT_FALSE(response.output);
  EXPECT_FALSE(response.result.success);
  EXPECT_EQ(response.result.message, "Not you.");
  EXPECT_THAT(dispatcher.steps, ElementsAre("OnCallFailed   Not you."));
  EXPECT_THAT(log.Texts("Error"), Contains(StartsWith("RPC method call has failed ().")));
}

TEST_F(InvokeCallTest, MissingTextsAreTold) {
  EXPECT_EQ(InvokeCall(
                dispatcher, [] {}, std::nullopt, u"")
                .result.message,
            "Procedure name is not specified.");
  EXPECT_EQ(InvokeCall(
                dispatcher, [] {}, u"Echo", std::nullopt)
                .result.message,
            "Input arguments is not specified.");
  EXPECT_THAT(dispatcher.steps, ElementsAre("OnCallFailed   Procedure name is not specified.",
                                            "OnCallFailed   Input arguments is not specified."));
}

TEST_F(InvokeCallTest, TextsThatAreNoTextAreTold) {
  const std::u16string lone(1, char16_t{0xD800});
  const std::string expected =
      "The text cannot be converted between its encodings.\n"
      "Unicode string cannot be converted to UTF8 string.\nError code: 1113";
  EXPECT_EQ(InvokeCall(
                dispatcher, [] {}, lone, u"")
                .result.message,
            expected);
  EXPECT_EQ(InvokeCall(
                dispatcher, [] {}, u"Echo", lone)
                .result.message,
            expected);
}

TEST_F(InvokeCallTest, AFailureDropsTheOutputAndIsLogged) {
  const SInvokeResponse response = Call("Nothing", Echo);
  EXPECT_FALSE(response.output);
  EXPECT_EQ(response.result, (dcerpc::SRpcResult{.success = false, .message = "Unknown command: 'Nothing'."}));
  EXPECT_THAT(dispatcher.steps,
              ElementsAre(std::string("SoapEnter Nothing ") + Echo, "Invoke Nothing",
                          std::string("OnCallFailed Nothing ") + Echo + " Unknown command: 'Nothing'."));
  const auto errors = log.Texts("Error");
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ(errors.front(), "RPC method call has failed (Nothing).");
  EXPECT_THAT(log.Texts(), Contains(testing::HasSubstr("Unknown command: 'Nothing'.")));
}

TEST_F(InvokeCallTest, FailuresFromOutsideTheFamilyAreTold) {
  EXPECT_EQ(Call("Foreign", Echo).result.message, "from outside the family");
}

TEST_F(InvokeCallTest, AnInputThatDoesNotParseRunsNothing) {
  EXPECT_EQ(Call("Echo", "").result.message,
            "Failed to parse XML content. Source content: [].\nXML error: [Error document empty.]. Error code: [12].");
  EXPECT_THAT(dispatcher.steps, testing::Not(Contains("Invoke Echo")));
}

TEST_F(InvokeCallTest, AFailedExitFailsTheCall) {
  dispatcher.exitFails = true;
  const SInvokeResponse response = Call("Echo", Echo);
  EXPECT_FALSE(response.output);
  EXPECT_EQ(response.result.message, "No exit.");
  EXPECT_THAT(dispatcher.steps, Contains("Invoke Echo"));
}

TEST_F(InvokeCallTest, TheSerialQuestionNeverReachesTheDispatcher) {
  const SInvokeResponse response = Call("IInvokeDispatcher.IsSerialInvokerEnabled", "<InputArguments/>");
  EXPECT_EQ(response.output, "<OutputArguments><IsEnabled value=\"false\" /></OutputArguments>");
  EXPECT_THAT(dispatcher.steps, testing::Not(Contains(StartsWith("Invoke "))));
  // It is a call as any other: its text has to parse.
  EXPECT_FALSE(Call("IInvokeDispatcher.IsSerialInvokerEnabled", "<a").result.success);
}

TEST_F(InvokeCallTest, SerialInvocationDoesNothing) {
  auto document = winxml::CreateDocument();
  dispatcher.InvokeSerial(document, document);
  EXPECT_EQ(document.use_count(), 1);
  EXPECT_FALSE(dispatcher.IsSerialInvokerEnabled());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(InvokeCallTest, LargeTextsPass) {
  const std::string large(1 << 20, 'n');
  EXPECT_EQ(Call(large, "<InputArguments/>").result.message, "Unknown command: '" + large + "'.");
  const SInvokeResponse response = Call("Echo", "<InputArguments><text value=\"" + large + "\"/></InputArguments>");
  EXPECT_TRUE(response.result.success);
  EXPECT_GT(response.output->size(), large.size());
}

}  // namespace
