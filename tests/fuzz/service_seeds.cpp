// The first inputs of the targets that run programs, commands, agents and what is stored.
#include <elf.h>

#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "fuzz/agent_input.h"
#include "fuzz/dump_input.h"
#include "fuzz/program_session.h"
#include "fuzz/registry_input.h"
#include "fuzz/seed_writer.h"
#include "fuzz/streams_input.h"

namespace fuzz {
namespace {

seed_t Join(std::initializer_list<seed_t> parts) {
  seed_t joined;
  for (const seed_t& part : parts)
    joined.insert(joined.end(), part.begin(), part.end());
  return joined;
}

seed_t Text(std::string_view text) {
  return {text.begin(), text.end()};
}

seed_t Number(std::uint16_t number) {
  return {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8)};
}

/// A byte of length and the text.
seed_t Counted(std::string_view text) {
  return Join({{static_cast<std::uint8_t>(text.size())}, Text(text)});
}

// ---- Calls: the procedure, marks, then the fields; handle 0 is the share, names are numbers of the target's list.

const seed_t Lookup{3, 0, 0, 0};        // "file" becomes handle 1.
const seed_t LookupFolder{3, 0, 0, 1};  // And "folder" another one.
const seed_t WriteData{7, 0, 1, 4, 0, 4, 0, 2, 4, 'd', 'a', 't', 'a'};
const seed_t ReadData{6, 0, 1, 0, 0, 0, 1};
const seed_t Create{8, 0, 0, 3, 0, 0};   // "a"
const seed_t MakeFolder{9, 0, 0, 4, 0};  // "b"
const seed_t Rename{14, 0, 0, 3, 3, 4};  // "a" to "b" in the folder that was made.
const seed_t List{17, 0, 0, 0, 0, 16, 0, 16};

seed_t Event(std::uint8_t number, const seed_t& arguments = {}) {
  return Join({{static_cast<std::uint8_t>(call_selector::Event + number), 0}, arguments});
}

/// The second folder's pages, each from where the one before ended.
seed_t Pages() {
  return Join({LookupFolder, {17, 0, 1, 0, 0, 16, 0, 16}, {17, 0, 1, 1, 0, 16, 0, 16}, {17, 0, 1, 2, 0, 16, 0, 16}});
}

/// Every procedure, with handles of the ones before.
seed_t EveryProcedure() {
  seed_t calls = Join({{call_selector::Mount + 1, 0, 11}, Lookup, WriteData, ReadData, Create, MakeFolder});
  for (const int procedure : {0, 5, 10, 11, 15, 16, 20, 21, 30})
    calls = Join({calls, {static_cast<std::uint8_t>(procedure), 0, 1}});
  return Join({calls,
               {1, 0, 1},
               {2, 0, 1, 0x17, 0xb6, 1, 10, 0, 1, 0, 2, 0, 3, 0, 4, 0, 1},
               {4, 0, 1, 63},
               Rename,
               List,
               {18, 0, 0},
               {19, 0, 0},
               {12, 0, 0, 0},
               {13, 0, 0, 4}});
}

seed_t UnderWay() {
  seed_t calls = Lookup;
  for (std::uint8_t i = 0; i < 4; ++i)
    calls = Join({calls,
                  {7, call_mark::UnderWay, 1, i, 0, 4, 0, 2, 4, 'w', 'o', 'r', 'd'},
                  {6, call_mark::UnderWay, 1, i, 0, 8, 0}});
  return Join({calls, {1, 0, 1}, {6, call_mark::BackendAway | call_mark::UnderWay, 1, 0, 0, 1, 0}, ReadData});
}

void WriteCalls(const std::string& target, std::uint8_t mode, const std::string& prefix) {
  const auto write = [&](const std::string& name, const seed_t& calls) {
    WriteSeed(target, prefix + name, Join({{mode}, calls}));
  };
  write("read-write", Join({Lookup, WriteData, ReadData, {1, 0, 1}, {4, 0, 1, 63}}));
  write("tree", Join({Create, MakeFolder, Rename, List, List, {13, 0, 0, 4}, {12, 0, 0, 3}}));
  write("pages", Pages());
  write("procedures", EveryProcedure());
  if ((mode & session_mode::Callbacks) != 0)
    write("under-way", UnderWay());
}

void WritePrograms() {
  WriteCalls("programs", 0, "");
  WriteCalls("programs", session_mode::Callbacks | session_mode::FileThread, "callbacks-");
  const auto write = [](const std::string& name, const seed_t& calls) {
    WriteSeed("programs", name, Join({{0}, calls}));
  };
  write("attributes", Join({Lookup, {2, 0, 1, 0x1f, 0, 1, 10, 0, 1, 0, 2, 0, 3, 0, 4, 0, 0}}));
  write("whole", {18, 0, 0, 19, 0, 0, 0x41, 0, 11, 0x45, 0, 0});
  write("portmap", {0x61, 0, 1, 2, 6, 1, 1, 0x63, 0, 1, 2, 6, 0, 0, 0x64, 0, 0, 0, 0, 0, 0});
  write("faults", {17, 8, 0, 0, 0, 16, 0, 16, 3, 8, 0, 0, 8, 16, 0, 3, 0, 0, 3, 1, 0, 0, 1, 2, 0, 44, 0});
  write("events", Join({Lookup,
                        LookupFolder,
                        Event(1),
                        Event(2, Number(300)),
                        Event(4, {1}),
                        {1, 0, 1},
                        List,
                        Event(5),
                        {3, call_mark::OtherClient, 0, 1},
                        Event(0, {0}),
                        {1, 0, 1}}));
}

void WriteShares() {
  WriteCalls("shares", 0, "");
  WriteCalls("shares", session_mode::Callbacks | session_mode::Stored, "stored-");
  const auto write = [](const std::string& name, const seed_t& calls) {
    WriteSeed("shares", name, Join({{session_mode::Callbacks | session_mode::Stored}, calls}));
  };
  write("restart", Join({Lookup, Create, MakeFolder, Rename, Event(8), {1, 0, 1}, List, WriteData, ReadData}));
  // A link to what is outside, and the ways to it.
  write("links", Join({Event(3, {6, 0}),
                       Event(3, {10, 1}),
                       {3, 0, 0, 16},
                       {6, 0, 1, 0, 0, 0, 1},
                       {8, 0, 0, 16, 0, 0},
                       {12, 0, 0, 16},
                       List}));
  write("others", Join({Lookup,
                        Event(0, {0}),
                        {1, 0, 1},
                        Event(1, Join({{0}, Number(100)})),
                        Lookup,
                        Event(4, {3}),
                        List,
                        Event(6, {0, 3}),
                        {1, 0, 1},
                        Event(12),
                        List}));
  // A backup shows in the folder: its disk is read and written.
  write("mount", Join({Event(13, {1, 1}),
                       LookupFolder,
                       {17, 0, 1, 0, 0, 16, 0, 16},
                       {3, 0, 1, 0xf0, 8},
                       Text("disk.img"),
                       {6, 0, 2, 0, 0, 0, 1},
                       {7, 0, 2, 4, 0, 4, 0, 2, 4, 'd', 'a', 't', 'a'},
                       Event(8),
                       {1, 0, 2},
                       Event(14),
                       {1, 0, 2}}));
}

void WriteStreams() {
  namespace piece = stream_piece;
  const auto cut = [](std::uint8_t kind, const seed_t& bytes) {
    return Join({{kind}, Number(static_cast<std::uint16_t>(bytes.size())), bytes});
  };
  const seed_t record = Text("a record");
  const seed_t mark{0x80, 0, 0, 8};
  WriteSeed("streams", "records",
            Join({cut(piece::Record, record), cut(piece::Record, Text("abcd")), cut(piece::Record, record)}));
  WriteSeed("streams", "pieces",
            Join({cut(piece::Raw, {0x80}), cut(piece::Raw, {0, 0}), cut(piece::Raw, {8, 'a', ' '}),
                  cut(piece::Raw, Text("record")), cut(piece::Record, record)}));
  WriteSeed(
      "streams", "large",
      Join({{piece::Large}, Number(6000), {'x'}, cut(piece::Record, record), {piece::Large}, Number(4300), {'y'}}));
  WriteSeed("streams", "not-the-last",
            Join({cut(piece::Record, record), cut(piece::Raw, {0, 0, 0, 8}), cut(piece::Raw, record)}));
  WriteSeed("streams", "announced",
            Join({cut(piece::Record, record), {piece::Announced}, Number(60000), cut(piece::Raw, record)}));
  WriteSeed("streams", "poison",
            Join({cut(piece::Record, record), cut(piece::Record, {0xee, 0, 0, 0}), cut(piece::Record, record)}));
  WriteSeed("streams", "empty", Join({cut(piece::Record, {}), cut(piece::Raw, mark)}));
}

void WriteAgents() {
  using namespace agent_mode;
  const seed_t sizes = Join({Number(10000), Number(5000)});
  const seed_t open{1, 0};  // "disk" becomes handle 1, the next one 2.
  const seed_t openOther{1, 1};
  const auto write = [](std::uint8_t handle, std::uint16_t place, std::uint16_t length) {
    return Join({{3, handle}, Number(place), Number(length), {'w'}});
  };
  const auto read = [](std::uint8_t handle, std::uint16_t place, std::uint16_t thirds) {
    return Join({{2, handle}, Number(place), Number(thirds)});
  };
  const seed_t session = Join({{0, 0},
                               open,
                               read(1, 0, 2000),
                               write(1, 800, 5000),
                               read(1, 0, 4000),
                               {4, 1},
                               write(1, 1900, 3000),
                               read(1, 0, 6000),
                               {agent_request::Reopen},
                               open,
                               read(1, 0, 6000),
                               {4, 1},
                               read(0, 0, 9)});
  WriteSeed("agent", "overlay", Join({{0}, sizes, session}));
  WriteSeed("agent", "source", Join({{ToSource}, sizes, session}));
  WriteSeed("agent", "read-only", Join({{ReadOnly}, sizes, session}));
  WriteSeed("agent", "raw",
            Join({{0},
                  sizes,
                  {agent_request::Raw},
                  Counted(std::string("\0\0\0\0\0\0\0\0", 8)),
                  {agent_request::Raw, 3, 9, 0, 0}}));
  WriteSeed("agent", "sound-overlay",
            Join({{DamagedOverlay}, sizes, {0}, Number(0), openOther, read(1, 0, 4000), write(1, 3000, 100)}));
  // The size that the header tells, with its check sum right.
  WriteSeed("agent", "long-overlay",
            Join({{DamagedOverlay | MendSums},
                  sizes,
                  {1},
                  Number(40),
                  Counted(std::string("\0\0\0\0\0\1\0\0", 8)),
                  Number(0),
                  openOther,
                  read(1, 0, 4000),
                  write(1, 50000, 100),
                  {agent_request::Reopen}}));
  WriteSeed("agent", "damaged-map",
            Join({{DamagedOverlay | MendSums},
                  sizes,
                  {2},
                  Number(4096 + 16),
                  Counted("\xff\xff"),
                  Number(8),
                  Counted("\2"),
                  Number(600),
                  openOther,
                  read(1, 0, 4000)}));
}

/// The head of an image with a note that tells its build.
seed_t Image() {
  constexpr std::size_t NotesAt = 0x100;
  seed_t bytes(NotesAt, 0);
  Elf64_Ehdr head{};
  std::memcpy(head.e_ident, ELFMAG, SELFMAG);
  head.e_phoff = sizeof head;
  head.e_phentsize = sizeof(Elf64_Phdr);
  head.e_phnum = 2;
  Elf64_Phdr segments[2]{};
  segments[0].p_type = PT_LOAD;
  segments[1].p_type = PT_NOTE;
  segments[1].p_vaddr = NotesAt;
  const Elf64_Nhdr note{4, 8, NT_GNU_BUILD_ID};
  segments[1].p_memsz = sizeof note + 12;
  std::memcpy(bytes.data(), &head, sizeof head);
  std::memcpy(bytes.data() + sizeof head, segments, sizeof segments);
  const auto* const noteBytes = reinterpret_cast<const std::uint8_t*>(&note);
  bytes.insert(bytes.end(), noteBytes, noteBytes + sizeof note);
  return Join({bytes, Text(std::string("GNU\0", 4)), Text("12345678")});
}

void WriteDumps() {
  using namespace dump_mode;
  const seed_t crash = Join({{11, 1}, Number(0x10), Number(0x13), Number(200)});
  const seed_t threads =
      Join({Counted("main\n"), Number(0x13), Number(0x11), Counted("worker\n"), Number(0x23), Number(0x11),
            Counted("waiter\n"), Counted("202 0x7f 0x80 0x1 0x0 0x0 0x14000 0x11000\n")});
  const seed_t image = Image();
  const seed_t memory = Join(
      {{2, 0}, Number(static_cast<std::uint16_t>(image.size())), image, {3}, Number(5), Text("notes"), Number(0x900)});
  // An image of two mappings, data behind it, two stacks.
  const seed_t maps{0, 0, 0x01, 1, 0, 0, 0x15, 1, 0, 0, 0x23, 1, 0, 0, 0x03, 0, 1, 3, 0x03, 3, 2, 7, 0x03, 0};
  for (const auto& [name, mode] : {std::pair{"normal", std::uint8_t{0}}, {"full", AllMemory}, {"data", Data}})
    WriteSeed("dump", name,
              Join({{static_cast<std::uint8_t>(MadeMaps | mode)}, crash, threads, memory, Counted("a\tb"), maps}));
  WriteSeed("dump", "text",
            Join({{0},
                  crash,
                  threads,
                  memory,
                  Counted(""),
                  Text("00010000-00011000 r--p 00000000 08:01 1234   /lib/a.so\n"
                       "00011000-00013000 r-xp 00001000 08:01 1234   /lib/a.so\n"
                       "00013000-00014000 rw-p 00000000 00:00 0 \n")}));
}

void WriteRegistries() {
  namespace row = registry_row;
  // Keys and names by the numbers of the target's lists.
  const auto text = [](std::uint8_t key, std::uint8_t name, std::string_view value) {
    return Join({{row::Text, key, name, 0xd0}, Counted(value)});
  };
  const auto dword = [](std::uint8_t key, std::uint8_t name, std::uint16_t value) {
    return Join({{row::Dword, key, name}, Number(value)});
  };
  const seed_t share = text(1, 0, "share");
  const seed_t rootNode = Join({text(7, 7, "share"), text(7, 8, "18446744073709551615")});
  // "folder" as item 2, and an instance of it on the host.
  const seed_t item =
      Join({text(0x13, 7, "folder"), text(0x13, 8, "1"), text(0x14, 9, "x"), dword(0x14, 10, 1), dword(0x14, 11, 0)});
  const seed_t mount = Join({text(2, 1, "{d1c2c07a-d989-48cc-a423-b73ecd518d40}"), text(2, 2, "folder"),
                             text(2, 3, "vm"), text(2, 4, ""), text(2, 5, "none"), text(2, 6, "10.0.0.1")});
  WriteSeed("registry", "share", Join({share, rootNode, item}));
  WriteSeed("registry", "mount", Join({share, rootNode, item, mount}));
  WriteSeed(
      "registry", "settings",
      Join({dword(0, 14, 1058), dword(0, 15, 0xff00), dword(5, 16, 6161), text(0, 17, "%ALLUSERSPROFILE%\\x"),
            dword(0, 19, 0), text(0, 21, "10.0.0.0/8;;x"), dword(6, 22, 1), text(6, 23, "Full"), dword(6, 25, 3)}));
  WriteSeed("registry", "tool",
            Join({{row::Tool, 0, 0, 14, 1, 0xd0},
                  Counted("0x10"),
                  {row::Tool, 0, 2, 3, 0xc0},
                  {row::Tool, 0, 3, 0, 0xc0, 0xe0},
                  Counted("MountPort"),
                  {row::Tool, 0, 1, 8},
                  {row::Tool, 0, 2, 2, 0xc0}}));
  WriteSeed("registry", "deleted",
            Join({share, {row::Delete, 1, 0}, {row::Qword, 0, 14}, Number(5), {row::Delete, 0, 1, 14}}));
}

/// Commands by the numbers of their table, with no argument but the usual ones, or with changes.
void WriteCommands() {
  const auto usual = [](std::initializer_list<std::uint8_t> commands) {
    seed_t calls;
    for (const std::uint8_t command : commands)
      calls = Join({calls, {command, 0}});
    return calls;
  };
  WriteSeed("commands", "share", usual({3, 4, 5, 9, 10, 6}));
  WriteSeed("commands", "mount", usual({3, 9, 7, 0, 7, 8, 6}));
  WriteSeed("commands", "settings", usual({1, 2, 11, 12, 11, 3, 13, 14, 15, 16, 17, 16}));
  WriteSeed("commands", "other-values",
            Join({usual({3}), {9, 2, 9, 3, 0, 18}, {10, 1, 9, 19}, {3, 1, 6, 2}, {7, 1, 11, 13}, {12, 1, 12, 17}}));
  WriteSeed("commands", "raw", Join({{0xfc}, Counted("<InputArguments/>"), {0xf3}, Counted("<a")}));
}

}  // namespace

void WriteServiceSeeds() {
  WritePrograms();
  WriteShares();
  WriteStreams();
  WriteAgents();
  WriteDumps();
  WriteRegistries();
  WriteCommands();
}

}  // namespace fuzz
