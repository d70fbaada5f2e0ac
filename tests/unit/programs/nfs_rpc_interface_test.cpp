#include "programs/nfs_rpc_interface.h"

#include <algorithm>
#include <array>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <fstream>
#include <iterator>

#include "programs/nfs_read_result.h"
#include "unit/programs/program_test.h"
#include "vfs/nfs3/nfs_results.h"

using testing::IsEmpty;

namespace {

constexpr std::uint32_t UnavailableProcedures[] = {5, 10, 11, 15, 16, 20, 21};

/// A handle as a client may send it, of any size.
struct SRawHandle {
  test::bytes_t bytes;
  void Encode(CXDRWriter& writer) const { writer.VarLenData(bytes.data(), bytes.size()); }
};

class NfsProgram : public test::CProgramTest {
 protected:
  NfsProgram() : CProgramTest(DispatchNfsCall, 100003, 3) {}

  void MakeFile(const std::string& name, const std::string& content) {
    std::ofstream(SharePath(name), std::ios::binary) << content;
  }
  std::string ContentOf(const std::string& name) const {
    std::ifstream file(SharePath(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  LOOKUP3res Lookup(const std::string& name) { return Run<LOOKUP3res>(3, LOOKUP3args{{Root(), name}}); }
  WRITE3res Write(const nfs_fh3& file, std::uint64_t offset, std::uint32_t count, std::string_view data,
                  std::uint32_t stable = UNSTABLE) {
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
    return Run<WRITE3res>(7, WRITE3args{file, offset, count, stable, bytes});
  }
  /// The pieces of the reply to a READ, for a sender that takes no pipes.
  std::vector<SXdrSegment> Segments(const READ3args& args) {
    CXDRReader reader = test::ReaderOf(CallBytes(6, test::BytesOf(args)));
    CXDRWriter writer;
    DispatchNfsCall(true, peer_, reader, writer, *fs_);
    return writer.TakeSegments(true);
  }
  static std::string TextOf(const READ3res& result) {
    return {result.data->begin(), result.data->begin() + result.count};
  }
};

TEST_F(NfsProgram, NullIsPlainSuccessForEveryone) {
  EXPECT_EQ(Call(0), Accepted());
  EXPECT_EQ(Call(0, {}, false), Accepted());
}

TEST_F(NfsProgram, RefusedPeerGetsThirteenForTheRest) {
  for (std::uint32_t procedure = 1; procedure <= 22; ++procedure) {
    EXPECT_EQ(Call(procedure, {}, false), Accepted({13})) << procedure;
  }
}

TEST_F(NfsProgram, UnservedAndUnknownProceduresAreRefusedUnread) {
  for (const std::uint32_t procedure : UnavailableProcedures)
    EXPECT_EQ(Call(procedure), Unavailable()) << procedure;
  EXPECT_EQ(Call(22), Unavailable());
  EXPECT_EQ(Call(0x80000000), Unavailable());
}

TEST_F(NfsProgram, HeaderThatDoesNotFitIsRefusedUnderItsXid) {
  const RpcCallHeader good = header_;
  header_.program = 100005;
  EXPECT_EQ(Call(0), Unavailable());
  header_ = good;
  header_.programVersion = 2;
  EXPECT_EQ(Call(0), Unavailable());
  header_ = good;
  header_.rpcVersion = 3;
  EXPECT_EQ(Call(0), Unavailable());
}

TEST_F(NfsProgram, GetAttrTellsTheShareIsAFolder) {
  const auto result = Run<GETATTR3res>(1, GETATTR3args{Root()});
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.attributes.type, NF3DIR);
  EXPECT_EQ(result.attributes.mode, 511U);
  EXPECT_EQ(result.attributes.fileid, FidFromHandle(Root()));
}

TEST_F(NfsProgram, LookupGivesAHandleAndBothAttributes) {
  MakeFile("a.txt", "hello");
  const LOOKUP3res result = Lookup("a.txt");
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.object.size, 23U);
  EXPECT_EQ(result.attributes->size, 5U);
  EXPECT_EQ(result.dirAttributes->type, NF3DIR);
  EXPECT_EQ(Lookup("missing").status, NFS3ERR_NOENT);
}

TEST_F(NfsProgram, TellsTheLookupsAmongRecords) {
  const auto call = [this](std::uint32_t procedure, const auto& args) {
    const test::bytes_t bytes = CallBytes(procedure, test::BytesOf(args));
    return io::byte_buffer_t(bytes.begin(), bytes.end());
  };
  std::vector<io::byte_buffer_t> calls;
  calls.push_back(call(1, GETATTR3args{Root()}));
  calls.push_back(call(3, LOOKUP3args{{Root(), "first"}}));
  calls.push_back(call(3, LOOKUP3args{{HandleFromFid(77), "a second one"}}));
  calls.push_back(call(12, REMOVE3args{{Root(), "removed"}}));
  calls.push_back(call(3, LOOKUP3args{{Root(), "no room"}}));
  header_.program = 100005;
  calls.insert(calls.begin() + 1, call(3, LOOKUP3args{{Root(), "of another program"}}));
  std::vector<io::byte_buffer_t*> records;
  for (io::byte_buffer_t& record : calls)
    records.push_back(&record);

  std::array<SListingPlace, 2> places;
  ASSERT_EQ(PlacesOfLookups(records, places), 2U);
  EXPECT_EQ(places[0].parentFid, FidFromHandle(Root()));
  EXPECT_EQ(places[0].name, "first");
  EXPECT_EQ(places[1].parentFid, 77U);
  EXPECT_EQ(places[1].name, "a second one");

  std::array<SListingPlace, 8> more;
  EXPECT_EQ(PlacesOfLookups(records, more), 3U);
  EXPECT_EQ(more[2].name, "no room");
}

TEST_F(NfsProgram, NoPlaceIsTakenFromHalfALookup) {
  const test::bytes_t bytes = CallBytes(3, test::BytesOf(LOOKUP3args{{Root(), "a name that ends"}}));
  for (std::size_t size = 0; size < bytes.size(); size += 4) {
    io::byte_buffer_t record(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    io::byte_buffer_t* const records[] = {&record};
    std::array<SListingPlace, 1> places;
    EXPECT_THROW(PlacesOfLookups(records, places), std::exception) << size;
  }
}

TEST_F(NfsProgram, NothingIsForeseenInASmallCatalogue) {
  MakeFile("a.txt", "hello");
  const nfs_fh3 before = Lookup("a.txt").object;
  const test::bytes_t bytes = CallBytes(3, test::BytesOf(LOOKUP3args{{Root(), "a.txt"}}));
  io::byte_buffer_t record(bytes.begin(), bytes.end());
  io::byte_buffer_t half(bytes.begin(), bytes.begin() + 8);
  io::byte_buffer_t* const records[] = {&record, &half};
  EXPECT_NO_THROW(ForeseeNfsCalls(records, *fs_)) << "records are not even read";
  EXPECT_TRUE(std::ranges::equal(record, bytes));
  EXPECT_EQ(Lookup("a.txt").object, before);
}

TEST_F(NfsProgram, AccessGrantsWhatIsAskedFor) {
  const auto result = Run<ACCESS3res>(4, ACCESS3args{Root(), 0x2A});
  EXPECT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.access, 0x2AU);
  EXPECT_TRUE(result.attributes.has_value());
}

TEST_F(NfsProgram, ReadGivesDataCountAndEof) {
  MakeFile("a.txt", "hello world");
  const nfs_fh3 file = Lookup("a.txt").object;
  const auto part = Run<READ3res>(6, READ3args{file, 6, 5});
  EXPECT_EQ(part.status, NFS3_OK);
  EXPECT_EQ(part.attributes, std::nullopt);
  EXPECT_EQ(TextOf(part), "world");
  const auto beyond = Run<READ3res>(6, READ3args{file, 100, 5});
  EXPECT_EQ(beyond.status, NFS3_OK);
  EXPECT_EQ(beyond.count, 0U);
  EXPECT_TRUE(beyond.eof);
}

TEST_F(NfsProgram, ReadSendsTheBackendsBufferUncopied) {
  MakeFile("big", std::string(65536, 'x'));
  const nfs_fh3 file = Lookup("big").object;
  CXDRReader reader = test::ReaderOf(CallBytes(6, test::BytesOf(READ3args{file, 0, 65536})));
  CXDRWriter writer;
  DispatchNfsCall(true, peer_, reader, writer, *fs_);
  const auto segments = writer.TakeSegments(true);
  ASSERT_EQ(segments.size(), 2U);
  EXPECT_LE(segments[0].buffer->size(), 128U);
  EXPECT_EQ(segments[1].length, 65536U);
}

TEST_F(NfsProgram, LargeReadsAreLentAPipeByAWriterThatTakesThem) {
  MakeFile("big", std::string(65536, 'x'));
  const nfs_fh3 file = Lookup("big").object;
  for (const std::uint32_t count : {16383U, 16384U, 65536U}) {
    CXDRReader reader = test::ReaderOf(CallBytes(6, test::BytesOf(READ3args{file, 0, count})));
    CXDRWriter writer;
    writer.TakePipes();
    DispatchNfsCall(true, peer_, reader, writer, *fs_);
    EXPECT_EQ(writer.HasPipes(), count >= 16384) << count;
    const auto segments = writer.TakeSegments(true);
    ASSERT_GE(segments.size(), 2U);
    EXPECT_EQ(segments[1].length, count);
    if (segments[1].pipe) {
      EXPECT_EQ(segments[1].pipe->Held(), count);
    }
  }
}

TEST_F(NfsProgram, AReplyKeepsNoBufferThatIsMuchLargerThanItsData) {
  MakeFile("small", "x");
  MakeFile("quarter", std::string(2048, 'q'));
  const nfs_fh3 small = Lookup("small").object;
  for (const std::uint32_t count : {4096U, 65536U, 1U << 20, 2U << 20}) {
    const auto segments = Segments(READ3args{small, 0, count});
    ASSERT_GE(segments.size(), 2U);
    ASSERT_EQ(segments[1].length, 1U);
    EXPECT_EQ((*segments[1].buffer)[0], 'x');
    EXPECT_LE(segments[1].buffer->capacity(), 1024U) << count;
  }
  // What is in use for a good part goes out as it was filled.
  EXPECT_EQ(Segments(READ3args{Lookup("quarter").object, 0, 8192})[1].buffer->size(), 8192U);
}

TEST_F(NfsProgram, OnlyDataThatIsInAPipeKeepsOne) {
  const auto buffer = boost::make_shared<SFsReadBuffer>();
  CXDRWriter writer;
  writer.TakePipes();
  LendPipe(*buffer, writer, platform::kernel_pipe_t::Largest + 1);
  EXPECT_EQ(buffer->pipe, nullptr);
  LendPipe(*buffer, writer, platform::kernel_pipe_t::Largest);
  ASSERT_NE(buffer->pipe, nullptr);
  const boost::weak_ptr<platform::kernel_pipe_t> pipe = buffer->pipe;
  buffer->data.assign(3, 'x');
  buffer->length = 3;
  READ3res result;
  SetReadResult(result, buffer);
  EXPECT_EQ(result.count, 3U);
  EXPECT_TRUE(pipe.expired());
}

TEST_F(NfsProgram, ReadOfAFolderAndOfNothing) {
  EXPECT_EQ((Run<READ3res>(6, READ3args{Root(), 0, 5}).status), NFS3ERR_NOTSUPP);
  EXPECT_EQ((Run<READ3res>(6, READ3args{HandleFromFid(0x7777777777ULL), 0, 5}).status), NFS3ERR_NOENT);
}

TEST_F(NfsProgram, WriteIsFileSyncWhateverWasAskedFor) {
  MakeFile("a.txt", "hello");
  const nfs_fh3 file = Lookup("a.txt").object;
  for (const std::uint32_t stable : {UNSTABLE, DATA_SYNC, FILE_SYNC, 77U}) {
    const WRITE3res result = Write(file, 0, 4, "HELP", stable);
    EXPECT_EQ(result, (WRITE3res{NFS3_OK, {}, 4, FILE_SYNC, {}}));
  }
  EXPECT_EQ(ContentOf("a.txt"), "HELPo");
}

TEST_F(NfsProgram, WriteCountAgainstItsData) {
  MakeFile("a.txt", "hello");
  const nfs_fh3 file = Lookup("a.txt").object;
  EXPECT_EQ(Write(file, 0, 0, ""), (WRITE3res{NFS3_OK, {}, 0, FILE_SYNC, {}}));
  EXPECT_EQ(Write(file, 0, 5, "four").status, NFS3ERR_INVAL);
  EXPECT_EQ(ContentOf("a.txt"), "hello");
  EXPECT_EQ(Write(file, 0, 1, "Jxyz").status, NFS3_OK);
  EXPECT_EQ(ContentOf("a.txt"), "Jello");
}

TEST_F(NfsProgram, WriteToAFolderIsAServerFault) {
  EXPECT_EQ(Write(Root(), 0, 1, "x").status, NFS3ERR_SERVERFAULT);
}

TEST_F(NfsProgram, CreateMakesAndRemoveDeletes) {
  const auto made = Run<CREATE3res>(8, CREATE3args{{Root(), "new"}, UNCHECKED, {}, {}});
  ASSERT_EQ(made.status, NFS3_OK);
  EXPECT_EQ(made.object->size, 23U);
  EXPECT_TRUE(std::filesystem::exists(SharePath("new")));
  EXPECT_EQ((Run<CREATE3res>(8, CREATE3args{{Root(), "new"}, GUARDED, {}, {}}).status), NFS3ERR_EXIST);
  EXPECT_EQ((Run<CREATE3res>(8, CREATE3args{{Root(), "free"}, EXCLUSIVE, {}, {}}).status), NFS3ERR_NOTSUPP);
  EXPECT_EQ((Run<REMOVE3res>(12, REMOVE3args{{Root(), "new"}}).status), NFS3_OK);
  EXPECT_FALSE(std::filesystem::exists(SharePath("new")));
}

TEST_F(NfsProgram, FoldersComeMoveAndGo) {
  const auto made = Run<MKDIR3res>(9, MKDIR3args{{Root(), "sub"}, {}});
  ASSERT_EQ(made.status, NFS3_OK);
  EXPECT_EQ(made.dirWcc.after->fileid, FidFromHandle(*made.object));
  EXPECT_EQ((Run<RENAME3res>(14, RENAME3args{{Root(), "sub"}, {Root(), "moved"}}).status), NFS3_OK);
  EXPECT_TRUE(std::filesystem::is_directory(SharePath("moved")));
  EXPECT_EQ((Run<RMDIR3res>(13, RMDIR3args{{Root(), "moved"}}).status), NFS3_OK);
  EXPECT_EQ((Run<RMDIR3res>(13, RMDIR3args{{Root(), "moved"}}).status), NFS3_OK);
  EXPECT_EQ((Run<RMDIR3res>(13, RMDIR3args{{Root(), "."}}).status), NFS3ERR_INVAL);
}

TEST_F(NfsProgram, SetAttrResizesAndGuards) {
  MakeFile("a.txt", "hello");
  const nfs_fh3 file = Lookup("a.txt").object;
  sattr3 toTwo;
  toTwo.setSize = true;
  toTwo.size = 2;
  const auto cut = Run<SETATTR3res>(2, SETATTR3args{file, toTwo, std::nullopt});
  ASSERT_EQ(cut.status, NFS3_OK);
  EXPECT_EQ(cut.wcc.before->size, 5U);
  EXPECT_EQ(cut.wcc.after->size, 2U);
  const nfstime3 ctime = cut.wcc.after->ctime;
  const auto stale = Run<SETATTR3res>(2, SETATTR3args{file, {}, nfstime3{ctime.seconds + 1, ctime.nseconds}});
  EXPECT_EQ(stale.status, NFS3ERR_NOT_SYNC);
  const auto same = Run<SETATTR3res>(2, SETATTR3args{file, {}, ctime});
  EXPECT_EQ(same.status, NFS3_OK);
  EXPECT_TRUE(same.wcc.before && same.wcc.after);
  EXPECT_EQ((Run<SETATTR3res>(2, SETATTR3args{Root(), toTwo, std::nullopt}).status), NFS3ERR_INVAL);
}

TEST_F(NfsProgram, ListingComesInPagesOfTen) {
  for (int i = 0; i < 25; ++i)
    MakeFile("f" + std::to_string(100 + i), "");
  const std::pair<std::uint64_t, std::size_t> pages[] = {{0, 10}, {10, 10}, {20, 5}};
  for (const auto& [cookie, size] : pages) {
    const auto page = Run<READDIRPLUS3res>(17, READDIRPLUS3args{Root(), cookie, {}, 512, 4096});
    ASSERT_EQ(page.status, NFS3_OK);
    EXPECT_EQ(page.dirAttributes, std::nullopt);
    ASSERT_EQ(page.entries.size(), size);
    EXPECT_EQ(page.eof, cookie == 20);
    for (std::size_t i = 0; i < size; ++i) {
      EXPECT_EQ(page.entries[i].cookie, cookie + i + 1);
      EXPECT_EQ(page.entries[i].name, "f" + std::to_string(100 + cookie + i));
      EXPECT_EQ(page.entries[i].nameAttributes, std::nullopt);
      EXPECT_EQ(FidFromHandle(*page.entries[i].nameHandle), page.entries[i].fileid);
    }
  }
  for (const std::uint64_t cookie : {std::uint64_t{25}, std::uint64_t{1} << 32}) {
    const auto past = Run<READDIRPLUS3res>(17, READDIRPLUS3args{Root(), cookie, {9}, 0, 0});
    EXPECT_EQ(past.status, NFS3_OK);
    EXPECT_THAT(past.entries, IsEmpty());
    EXPECT_TRUE(past.eof);
  }
}

TEST_F(NfsProgram, FsInfoIsTheSameForAnyHandle) {
  const FSINFO3res expected{0,    std::nullopt,      131072,       65536,          512, 131072, 65536, 512,
                            1200, 70368744177664ULL, {0, 1000000}, FSF3_CANSETTIME};
  EXPECT_EQ((Run<FSINFO3res>(19, FSINFO3args{Root()})), expected);
  EXPECT_EQ((Run<FSINFO3res>(19, FSINFO3args{HandleFromFid(0x7777777777ULL)})), expected);
  EXPECT_EQ((Run<FSINFO3res>(19, FSINFO3args{})), expected);
}

TEST_F(NfsProgram, FsStatTellsTheSizesThatWereSet) {
  fs_->SetDatastoreSize(1000, 400);
  const auto result = Run<FSSTAT3res>(18, FSSTAT3args{Root()});
  ASSERT_EQ(result.status, NFS3_OK);
  EXPECT_EQ(result.attributes->type, NF3DIR);
  EXPECT_EQ(result.tbytes, 1000U);
  EXPECT_EQ(result.fbytes, 400U);
  EXPECT_EQ(result.abytes, 400U);
  EXPECT_EQ(result.tfiles, 20U);
  EXPECT_EQ(result.ffiles, 100U);
  EXPECT_EQ(result.afiles, 100U);
  EXPECT_EQ(result.invarsec, 0U);
}

TEST_F(NfsProgram, HandlesOfEverySizeGetAStatus) {
  const std::uint32_t expectedShort = NFS3ERR_SERVERFAULT;
  for (const std::size_t size : {0U, 7U, 8U, 23U, 64U, 200U}) {
    const SRawHandle handle{test::bytes_t(size, 0x77)};
    const auto words = Call(1, test::BytesOf(handle));
    EXPECT_EQ(words, Accepted({size < 8 ? expectedShort : NFS3ERR_STALE})) << size;
  }
}

TEST_F(NfsProgram, CutCallsAreNotAnsweredAndTouchNothing) {
  MakeFile("a.txt", "hello");
  const nfs_fh3 file = Lookup("a.txt").object;
  constexpr std::uint8_t data[] = {'X', 'Y', 'Z'};
  sattr3 toZero;
  toZero.setSize = true;
  CheckCuts(1, test::BytesOf(GETATTR3args{file}));
  CheckCuts(2, test::BytesOf(SETATTR3args{file, toZero, nfstime3{}}));
  CheckCuts(3, test::BytesOf(LOOKUP3args{{Root(), "a.txt"}}));
  CheckCuts(4, test::BytesOf(ACCESS3args{file, 1}));
  CheckCuts(6, test::BytesOf(READ3args{file, 0, 5}));
  CheckCuts(7, test::BytesOf(WRITE3args{file, 0, 3, 0, data}));
  CheckCuts(8, test::BytesOf(CREATE3args{{Root(), "made"}, UNCHECKED, toZero, {}}));
  CheckCuts(8, test::BytesOf(CREATE3args{{Root(), "made"}, EXCLUSIVE, {}, {}}));
  CheckCuts(9, test::BytesOf(MKDIR3args{{Root(), "made"}, toZero}));
  CheckCuts(12, test::BytesOf(REMOVE3args{{Root(), "a.txt"}}));
  CheckCuts(13, test::BytesOf(RMDIR3args{{Root(), "a.txt"}}));
  CheckCuts(14, test::BytesOf(RENAME3args{{Root(), "a.txt"}, {Root(), "b.txt"}}));
  CheckCuts(17, test::BytesOf(READDIRPLUS3args{Root(), 0, {}, 1, 1}));
  CheckCuts(18, test::BytesOf(FSSTAT3args{Root()}));
  CheckCuts(19, test::BytesOf(FSINFO3args{Root()}));
  EXPECT_EQ(ContentOf("a.txt"), "hello");
  EXPECT_FALSE(std::filesystem::exists(SharePath("made")));
}

TEST_F(NfsProgram, LengthsThatLieAreNotAnswered) {
  for (const std::uint32_t length : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
    for (const std::uint32_t procedure : {1U, 2U, 3U, 4U, 6U, 7U, 8U, 9U, 12U, 13U, 14U, 17U, 18U, 19U}) {
      EXPECT_THROW(Call(procedure, test::Words({length, 1, 2, 3})), std::exception) << procedure << ' ' << length;
    }
  }
}

/// Arguments that all procedures can read: a handle that nobody has, and enough zeros.
test::bytes_t ZeroArguments() {
  CXDRWriter writer;
  HandleFromFid(0x7777777777ULL).Encode(writer);
  for (int i = 0; i < 32; ++i)
    writer.UInt(0);
  return test::MessageOf(writer);
}

TEST_F(NfsProgram, TracesEveryProcedureButReadAndWrite) {
  const std::vector<std::string> expected = {
      "=== NFSPROC3_NULL ============= :", "=== NFSPROC3_GETATTR ========== :", "=== NFSPROC3_SETATTR ========== :",
      "=== NFSPROC3_LOOKUP =========== :", "=== NFSPROC3_ACCESS ========== :",  "=== NFSPROC3_READLINK ======UN= :",
      "=== NFSPROC3_CREATE ========== :",  "=== NFSPROC3_MKDIR ============ :", "=== NFSPROC3_SYMLINK =======UN= :",
      "=== NFSPROC3_MKNOD ========UN= :",  "=== NFSPROC3_REMOVE =========== :", "=== NFSPROC3_RMDIR ============ :",
      "=== NFSPROC3_RENAME =========== :", "=== NFSPROC3_LINK =========UN= :",  "=== NFSPROC3_READDIR ======UN= :",
      "=== NFSPROC3_READDIRPLUS ====== :", "=== NFSPROC3_FSSTAT ========== :",  "=== NFSPROC3_FSINFO ========== :",
      "=== NFSPROC3_PATHCONF =====UN= :",  "=== NFSPROC3_COMMIT =======UN= :"};
  const test::CapturedLog log(true);
  for (std::uint32_t procedure = 0; procedure <= 22; ++procedure)
    Call(procedure, ZeroArguments());
  EXPECT_EQ(Traced(log), expected);
  EXPECT_EQ(log.Count("Procedure not found: [22]."), 1U);
}

TEST_F(NfsProgram, WithoutVerboseNoCallIsTraced) {
  const test::CapturedLog log;
  Call(0);
  Call(21);
  EXPECT_THAT(Traced(log), IsEmpty());
}

TEST_F(NfsProgram, InterfaceAnswersAsTheFunction) {
  CXDRReader reader = test::ReaderOf(CallBytes(0, {}));
  CXDRWriter writer;
  CNfsRpcInterface().ProcessCall(false, peer_, reader, writer, *fs_);
  EXPECT_EQ(test::WordsOf(test::MessageOf(writer)), Accepted());
}

}  // namespace
