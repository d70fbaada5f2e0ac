// Writes the first inputs of the fuzz targets, made by the product's own encoders: make_seeds FOLDER.
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "foundation/perf_logger.h"
#include "fuzz/association_input.h"
#include "fuzz/mount_agent_input.h"
#include "fuzz/seed_writer.h"
#include "management/dcerpc/association.h"
#include "management/dcerpc/invoker_stubs.h"
#include "management/dcerpc/wide_text.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "remotefs/remotevfs/buffer.h"
#include "unit/management/dcerpc/fake_security.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"

namespace {

using namespace dcerpc;
namespace mode = fuzz::association_mode;
namespace mark = fuzz::pdu_mark;

constexpr auto Write = fuzz::WriteSeed;

void WriteText(const std::string& target, const std::string& name, const std::string& text) {
  Write(target, name, {text.begin(), text.end()});
}

bytes_t operator+(bytes_t left, const bytes_t& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

SPduHeader Header(pdu_type_t type, std::uint32_t callId = 1, std::uint8_t flags = pdu_flag::First | pdu_flag::Last) {
  SPduHeader header;
  header.type = type;
  header.callId = callId;
  header.flags = flags;
  return header;
}

SToken Token(std::string_view text, auth_level_t level = auth_level_t::Privacy, auth_type_t type = auth_type_t::Ntlm) {
  return {{type, level, 0, 77}, test::Bytes(text)};
}

SBind InvokerBind() {
  return {MaxFragmentSize, MaxFragmentSize, 0, {{0, InvokerInterfaceId(), {NdrSyntax}}}};
}

bytes_t Request(invoker_op_t operation, const bytes_t& stub, std::uint32_t callId = 2,
                std::uint8_t flags = pdu_flag::First | pdu_flag::Last, bool hasObject = false) {
  SRequest request{static_cast<std::uint32_t>(stub.size()), 0, static_cast<std::uint16_t>(operation), std::nullopt, {}};
  if (hasObject)
    request.object = InvokerInterfaceId().uuid;
  bytes_t pdu = EncodeRequestHead(Header(pdu_type_t::Request, callId, flags), request) + stub;
  SetLengths(pdu, 0);
  return pdu;
}

SInvokeRequest Command() {
  return {u"GetShareConfig",
          u"<InputArguments><uid value=\"{d1c2c07a-d989-48cc-a423-b73ecd518d40}\"/></InputArguments>",
          {1, 2, 3, 4, 5}};
}

bytes_t Listed(const bytes_t& pdu, std::uint8_t marks = mark::Lengths) {
  return bytes_t{marks, static_cast<std::uint8_t>(pdu.size()), static_cast<std::uint8_t>(pdu.size() >> 8)} + pdu;
}

/// PDUs that make a whole conversation, as a stream and as a list.
void WriteConversation(const std::string& name, std::uint8_t modes, const std::vector<bytes_t>& pdus) {
  bytes_t stream{static_cast<std::uint8_t>(modes | mode::Stream), 0};
  bytes_t list{modes, 0};
  for (const bytes_t& pdu : pdus) {
    stream = stream + pdu;
    list = list + Listed(pdu);
  }
  Write("association", name + "-stream", stream);
  Write("association", name + "-list", list);
}

void WriteAssociations() {
  const bytes_t command = EncodeDoRpcRequest(Command());
  const bytes_t bind = EncodeBind(Header(pdu_type_t::Bind), InvokerBind(), std::nullopt);
  WriteConversation("calls", 0,
                    {bind, Request(invoker_op_t::DoRpc, command),
                     Request(invoker_op_t::DoRpcWithBinary, EncodeDoRpcWithBinaryRequest(Command()), 3),
                     Request(invoker_op_t::InvokerTestConnection, EncodeTestConnectionRequest(u"hello"), 4)});
  WriteConversation("known-caller", mode::KnownCaller,
                    {bind, Request(invoker_op_t::DoRpc, command),
                     Request(invoker_op_t::DoRpc, command, 3, pdu_flag::First | pdu_flag::Last, true)});
  const bytes_t front(command.begin(), command.begin() + 40);
  const bytes_t back(command.begin() + 40, command.end());
  const std::vector<bytes_t> fragments{bind, Request(invoker_op_t::DoRpc, front, 2, pdu_flag::First),
                                       Request(invoker_op_t::DoRpc, back, 2, pdu_flag::Last)};
  WriteConversation("fragments", mode::KnownCaller, fragments);
  WriteConversation("small-budget", mode::SmallBudget,
                    {bind, Request(invoker_op_t::DoRpc, bytes_t(1200), 2, pdu_flag::First),
                     Request(invoker_op_t::DoRpc, bytes_t(1200), 2, pdu_flag::Last)});
  WriteConversation("orphaned", 0,
                    {bind, Request(invoker_op_t::DoRpc, front, 2, pdu_flag::First),
                     EncodeEmpty(Header(pdu_type_t::Cancel, 2)), EncodeEmpty(Header(pdu_type_t::Orphaned, 2))});
  SBind several = InvokerBind();
  several.contexts.push_back({1, NdrSyntax, {InvokerInterfaceId(), NdrSyntax}});
  several.contexts.push_back({2, InvokerInterfaceId(), {{{{0x6c, 0xb7, 0x1c, 0x2c, 0x98, 0x12, 0x45, 0x40, 3}}, 1}}});
  WriteConversation("contexts", 0,
                    {bind, EncodeBind(Header(pdu_type_t::AlterContext, 3), several, std::nullopt),
                     Request(invoker_op_t::DoRpc, command)});
  for (const bool headerSigned : {false, true}) {
    for (std::uint8_t number = 0; number < 4; ++number) {
      const auth_level_t level = fuzz::LevelOf(number);
      const std::uint8_t sign = headerSigned ? pdu_flag::SupportHeaderSign : std::uint8_t{0};
      const std::uint8_t flags = sign | pdu_flag::First | pdu_flag::Last;
      const bytes_t handshake =
          Listed(EncodeBind(Header(pdu_type_t::Bind, 1, flags), InvokerBind(), Token("hello", level)), 0) +
          Listed(EncodeAuth3(Header(pdu_type_t::Auth3), Token("proof", level)), 0);
      Write("association", "level-" + std::to_string(number) + (headerSigned ? "-signed" : ""),
            bytes_t{mode::Security, number} + handshake +
                Listed(Request(invoker_op_t::DoRpc, command), mark::Lengths | mark::Protect) +
                Listed(Request(invoker_op_t::DoRpc, command, 3, pdu_flag::First | pdu_flag::Last, true),
                       mark::Lengths | mark::Protect) +
                Listed(Request(invoker_op_t::DoRpc, command, 4)));
    }
  }
  Write("association", "alter-token",
        bytes_t{mode::Security, 0} + Listed(EncodeBind(Header(pdu_type_t::Bind), InvokerBind(), Token("hello")), 0) +
            Listed(EncodeBind(Header(pdu_type_t::AlterContext), InvokerBind(), Token("proof with more")), 0) +
            Listed(Request(invoker_op_t::DoRpc, command), mark::Lengths | mark::Protect));
  Write("association", "refused",
        bytes_t{mode::Security, 0} + Listed(EncodeBind(Header(pdu_type_t::Bind), InvokerBind(), Token("nonsense")), 0));
}

void WritePdus() {
  const auto write = [](const std::string& name, const bytes_t& bytes) { Write("pdu", name, bytes_t{0} + bytes); };
  write("bind", EncodeBind(Header(pdu_type_t::Bind), InvokerBind(), std::nullopt));
  write("bind-token", EncodeBind(Header(pdu_type_t::Bind), InvokerBind(), Token("hello")));
  write("bind-ack", EncodeBindAck(Header(pdu_type_t::BindAck),
                                  {MaxFragmentSize, MaxFragmentSize, 1, "6161", {{0, 0, NdrSyntax}, {2, 1, {}}}},
                                  Token("challenge")));
  write("bind-nak", EncodeBindNak(Header(pdu_type_t::BindNak), {SBindNak::VersionNotSupported, {{5, 0}}}));
  write("auth3", EncodeAuth3(Header(pdu_type_t::Auth3), Token("proof")));
  write("fault", EncodeFault(Header(pdu_type_t::Fault), {0, 0, fault::BadStubData}));
  write("cancel", EncodeEmpty(Header(pdu_type_t::Cancel)));
  write("request", Request(invoker_op_t::DoRpc, EncodeDoRpcRequest(Command())));
  write("request-object", Request(invoker_op_t::DoRpc, EncodeDoRpcRequest(Command()), 2,
                                  pdu_flag::First | pdu_flag::Last | pdu_flag::ObjectUuid, true));
  // A NegTokenInit with two mechanisms and a token; the framed mark of an AP-REQ.
  Write("pdu", "spnego",
        bytes_t{1} + bytes_t{0x60, 0x2a, 0x06, 0x06, 0x2b, 0x06, 0x01, 0x05, 0x05, 0x02, 0xa0, 0x20, 0x30, 0x1e, 0xa0,
                             0x15, 0x30, 0x13, 0x06, 0x05, 0x2b, 0x05, 0x01, 0x05, 0x02, 0x06, 0x0a, 0x2b, 0x06, 0x01,
                             0x04, 0x01, 0x82, 0x37, 0x02, 0x02, 0x0a, 0xa2, 0x05, 0x04, 0x03, 0x61, 0x62, 0x63});
  Write("pdu", "ap-req",
        bytes_t{1} + bytes_t{0x60, 0x11, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x02, 0x01, 0x00,
                             0x6e, 0x02, 0x30, 0x00});
}

/// What a server answers to a bind and to a test of the connection, and then to two commands.
void WriteServers() {
  const auto response = [](std::uint32_t callId, const bytes_t& stub, std::uint8_t flags) {
    bytes_t pdu = EncodeResponseHead(Header(pdu_type_t::Response, callId, flags), {}) + stub;
    SetLengths(pdu, 0);
    return pdu;
  };
  constexpr std::uint8_t Whole = pdu_flag::First | pdu_flag::Last;
  const bytes_t start =
      EncodeBindAck(Header(pdu_type_t::BindAck), {MaxFragmentSize, MaxFragmentSize, 1, "6161", {{0, 0, NdrSyntax}}},
                    std::nullopt) +
      response(2, EncodeTestConnectionResponse({true, std::nullopt}), Whole);
  const bytes_t output = EncodeDoRpcResponse({"<OutputArguments/>", std::nullopt, {}});
  const bytes_t front(output.begin(), output.begin() + 20);
  const bytes_t back(output.begin() + 20, output.end());
  Write("client", "answers",
        start + response(3, output, Whole) + response(4, front, pdu_flag::First) + response(4, back, pdu_flag::Last));
  Write("client", "failure",
        start + response(3, EncodeDoRpcResponse({std::nullopt, std::nullopt, {false, "No."}}), Whole));
  Write("client", "fault", start + EncodeFault(Header(pdu_type_t::Fault, 3), {0, 0, fault::AccessDenied}));
  Write("client", "nak", EncodeBindNak(Header(pdu_type_t::BindNak), {SBindNak::AuthenticationRefused, {{5, 0}}}));
}

void WriteStubs() {
  const auto write = [](const std::string& name, std::uint8_t selector, const bytes_t& stub) {
    Write("stubs", name, bytes_t{selector} + stub);
  };
  write("request", 0, EncodeDoRpcRequest(Command()));
  write("binary-request", 1, EncodeDoRpcWithBinaryRequest(Command()));
  write("test-request", 2, EncodeTestConnectionRequest(u"hello"));
  write("response", 3, EncodeDoRpcResponse({"<OutputArguments/>", std::nullopt, {}}));
  write("failure", 3,
        EncodeDoRpcResponse({std::nullopt, std::nullopt, {false, "It failed.\nFor a reason: \xc3\xa9."}}));
  write("binary-response", 4, EncodeDoRpcWithBinaryResponse({"<a/>", bytes_t{1, 2, 3}, {}}));
  write("test-response", 5, EncodeTestConnectionResponse({true, std::nullopt}));
  // The same text as a caller with the other order of integers sends it; the selector's high bit tells it.
  write("big-endian", 0x80 + 4, {0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 3, 0, 'a', 0, 'b', 0, 0,
                                 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 2,   0, 'c', 0, 0});
}

bytes_t Units(const std::string& text) {
  bytes_t units;
  for (const char16_t unit : WideText(text)) {
    units.push_back(static_cast<std::uint8_t>(unit));
    units.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  return units;
}

void WriteEnvelopes() {
  const std::string input =
      "<InputArguments><nfsFolderPath value=\"/datastore\"/><uid value=\"{d1c2c07a-d989-48cc-a423-b73ecd518d40}\"/>"
      "<totalSize value=\"1099511627776\"/><nfsTcpPort value=\"-1\"/><ADDRESS value='10.0.0.0/8;10.1.1.1'/>"
      "<version value=\"1.0.0.5\"/></InputArguments>";
  const auto write = [](const std::string& name, char kind, const std::string& text) {
    WriteText("envelope", name, kind + text);
  };
  write("arguments", 0, "CreateShare\n" + input);
  write("question", 0, "IInvokeDispatcher.IsSerialInvokerEnabled\n<InputArguments/>");
  write(
      "entities", 0,
      "A\n<InputArguments><a value=\"&lt;&amp;&gt;&quot;&apos;&#x41;&#233;\"/><value value='a\"b'/></InputArguments>");
  write("markup", 0,
        "A\n<?xml version=\"1.0\" encoding=\"UTF-8\"?><!DOCTYPE a><!-- b --><InputArguments><![CDATA[c]]>text"
        "<a><b/></a></InputArguments>");
  write("document", 2, "\xef\xbb\xbf" + input);
  Write("envelope", "units", bytes_t{1} + Units("Command") + bytes_t{'\n'} + Units(input));
}

void WriteAddresses() {
  const std::string address{"\x0a\x01\x02\x03", 4};
  const auto write = [&](const std::string& name, const std::string& removed, const std::string& added) {
    WriteText("addresses", name, address + static_cast<char>(removed.size()) + removed + added);
  };
  write("one", "", "10.1.2.3");
  write("networks", "10.0.0.0/8", "10.0.0.0/8;10.1.0.0/16;192.168.1.0/24;0.0.0.0/0");
  write("odd", "1", ";;1;10.1/32;0x0a010203/33;::1/64;10.1.2.3/4294967295;host;");
}

bytes_t Record(std::uint8_t number, const auto& record) {
  constexpr std::size_t MarkSize = 4;
  CXDRWriter writer;
  record.Encode(writer);
  io::byte_buffer_t out;
  writer.Finish(out, true);
  out.erase(out.begin(), out.begin() + MarkSize);
  return bytes_t{number} + bytes_t(out.begin(), out.end());
}

/// Numbers are those of the table in the target.
void WriteRecords() {
  const nfs_fh3 handle = HandleFromFid(5);
  const diropargs3 place{handle, "name.vmdk"};
  const fattr3 attributes{NF3DIR, 0755, 2, 0, 0, 4096, 4096, {}, 1, 5, {1, 2}, {3, 4}, {5, 6}};
  const wcc_data wcc{wcc_attr{4096, {3, 4}, {5, 6}}, attributes};
  const sattr3 changes{true, 0644, true, 1, true, 1, true, 100, SET_TO_CLIENT_TIME, {1, 2}, SET_TO_SERVER_TIME, {}};
  const bytes_t data{'d', 'a', 't', 'a'};
  // A call and a reply with credentials and verifiers, as words.
  const auto call = [](char procedure) {
    std::string words(
        "\0\0\0\1\0\0\0\0\0\0\0\2\0\1\x86\xa3\0\0\0\3\0\0\0\1"
        "\0\0\0\1\0\0\0\4abcd\0\0\0\0\0\0\0\0",
        44);
    words[23] = procedure;
    return test::Bytes(words);
  };
  Write("records", "call", bytes_t{0} + call(1));
  const bytes_t lookup = Record(7, LOOKUP3args{place});
  Write("records", "foreseen", bytes_t{34} + call(3) + bytes_t(lookup.begin() + 1, lookup.end()));
  Write("records", "portmap-reply",
        bytes_t{1} + test::Bytes(std::string("\x80\0\0\x1c\0\0\0\1\0\0\0\1\0\0\0\0\0\0\0\0"
                                             "\0\0\0\0\0\0\0\0\0\0\x08\1",
                                             32)));
  Write("records", "portmap", Record(2, PortmapRecord{100003, 3, PortmapProtocolTcp, 2049}));
  Write("records", "mount", Record(3, CMountResult{MNT3_OK, handle}));
  Write("records", "handle", Record(4, handle));
  Write("records", "getattr", Record(5, GETATTR3args{handle}));
  Write("records", "setattr", Record(6, SETATTR3args{handle, changes, nfstime3{1, 2}}));
  Write("records", "lookup", Record(7, LOOKUP3args{place}));
  Write("records", "read", Record(9, READ3args{handle, 65536, 4096}));
  Write("records", "write", Record(10, WRITE3args{handle, 0, 4, FILE_SYNC, data}));
  Write("records", "write-split", bytes_t{33} + Record(28, WRITE3args{handle, 0, 4, FILE_SYNC, data}));
  Write("records", "create", Record(11, CREATE3args{place, GUARDED, changes, {}}));
  Write("records", "create-exclusive", Record(11, CREATE3args{place, EXCLUSIVE, {}, {1, 2, 3}}));
  Write("records", "rename", Record(15, RENAME3args{place, place}));
  Write("records", "readdirplus", Record(16, READDIRPLUS3args{handle, 7, {1, 2, 3}, 512, 4096}));
  Write("records", "getattr-result", Record(19, GETATTR3res{0, attributes}));
  Write("records", "setattr-result", Record(20, SETATTR3res{0, wcc}));
  Write("records", "lookup-result", Record(21, LOOKUP3res{0, handle, attributes, attributes}));
  Write("records", "read-result",
        Record(23, READ3res{0, attributes, 4, true, boost::make_shared<io::byte_buffer_t>(4, std::uint8_t{7})}));
  Write("records", "create-result", Record(25, CREATE3res{0, handle, attributes, wcc}));
  Write(
      "records", "listing",
      Record(30, READDIRPLUS3res{0, attributes, {1}, {{5, "name", 1, attributes, handle}, {6, "b", 2, {}, {}}}, true}));
  Write("records", "failure", Record(30, READDIRPLUS3res{2, std::nullopt, {}, {}, false}));
}

void WritePerfLog() {
  namespace event = perf::event;
  const std::filesystem::path path = fuzz::SeedFolder() / "perf_log" / "service";
  std::filesystem::remove(path);
  perf::CPerfLogger log(path.string(), 4096);
  const auto write = [&log](std::uint32_t type, const auto& record) { log.WriteEvent(type, sizeof(record), &record); };
  const perf::CPerfEventArg remote(std::string_view("remote: 127.0.0.1:111"));
  log.WriteEvent(event::SocketConnect, {&remote});
  write(event::SocketSend, perf::socket_transfer_t{60, 40000, 1});
  write(event::ReadBegin, perf::io_begin_t{7, 65536, 4096});
  write(event::ReadEnd, perf::io_end_t{7, 65536, 1});
  write(event::WriteBegin, perf::io_begin_t{7, 0, 512});
  write(event::WriteEnd, perf::io_end_t{7, 0, 0});
  write(event::ThreadBusy, perf::thread_busy_t{1000000000, 250});
  write(event::SocketTotals, perf::socket_totals_t{12, 3456});
  log.WriteEvent(4000, {&remote});
}

bytes_t AgentNumber(std::uint32_t number) {
  remotevfs::Buffer buffer;
  buffer.AppendU32(number);
  return {buffer.Bytes().begin(), buffer.Bytes().end()};
}

bytes_t AgentSize(std::uint64_t size) {
  remotevfs::Buffer buffer;
  buffer.AppendU64(size);
  return {buffer.Bytes().begin(), buffer.Bytes().end()};
}

bytes_t AgentRecord(std::string_view name) {
  remotevfs::Buffer buffer;
  buffer.AppendU32(0);
  buffer.AppendU64(5);
  buffer.AppendString(name);
  return {buffer.Bytes().begin(), buffer.Bytes().end()};
}

bytes_t AgentListing(const std::vector<std::string_view>& names) {
  bytes_t listing = AgentNumber(static_cast<std::uint32_t>(names.size()));
  for (const std::string_view name : names)
    listing = std::move(listing) + AgentRecord(name);
  return listing;
}

bytes_t AgentChunk(const bytes_t& bytes, std::uint8_t marks = fuzz::chunk_mark::Framed) {
  return bytes_t{marks, static_cast<std::uint8_t>(bytes.size()), static_cast<std::uint8_t>(bytes.size() >> 8)} + bytes;
}

void WriteMountAgents() {
  namespace chunk = fuzz::chunk_mark;
  const bytes_t listing{0};
  const bytes_t session{1};
  const std::string target = "mount_agent";
  Write(target, "listing", listing + AgentListing({"disk.img", "notes"}));
  Write(target, "listing_of_bad_names",
        listing + AgentListing({"..", "a/b", std::string_view("a\0b", 3), "\xFF", "", "good"}));
  Write(target, "listing_that_announces_more", listing + AgentNumber(0xFFFFFFFF) + AgentRecord("one"));

  const bytes_t round = AgentChunk(AgentListing({"disk.img", "notes"})) + AgentChunk(AgentListing({"inner"})) +
                        AgentChunk(AgentNumber(0)) + AgentChunk(AgentSize(5)) + AgentChunk({'h', 'e', 'l', 'l', 'o'}) +
                        AgentChunk(AgentNumber(100));
  Write(target, "session", session + round + round + round);
  Write(target, "session_that_ends",
        session + round + AgentChunk(AgentListing({"disk.img"}), chunk::Framed | chunk::HangUp));
  Write(target, "reply_cut",
        session + AgentChunk(AgentListing({"disk.img"}), chunk::Framed | chunk::Announces | chunk::HangUp));
  Write(
      target, "reply_in_pieces",
      session + AgentChunk(AgentNumber(21) + AgentNumber(0), 0) + AgentChunk(AgentRecord("x"), chunk::Unasked) + round);
  Write(target, "answers_unasked", session + round + AgentChunk(AgentSize(7), chunk::Framed | chunk::Unasked) + round);
  Write(target, "read_too_long",
        session + AgentChunk(AgentListing({})) + AgentChunk(AgentListing({})) + AgentChunk(AgentNumber(0xFFFFFFFF)) +
            AgentChunk(AgentSize(std::uint64_t{1} << 63)) + AgentChunk(bytes_t(3000, 'x')) +
            AgentChunk(AgentNumber(0xFFFFFFFB)));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds FOLDER\n");
    return 2;
  }
  fuzz::SeedFolder() = argv[1];
  WriteAssociations();
  WritePdus();
  WriteServers();
  WriteStubs();
  WriteEnvelopes();
  WriteAddresses();
  WriteRecords();
  fuzz::WriteServiceSeeds();
  WriteMountAgents();
  WritePerfLog();
  return 0;
}
