// Lists of allowed addresses, as commands and the registry give them.
#include <netinet/in.h>

#include "config/address_checker.h"
#include "fuzz/fuzz_input.h"

namespace {

bool Allows(IAddressChecker& checker, std::uint32_t address) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = address;
  return checker.IsAllowed(reinterpret_cast<const sockaddr*>(&peer), sizeof(peer));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

/// Four bytes of an address, the length of the list to be removed, that list, the list to be added.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  const std::uint32_t low = input.Word();
  const std::uint32_t address = low | std::uint32_t{input.Word()} << 16;
  const std::string removed = fuzz::TextOf(input.Take(input.Byte()));
  const std::string added = fuzz::TextOf(input.Rest());

  CAddressChecker checker(added);
  const std::string list = checker.ToString();
  fuzz::Require(checker.IsEmpty() == list.empty(), "an empty list is an empty text");
  const bool isAllowed = Allows(checker, address);

  CAddressChecker again(list);
  fuzz::Require(again.ToString() == list, "a list survives being stored and loaded");
  fuzz::Require(Allows(again, address) == isAllowed, "a list that was stored allows the same");

  checker.RemoveAddresses(removed);
  fuzz::Require(Allows(checker, address) == isAllowed, "what was allowed stays so, and nothing comes to it");
  sockaddr_storage stranger{};
  stranger.ss_family = AF_INET6;
  const auto* const peer = reinterpret_cast<const sockaddr*>(&stranger);
  fuzz::Require(!checker.IsAllowed(peer, sizeof(stranger)) && !checker.IsAllowed(peer, 1), "no stranger is let in");
  return 0;
}
