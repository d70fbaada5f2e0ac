// kelvo-reg: reads and changes the registry, whether the service runs or not.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "registry_json.h"

namespace {

constexpr int Failed = 1;
constexpr int BadUsage = 2;

struct arguments_t {
  std::string key;
  std::string value;
  std::string type;
  std::string data;
};

int Report(platform::error_t error, const std::string& what) {
  if (error == platform::error::Success)
    return 0;
  // The text of number 2 speaks of files.
  const std::string why =
      error == platform::error::FileNotFound ? "There is no such key or value." : platform::ErrorText(error);
  std::cerr << "kelvo-reg: " << what << " failed. " << why << " Error code: " << error << '\n';
  return Failed;
}

/// Output that could not be written, to a full disk say, is a failure too.
int Print(const std::string& text) {
  std::cout << text << '\n' << std::flush;
  if (std::cout)
    return 0;
  std::cerr << "kelvo-reg: The output could not be written.\n";
  return Failed;
}

std::string Describe(const char* action, const arguments_t& arguments, bool withValue) {
  std::string text = std::string(action) + " [" + arguments.key + "]";
  if (withValue)
    text += " value [" + arguments.value + "]";
  return text;
}

int Get(const arguments_t& arguments) {
  platform::registry_data_t data;
  const platform::error_t error = platform::registry_t::Instance().GetValue(arguments.key, arguments.value, data);
  return error == 0 ? Print(tool::DataToText(data)) : Report(error, Describe("Reading", arguments, true));
}

int Set(const arguments_t& arguments) {
  const auto data = tool::DataFromText(arguments.type, arguments.data);
  if (!data) {
    std::cerr << "kelvo-reg: [" << arguments.data << "] is not data of the type [" << arguments.type
              << "]; types are REG_SZ, REG_DWORD and REG_QWORD.\n";
    return BadUsage;
  }
  return Report(platform::registry_t::Instance().SetValues(arguments.key, {{arguments.value, *data}}),
                Describe("Writing", arguments, true));
}

int Delete(const arguments_t& arguments, bool withValue) {
  platform::registry_t& registry = platform::registry_t::Instance();
  return Report(withValue ? registry.DeleteValue(arguments.key, arguments.value) : registry.DeleteKey(arguments.key),
                Describe("Deleting", arguments, withValue));
}

int Export(const arguments_t& arguments) {
  platform::registry_node_t node;
  const platform::error_t error = platform::registry_t::Instance().ReadTree(arguments.key, node);
  if (error != 0)
    return Report(error, Describe("Reading", arguments, false));
  return Print(tool::KeyToJson(node).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

int Run(int argc, char** argv) {
  CLI::App app(
      "Reads and changes the registry of the NFS service. KEY is below HKEY_LOCAL_MACHINE, its components "
      "divided by \\ or /. What begins with - stands behind --.");
  app.set_version_flag("--version", KELVO_VERSION);
  app.require_subcommand(1);
  arguments_t arguments;
  CLI::App* get = app.add_subcommand("get", "Print the data of a value");
  CLI::App* set = app.add_subcommand("set", "Store a value; the key is created with its parents");
  CLI::App* remove = app.add_subcommand("delete", "Delete a value, or a key with everything below it");
  CLI::App* tree = app.add_subcommand("export", "Print a key, or everything, as JSON");
  for (CLI::App* command : {get, set, remove})
    command->add_option("KEY", arguments.key)->required();
  for (CLI::App* command : {get, set})
    command->add_option("VALUE", arguments.value, "The value's name")->required();
  set->add_option("TYPE", arguments.type, "REG_SZ, REG_DWORD or REG_QWORD")->required();
  set->add_option("DATA", arguments.data, "Text, or a number in decimal or, with 0x, in hexadecimal")->required();
  const CLI::Option* oneValue = remove->add_option("VALUE", arguments.value, "The value's name");
  tree->add_option("KEY", arguments.key);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? 0 : BadUsage;
  }
  if (get->parsed())
    return Get(arguments);
  if (set->parsed())
    return Set(arguments);
  if (remove->parsed())
    return Delete(arguments, oneValue->count() > 0);
  return Export(arguments);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& failure) {
    std::cerr << "kelvo-reg: " << failure.what() << '\n';
    return Failed;
  }
}
