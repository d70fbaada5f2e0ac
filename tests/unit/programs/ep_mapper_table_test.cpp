#include "programs/ep_mapper_table.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "support/xdr_record.h"

using testing::ElementsAre;

namespace {

TEST(PortmapRecord, IsARecord) {
  test::CheckRecord(PortmapRecord{1, 2, 3, 4});
}

TEST(EpMapperTable, KeepsTheFirstPortOfAKey) {
  CEpMapperTable table;
  EXPECT_TRUE(table.Insert({100003, 3, 6, 3049}));
  EXPECT_FALSE(table.Insert({100003, 3, 6, 2049}));
  EXPECT_EQ(table.Lookup({100003, 3, 6, 0}), 3049U);
}

TEST(EpMapperTable, RemovesEveryProtocolOfAVersion) {
  CEpMapperTable table;
  table.Insert({100003, 3, 6, 2049});
  table.Insert({100003, 4, 6, 2050});
  table.Insert({100003, 3, 17, 2049});
  EXPECT_TRUE(table.Remove({100003, 3, 6, 0}));
  EXPECT_FALSE(table.Remove({100003, 3, 6, 0}));
  EXPECT_THAT(table.Dump(), ElementsAre(PortmapRecord{100003, 4, 6, 2050}));
}

TEST(EpMapperTable, LooksUpByProgramVersionAndProtocol) {
  CEpMapperTable table;
  table.Insert({100005, 3, 6, 1058});
  EXPECT_EQ(table.Lookup({100005, 3, 6, 99}), 1058U);
  EXPECT_EQ(table.Lookup({100005, 3, 17, 1058}), 0U);
  EXPECT_EQ(table.Lookup({100005, 1, 6, 1058}), 0U);
  EXPECT_EQ(table.Lookup({100004, 3, 6, 1058}), 0U);
}

TEST(EpMapperTable, SeedingTwiceAddsTwoRows) {
  CEpMapperTable table;
  table.Seed();
  table.Seed();
  EXPECT_THAT(table.Dump(), ElementsAre(PortmapRecord{100000, 2, 6, 111}, PortmapRecord{100000, 2, 17, 111}));
}

TEST(EpMapperTable, FullTableRaises) {
  CEpMapperTable table(2);
  table.Seed();
  try {
    table.Insert({1, 1, 6, 1});
    FAIL();
  } catch (const std::length_error& exception) {
    EXPECT_STREQ(exception.what(), "list<T> too long");
  }
  EXPECT_FALSE(table.Insert({100000, 2, 6, 5}));
}

TEST(EpMapperTable, OneOfManyInsertersWins) {
  CEpMapperTable table;
  std::vector<int> wins(4, 0);
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < wins.size(); ++i) {
      threads.emplace_back([&table, &wins, i] {
        for (std::uint32_t program = 0; program < 200; ++program) {
          if (table.Insert({program, 1, 6, static_cast<std::uint32_t>(i)}))
            ++wins[i];
          table.Lookup({program, 1, 6, 0});
        }
      });
    }
  }
  EXPECT_EQ(wins[0] + wins[1] + wins[2] + wins[3], 200);
  EXPECT_EQ(table.Dump().size(), 200U);
}

}  // namespace
