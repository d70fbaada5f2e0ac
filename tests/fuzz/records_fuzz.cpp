// The RPC header, the arguments and the results of the three programs, and what a foreign portmapper answers.
#include <boost/make_shared.hpp>
#include <cstring>
#include <span>

#include "fuzz/fuzz_input.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "programs/nfs_rpc_interface.h"
#include "rpc/rpc_message.h"
#include "support/kernel_pipe_of.h"
#include "support/memory_rpc_stream.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"

namespace {

CXDRReader ReaderOf(fuzz::bytes_view_t bytes) {
  return CXDRReader(boost::make_shared<io::byte_buffer_t>(bytes.begin(), bytes.end()));
}

fuzz::bytes_t BytesOf(const auto& record) {
  constexpr std::size_t MarkSize = 4;
  CXDRWriter writer;
  record.Encode(writer);
  io::byte_buffer_t out;
  writer.Finish(out, true);
  return {out.begin() + MarkSize, out.end()};
}

/// What was decoded and encoded stays the same from then on; the first time a text may lose what follows its first zero
/// byte, and a READ what it announced and did not bring.
template <typename Record>
void Check(fuzz::bytes_view_t bytes) {
  fuzz::Try([&] {
    CXDRReader reader = ReaderOf(bytes);
    Record record;
    record.Decode(reader);
    const fuzz::bytes_t encoded = BytesOf(record);
    CXDRReader again = ReaderOf(encoded);
    Record copy;
    fuzz::Require(fuzz::Try([&] { copy.Decode(again); }) && again.Remaining() == 0, "what is encoded can be decoded");
    fuzz::Require(BytesOf(copy) == encoded, "a record survives encoding and decoding");
  });
}

struct FidCheck {
  void Decode(CXDRReader& reader) {
    nfs_fh3 handle;
    handle.Decode(reader);
    fid = FidFromHandle(handle);
  }
  void Encode(CXDRWriter& writer) const { HandleFromFid(fid).Encode(writer); }

  std::uint64_t fid = 0;
};

void CheckHeader(fuzz::bytes_view_t bytes) {
  fuzz::Try([&] {
    CXDRReader reader = ReaderOf(bytes);
    RpcCallHeader header;
    ReadCallHeader(reader, header);
    constexpr std::uint32_t NfsProgram = 100003;
    fuzz::Require(CheckCallHeader(header, NfsProgram, 3) ==
                      (header.program == NfsProgram && header.programVersion == 3 && header.rpcVersion == 2),
                  "a header fits when its three numbers do");
  });
}

void AskPortmapper(fuzz::bytes_view_t bytes) {
  fuzz::Try([&] {
    test::CMemoryRpcStream stream;
    stream.toReceive.assign(bytes.begin(), bytes.end());
    CXDRWriter request;
    request.PortmapCall(3);
    PortmapRecord{}.Encode(request);
    CXDRReader reader;
    CallForeignPortmap(stream, request, reader, 1);
    reader.UInt();
  });
}

/// A WRITE whose data is still in the kernel, from wherever on, is the WRITE that it would be in memory.
void CheckSplitWrite(fuzz::bytes_view_t bytes) {
  fuzz::CInput input(bytes.data(), bytes.size());
  const std::size_t first = input.Byte();
  const fuzz::bytes_view_t record = input.Rest();
  if (first > record.size())
    return;
  CXDRReader inMemory = ReaderOf(record);
  WRITE3args expected;
  const bool isSound = fuzz::Try([&] { expected.Decode(inMemory); });
  CXDRReader split = test::SplitReaderOf(record, first);
  WRITE3args args;
  fuzz::Require(fuzz::Try([&] { args.Decode(split); }) == isSound, "what is in the kernel decodes alike");
  if (!isSound)
    return;
  fuzz::Require(args.DataSize() == expected.data.size(), "what is in the kernel is counted");
  args.data = args.GatherData();
  fuzz::Require(args == expected, "what was in the kernel is the same");
}

/// What is foreseen of a call is what the call itself will ask for.
void CheckForesight(fuzz::bytes_view_t bytes) {
  io::byte_buffer_t record(bytes.begin(), bytes.end());
  io::byte_buffer_t* const records[] = {&record};
  SListingPlace place;
  std::size_t count = 0;
  fuzz::Try([&] { count = PlacesOfLookups(records, std::span(&place, 1)); });
  if (count == 0)
    return;
  CXDRReader reader = ReaderOf(bytes);
  RpcCallHeader header;
  LOOKUP3args args;
  ReadCallHeader(reader, header);
  args.Decode(reader);
  fuzz::Require(header.procedure == 3, "a LOOKUP alone is foreseen");
  fuzz::Require(place.parentFid == FidFromHandle(args.what.dir), "the folder is foreseen");
  fuzz::Require(place.name == args.what.name, "the name is foreseen");
}

using check_t = void (*)(fuzz::bytes_view_t);

/// An input's first byte picks one. New ones come to the end, so that the corpus keeps its meaning.
constexpr check_t Checks[] = {
    CheckHeader,
    AskPortmapper,
    Check<PortmapRecord>,
    Check<CMountResult>,
    Check<FidCheck>,
    Check<GETATTR3args>,
    Check<SETATTR3args>,
    Check<LOOKUP3args>,
    Check<ACCESS3args>,
    Check<READ3args>,
    Check<WRITE3args>,
    Check<CREATE3args>,
    Check<MKDIR3args>,
    Check<REMOVE3args>,
    Check<RMDIR3args>,
    Check<RENAME3args>,
    Check<READDIRPLUS3args>,
    Check<FSSTAT3args>,
    Check<FSINFO3args>,
    Check<GETATTR3res>,
    Check<SETATTR3res>,
    Check<LOOKUP3res>,
    Check<ACCESS3res>,
    Check<READ3res>,
    Check<WRITE3res>,
    Check<CREATE3res>,
    Check<MKDIR3res>,
    Check<REMOVE3res>,
    Check<RMDIR3res>,
    Check<RENAME3res>,
    Check<READDIRPLUS3res>,
    Check<FSSTAT3res>,
    Check<FSINFO3res>,
    CheckSplitWrite,
    CheckForesight,
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::CInput input(data, size);
  const std::uint8_t number = input.Byte();
  Checks[number % std::size(Checks)](input.Rest());
  return 0;
}
