// A service of a test's own under clients that were written by others. They are the scripts of the folder judges; what
// the scripts take and print stands in conversation.py there.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "integration/support/realm.h"
#include "integration/support/service.h"

namespace test {

using texts_t = std::vector<std::string>;

inline constexpr const char* Impacket = "impacket_client.py";
inline constexpr const char* Samba = "samba_client.py";
inline constexpr const char* Raw = "raw_client.py";
inline constexpr const char* Loopback = "127.0.0.1";

/// What someone is told who is no administrator: in RpcResult.Message, with Success 0 and no output.
inline const std::string NotMember =
    "0\t-\tAccess is denied.\\nRPC client is not a member of built-in Administrators group.\\n"
    "Error code: 2147942405";

/// The calls that are for anyone, one that is not, and their answers.
inline const texts_t FewCalls{"InvokerTestConnection\thello", "DoRpcWithBinary\tname\targuments\t00ff41",
                              "DoRpc\tGetNfsDatastoreSizes\t<InputArguments/>"};
inline const texts_t FewForAdministrators{"1\t-", "1\t-\t-\t-", "0\t-\tUnknown command: 'GetNfsDatastoreSizes'."};
inline const texts_t FewForOthers{"1\t-", "1\t-\t-\t-", NotMember};

/// The lines of a text, without their ends.
texts_t Lines(const std::string& text);
/// Both lists, one behind the other.
texts_t With(texts_t options, const texts_t& more);
/// A value of a document, as it is written in either direction.
std::string Value(const std::string& name, const std::string& value);
/// The call of a command with these values.
std::string Command(const std::string& name, const std::string& arguments = {});
/// The line of a command that succeeds with these values.
std::string Output(const std::string& values = {});
/// The options of a client that authenticates by a password; the user is of the domain TEST.
texts_t As(const std::string& user, const std::string& auth, const std::string& level,
           const std::string& password = "secret");
/// The options of a client that authenticates by the ticket of the environment.
texts_t ByTicket(const std::string& auth, const std::string& level);

/// The service knows root, judge-admin and judge-other by NTLM, all with the password secret.
class CJudgesTest : public testing::Test {
 protected:
  CJudgesTest();
  ~CJudgesTest() override;
  void SetUp() override { service_.Start(); }
  void TearDown() override;

  /// The lines that a script prints of a conversation. Fails the test when the script does.
  texts_t Ask(const std::string& script, const texts_t& options, const texts_t& calls,
              const std::string& host = Loopback);

  CTestAccounts accounts_;
  CTempFolder judgeFolder_;
  CService service_;
};

}  // namespace test
