// The client of the management endpoint before a server that sends anything.
#include <algorithm>
#include <memory>
#include <utility>

#include "fuzz/fuzz_input.h"
#include "management/dcerpc/invoker_client.h"
#include "management/dcerpc/pdu.h"

namespace {

/// Brings the input, and ends with it.
class CInputStream : public dcerpc::IClientStream {
 public:
  explicit CInputStream(fuzz::CInput input) : input_(input) {}

  void Send(dcerpc::bytes_view_t bytes) override {
    fuzz::Require(fuzz::Try([&] { dcerpc::ParsePdu(bytes); }), "a client sends PDUs");
  }
  void Receive(std::span<std::uint8_t> buffer) override {
    const fuzz::bytes_view_t taken = input_.Take(buffer.size());
    if (taken.size() != buffer.size())
      throw exc::runtime_exc_t("The connection was closed.");
    std::copy(taken.begin(), taken.end(), buffer.begin());
  }

 private:
  fuzz::CInput input_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

/// What the server sends, as one stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    dcerpc::CInvokerClient client(std::make_unique<CInputStream>(fuzz::CInput(data, size)));
    client.TestConnection();
    client.DoRpc("GetParams", "<InputArguments/>");
    client.DoRpc("EnumLocks", "<InputArguments/>");
  } catch (const exc::exc_base_t&) {
    // A failure has a sentence for people; anything else is a finding.
  }
  return 0;
}
