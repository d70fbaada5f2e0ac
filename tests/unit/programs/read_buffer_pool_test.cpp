#include "programs/read_buffer_pool.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(ReadBufferPool, GivesTheLastBufferBackEmptyWithItsMemory) {
  CReadBufferPool pool;
  const std::uint8_t* memory = nullptr;
  {
    const auto buffer = pool.Acquire();
    buffer->data.resize(65536);
    buffer->length = 65536;
    buffer->eof = true;
    memory = buffer->data.data();
    EXPECT_EQ(pool.FreeCount(), 0U);
  }
  EXPECT_EQ(pool.FreeCount(), 1U);
  const auto again = pool.Acquire();
  EXPECT_EQ(pool.FreeCount(), 0U);
  EXPECT_TRUE(again->data.empty());
  EXPECT_EQ(again->length, 0U);
  EXPECT_FALSE(again->eof);
  again->data.resize(65536);
  EXPECT_EQ(again->data.data(), memory);
}

TEST(ReadBufferPool, ABufferInUseIsNobodyElses) {
  CReadBufferPool pool;
  const auto first = pool.Acquire();
  const auto second = pool.Acquire();
  EXPECT_NE(first.get(), second.get());
}

TEST(ReadBufferPool, KeepsSoManyAndNoMore) {
  CReadBufferPool pool;
  {
    std::vector<boost::shared_ptr<SFsReadBuffer>> buffers;
    for (std::size_t i = 0; i < CReadBufferPool::MaxFree + 10; ++i)
      buffers.push_back(pool.Acquire());
  }
  EXPECT_EQ(pool.FreeCount(), CReadBufferPool::MaxFree);
}

TEST(ReadBufferPool, LargeBuffersAreGivenUp) {
  CReadBufferPool pool;
  pool.Acquire()->data.resize(CReadBufferPool::MaxBufferSize + 1);
  EXPECT_EQ(pool.FreeCount(), 0U);
}

TEST(ReadBufferPool, ServesManyThreads) {
  CReadBufferPool pool;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&pool] {
      for (std::size_t round = 0; round < 2000; ++round) {
        const auto buffer = pool.Acquire();
        ASSERT_TRUE(buffer->data.empty());
        buffer->data.assign(100, 7);
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_LE(pool.FreeCount(), 4U);
}

}  // namespace
