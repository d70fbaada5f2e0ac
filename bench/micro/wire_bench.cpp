// What the RPC layer and the records cost on the way of the most frequent calls.
#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>

#include "rpc/rpc_message.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"

namespace {

nfs_fh3 SomeHandle() {
  return HandleFromFid(0x0123456789ABCDEFULL);
}

/// A GETATTR call as a client sends it, without its mark.
boost::shared_ptr<io::byte_buffer_t> GetAttrCall() {
  CXDRWriter writer;
  for (const std::uint32_t word : {7U, 0U, 2U, 100003U, 3U, 1U, 1U})
    writer.UInt(word);
  const std::uint8_t credential[24] = {};
  writer.VarLenData(credential, sizeof credential);
  writer.UInt(0);
  writer.UInt(0);
  GETATTR3args arguments;
  arguments.object = SomeHandle();
  arguments.Encode(writer);
  io::byte_buffer_t record;
  writer.Finish(record, true);
  return boost::make_shared<io::byte_buffer_t>(record.begin() + 4, record.end());
}

void DecodeGetAttrCall(benchmark::State& state) {
  const auto record = GetAttrCall();
  for (auto _ : state) {
    CXDRReader reader(record);
    RpcCallHeader header;
    ReadCallHeader(reader, header);
    GETATTR3args arguments;
    arguments.Decode(reader);
    benchmark::DoNotOptimize(arguments);
  }
}
BENCHMARK(DecodeGetAttrCall);

void EncodeGetAttrReply(benchmark::State& state) {
  GETATTR3res result;
  for (auto _ : state) {
    CXDRWriter writer;
    writer.UInt(7);
    writer.AcceptedReply();
    result.Encode(writer);
    benchmark::DoNotOptimize(writer.TakeSegments(true));
  }
}
BENCHMARK(EncodeGetAttrReply);

void EncodeReadReply(benchmark::State& state) {
  const auto data = boost::make_shared<io::byte_buffer_t>(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    CXDRWriter writer;
    writer.UInt(7);
    writer.AcceptedReply();
    for (const std::uint32_t word : {0U, 0U, static_cast<std::uint32_t>(state.range(0)), 0U})
      writer.UInt(word);
    writer.SharedVarLenData(data, data->size());
    benchmark::DoNotOptimize(writer.TakeSegments(true));
  }
}
BENCHMARK(EncodeReadReply)->Arg(4096)->Arg(65536);

}  // namespace
