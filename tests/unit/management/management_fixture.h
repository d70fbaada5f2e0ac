// What tests of commands start from: a running service with a registry and a root folder of its own.
#pragma once

#include <boost/make_shared.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hostfs/host_fs_file_cache.h"
#include "management/dcerpc/wide_text.h"
#include "management/invoke_call.h"
#include "management/nfs_invoke_dispatcher.h"
#include "platform/text.h"
#include "service/context/svc_context.h"
#include "service/context/svc_context_holder.h"
#include "unit/config/config_fixture.h"
#include "vfs/table/fs_items_tab.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace test {

using arguments_t = std::vector<std::pair<std::string, std::string>>;

/// An input document. The values stand in it as they are.
inline std::string Input(const arguments_t& arguments) {
  std::string text = "<InputArguments>";
  for (const auto& [name, value] : arguments)
    text += "<" + name + " value=\"" + value + "\"/>";
  return text + "</InputArguments>";
}

/// An output document.
inline std::string Output(const arguments_t& results) {
  if (results.empty())
    return "<OutputArguments />";
  std::string text = "<OutputArguments>";
  for (const auto& [name, value] : results)
    text += "<" + name + " value=\"" + value + "\" />";
  return text + "</OutputArguments>";
}

inline std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts)
    joined += (joined.empty() ? "" : "\n") + text;
  return joined;
}

class ManagementFixture : public ConfigFixture {
 protected:
  ManagementFixture() {
    Put(Root, "RootFolder", Local());
    HostFsFileCache::Init();
    context = boost::make_shared<CSvcContext>();
    CSvcContextHolder::Set(context);
    log.Clear();
  }
  ~ManagementFixture() override {
    CSvcContextHolder::Set({});
    context.reset();
    HostFsFileCache::Deinit();
  }

  /// The host folder of the shares.
  std::string Local() const { return folder / "shares"; }
  CVirtualFs& Fs() const { return *context->GetFs(); }

  /// A call by an administrator.
  static dcerpc::SInvokeResponse Call(const std::string& name, const std::string& input) {
    CNfsInvokeDispatcher dispatcher;
    return InvokeCall(
        dispatcher, [] {}, dcerpc::WideText(name), dcerpc::WideText(input));
  }
  /// The output of a call that succeeds.
  static std::string Run(const std::string& name, const arguments_t& arguments = {}) {
    const dcerpc::SInvokeResponse response = Call(name, Input(arguments));
    EXPECT_TRUE(response.result.success) << name << ": " << response.result.message.value_or("");
    EXPECT_FALSE(response.result.message);
    return response.output.value_or("");
  }
  /// The lines of the message of a call that fails.
  static std::vector<std::string> Fail(const std::string& name, const std::string& input) {
    const dcerpc::SInvokeResponse response = Call(name, input);
    EXPECT_FALSE(response.result.success) << name;
    EXPECT_FALSE(response.output) << name;
    std::vector<std::string> lines;
    const std::string message = response.result.message.value_or("");
    for (std::size_t begin = 0; begin <= message.size();) {
      const std::size_t end = std::min(message.find('\n', begin), message.size());
      lines.push_back(message.substr(begin, end - begin));
      begin = end + 1;
    }
    return lines;
  }
  static std::vector<std::string> Fail(const std::string& name, const arguments_t& arguments = {}) {
    return Fail(name, Input(arguments));
  }
  /// The identity of a new share, as it stands in answers.
  static std::string NewShare(const std::string& alias) {
    const std::string output = Run("CreateShare", {{"nfsFolderPath", alias}});
    const std::size_t begin = output.find('{');
    return begin == std::string::npos ? output : output.substr(begin, output.find('}') + 1 - begin);
  }
  /// How often a scope's text is in the log, whatever its indentation.
  std::size_t CountTrimmed(const std::string& text) const {
    std::size_t count = 0;
    for (const std::string& line : log.Texts())
      count += platform::Trim(line, " ") == text ? 1 : 0;
    return count;
  }
  bool HasTrimmed(const std::string& text) const { return CountTrimmed(text) != 0; }

  /// Where agents have their names.
  const ScopedEnvironment runtimeDir{"KELVO_RUNTIME_DIR", folder / "run"};
  boost::shared_ptr<CSvcContext> context;
};

}  // namespace test
