#include "programs/mount_rpc_interface.h"

#include "foundation/exc.h"
#include "service/context/svc_context_holder.h"
#include "unit/programs/program_test.h"

namespace {

/// The argument of MNT and UMNT.
struct SDirPath {
  std::string path;
  void Encode(CXDRWriter& writer) const { writer.VarLenData(path.data(), path.size()); }
};

class MountProgram : public test::CProgramTest {
 protected:
  MountProgram() : CProgramTest(DispatchMountCall, 100005, 3) {}
};

TEST(MountResult, IsARecord) {
  test::CheckRecord(CMountResult{MNT3_OK, HandleFromFid(9)});
  test::CheckRecord(CMountResult{MNT3ERR_NOENT, {}});
}

TEST_F(MountProgram, NullIsPlainSuccessForEveryone) {
  EXPECT_EQ(Call(0), Accepted());
  EXPECT_EQ(Call(0, {}, false), Accepted());
}

TEST_F(MountProgram, RefusedPeerGetsThirteenForTheRest) {
  for (std::uint32_t procedure = 1; procedure <= 6; ++procedure) {
    EXPECT_EQ(Call(procedure, {}, false), Accepted({13})) << procedure;
  }
}

TEST_F(MountProgram, KnownPathYieldsItsHandleAndNoFlavours) {
  const auto result = Run<CMountResult>(1, SDirPath{"/share"});
  EXPECT_EQ(result.status, MNT3_OK);
  EXPECT_EQ(result.handle, Root());
  const auto words = Call(1, test::BytesOf(SDirPath{"/share"}));
  ASSERT_EQ(words.size(), 6U + 1 + 1 + 6 + 1);
  EXPECT_EQ(words[7], 23U);
  EXPECT_EQ(words.back(), 0U);
}

TEST_F(MountProgram, UnknownPathYieldsTwoAndNothingElse) {
  for (const std::string& path :
       {std::string("/nowhere"), std::string("/share\0x", 8), std::string("\xFF\xFE"), std::string(100'000, 'a')}) {
    EXPECT_EQ(Call(1, test::BytesOf(SDirPath{path})), Accepted({2}));
  }
}

TEST_F(MountProgram, EmptyPathIsTheAliasOfNoShareHere) {
  EXPECT_EQ(Call(1, test::BytesOf(SDirPath{""})), Accepted({2}));
  EXPECT_EQ(Call(1, test::BytesOf(SDirPath{"/"})), Accepted({2}));
}

TEST_F(MountProgram, DumpIsRefused) {
  EXPECT_EQ(Call(2), Unavailable());
}

TEST_F(MountProgram, UnmountingSucceedsUnread) {
  EXPECT_EQ(Call(3), Accepted());
  EXPECT_EQ(Call(3, test::Words({0xFFFFFFFF})), Accepted());
  EXPECT_EQ(Call(3, test::BytesOf(SDirPath{"/never mounted"})), Accepted());
  EXPECT_EQ(Call(4), Accepted());
}

TEST_F(MountProgram, UnknownProcedureIsRefused) {
  EXPECT_EQ(Call(6), Unavailable());
}

TEST_F(MountProgram, OtherProgramIsRefusedUnderItsXid) {
  header_.program = 100003;
  EXPECT_EQ(Call(0), Unavailable());
}

TEST_F(MountProgram, CutCallsAreNotAnswered) {
  CheckCuts(1, test::BytesOf(SDirPath{"/share"}));
}

TEST_F(MountProgram, TracesEveryProcedure) {
  CSvcContextHolder::Set(home_.context);
  const test::CapturedLog log(true);
  Call(0);
  Call(1, test::BytesOf(SDirPath{"/share"}));
  Call(1, test::BytesOf(SDirPath{"/nowhere"}));
  for (std::uint32_t procedure = 2; procedure <= 6; ++procedure)
    Call(procedure);
  CSvcContextHolder::Set({});
  const std::vector<std::string> expected = {"=== MOUNTPROC3_NULL ========== :",
                                             "=== MOUNTPROC3_MNT ========OK= : path: [/share]",
                                             "=== MOUNTPROC3_MNT ====NOTENT= : path: [/nowhere]",
                                             "=== MOUNTPROC3_DUMP =======UN= :",
                                             "=== MOUNTPROC3_UMNT ========== :",
                                             "=== MOUNTPROC3_UMNTALL ======= :",
                                             "=== MOUNTPROC3_EXPORT ======== :"};
  EXPECT_EQ(Traced(log), expected);
  EXPECT_EQ(log.Count("Procedure not found."), 1U);
}

TEST_F(MountProgram, ExportWithoutAContextIsNotAnswered) {
  CSvcContextHolder::Set({});
  try {
    Call(5);
    FAIL();
  } catch (const exc::runtime_exc_t& exception) {
    EXPECT_STREQ(exception.what(), "Service context is not initialized.");
  }
}

TEST_F(MountProgram, ExportIsEmptyThoughSharesExist) {
  CSvcContextHolder::Set(home_.context);
  const auto words = Call(5);
  CSvcContextHolder::Set({});
  EXPECT_EQ(words, Accepted({0}));
}

}  // namespace
