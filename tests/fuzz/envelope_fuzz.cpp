// A command from its texts to its answer: parsing, every reader of arguments, printing of results.
#include <map>
#include <memory>
#include <optional>

#include "fuzz/fuzz_input.h"
#include "management/dcerpc/wide_text.h"
#include "management/input_arguments.h"
#include "management/invoke_call.h"
#include "management/invoke_dispatcher.h"
#include "management/version_compatibility.h"

namespace {

/// The arguments that the commands know, and one that none does.
constexpr const char* Names[] = {"nfsFolderPath", "uid",        "folderPath", "address", "addresses", "totalSize",
                                 "freeSize",      "nfsTcpPort", "version",    "value",   "a",         "nfsFolderName",
                                 "rootFolder",    "backupMount"};

/// Reads each argument as everything that it can be, and answers with all that could be read.
class CReadingDispatcher : public wrap::IInvokeDispatcher {
 public:
  void Invoke(const std::string& name, const winxml::document_ptr& input, COutputArguments& output) override {
    const CInputArguments arguments(input);
    for (const char* argument : Names) {
      if (arguments.HasArgument(argument))
        ReadArgument(arguments, argument, output);
    }
    // Kept only now: a failure in between leaves an answer that nobody gets.
    output.AddNode("items");
    output.SetUnicode("command", name);
    texts["command"] = name;
  }

  /// What the answer must hold.
  std::map<std::string, std::string> texts;

 private:
  void ReadArgument(const CInputArguments& arguments, const std::string& name, COutputArguments& output) {
    using fuzz::Try;
    Try([&] {
      const std::string text = arguments.GetUnicode(name);
      fuzz::Require(text == arguments.GetMultibyte(name), "both readers of texts read the same");
      output.SetUnicode(name, text);
      texts[name] = text;
      IsConsoleCompatible(text, "1.0.0.0");
    });
    Try([&] { output.SetInteger(name + "Integer", static_cast<std::int32_t>(arguments.GetInteger(name))); });
    Try([&] { output.SetUInt64(name + "Size", arguments.GetUInt64(name)); });
    Try([&] { output.SetGuid(name + "Guid", arguments.GetGuid(name)); });
  }
};

void CheckAnswer(const std::string& text, const CReadingDispatcher& dispatcher) {
  winxml::document_ptr document;
  fuzz::Require(fuzz::Try([&] { document = winxml::ParseDocument(text); }), "an answer is a document");
  const winxml::element_ptr root = winxml::FindElement(winxml::DocumentNode(document), "OutputArguments");
  fuzz::Require(root != nullptr, "an answer has its root");
  for (const auto& written : dispatcher.texts) {
    std::optional<std::string> value;
    fuzz::Try([&] { value = winxml::GetAttribute(winxml::GetElement(root, written.first), "value"); });
    fuzz::Require(value == written.second, "a text arrives as it was written");
  }
}

std::u16string Units(fuzz::bytes_view_t bytes) {
  std::u16string units;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
    units.push_back(static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8));
  return units;
}

void Call(const std::u16string& name, const std::u16string& arguments) {
  CReadingDispatcher dispatcher;
  const dcerpc::SInvokeResponse response = InvokeCall(
      dispatcher, [] {}, name, arguments);
  fuzz::Require(response.result.success == response.output.has_value(), "an answer is there on success alone");
  fuzz::Require(response.result.success != response.result.message.has_value(), "a failure has a message");
  if (response.output && name != dcerpc::WideText(SerialInvokerQuestion))
    CheckAnswer(*response.output, dispatcher);
  // Any failure fits into a response, any output that is UTF-8 as well.
  dcerpc::EncodeDoRpcResponse(response);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

/// A byte that is 0 for texts in UTF-8, 1 for units of UTF-16 and 2 for a document alone, of whatever bytes; the name
/// of a command up to a line feed; the arguments.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  const std::uint8_t kind = input.Byte();
  if (kind == 2) {
    fuzz::Try([&] { winxml::PrintDocument(winxml::ParseDocument(fuzz::TextOf(input.Rest()))); });
    return 0;
  }
  const fuzz::bytes_view_t both = input.Peek();
  const auto nameEnd = static_cast<std::size_t>(std::find(both.begin(), both.end(), '\n') - both.begin());
  const fuzz::bytes_view_t name = input.Take(nameEnd);
  input.Byte();
  if (kind == 1) {
    Call(Units(name), Units(input.Rest()));
  } else {
    Call(dcerpc::WideTextOrReplaced(fuzz::TextOf(name)), dcerpc::WideTextOrReplaced(fuzz::TextOf(input.Rest())));
  }
  return 0;
}
