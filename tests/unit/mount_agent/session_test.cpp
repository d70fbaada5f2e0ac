#include "mount-agent-lib/session.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <cstring>
#include <limits>
#include <map>
#include <string>

namespace {

namespace error = platform::error;
using mount_agent::bytes_t;
using mount_agent::CSession;
using mount_agent::IMountedContent;
using mount_agent::IMountedItem;
using mount_agent::Put;
using mount_agent::PutCounted;

struct SFile {
  std::string data;
  platform::error_t failure = error::Success;
  bool isLocated = false;
};

class Item final : public IMountedItem {
 public:
  explicit Item(SFile& file) : file_(file) {}
  platform::error_t Read(std::uint64_t offset, void* data, std::size_t length, std::size_t& outRead) override {
    outRead = file_.data.copy(static_cast<char*>(data), length, offset);
    return file_.failure;
  }
  platform::error_t Write(std::uint64_t offset, const void* data, std::size_t length) override {
    if (file_.failure != error::Success)
      return file_.failure;
    if (file_.data.size() < offset + length)
      file_.data.resize(offset + length);
    std::memcpy(&file_.data[offset], data, length);
    return error::Success;
  }
  platform::error_t GetSize(std::uint64_t& size) override {
    size = file_.data.size();
    return file_.failure;
  }
  bool Locate(std::uint64_t offset, std::size_t length, std::vector<platform::file_part_t>& parts) override {
    if (file_.isLocated)
      parts.push_back({7, offset, length});
    return file_.isLocated;
  }

 private:
  SFile& file_;
};

class Content final : public IMountedContent {
 public:
  platform::error_t List(const path_t& path, std::vector<mount_agent::SListedItem>& items) override {
    if (failure != error::Success)
      return failure;
    if (!path.empty())
      return error::PathNotFound;
    for (const auto& [name, file] : files)
      items.push_back({7, file.data.size(), name});
    return error::Success;
  }
  platform::error_t Open(const path_t& path, boost::shared_ptr<IMountedItem>& item) override {
    if (failure != error::Success)
      return failure;
    std::string name;
    for (const std::string_view component : path)
      name += (name.empty() ? "" : "|") + std::string(component);
    const auto file = files.find(name);
    if (file == files.end())
      return error::FileNotFound;
    item = boost::make_shared<Item>(file->second);
    return error::Success;
  }
  platform::error_t Flush() override { return error::Success; }

  std::map<std::string, SFile> files;
  platform::error_t failure = error::Success;
};

bytes_t PathRequest(std::uint32_t command, std::string_view path) {
  bytes_t request;
  Put(request, command);
  PutCounted(request, path);
  return request;
}
bytes_t HandleRequest(std::uint32_t command, std::uint32_t handle) {
  bytes_t request;
  Put(request, command);
  Put(request, handle);
  return request;
}
bytes_t ReadRequest(std::uint32_t handle, std::uint64_t offset, std::uint32_t length) {
  bytes_t request = HandleRequest(2, handle);
  Put(request, offset);
  Put(request, length);
  return request;
}
bytes_t WriteRequest(std::uint32_t handle, std::uint64_t offset, std::string_view data) {
  bytes_t request = HandleRequest(3, handle);
  Put(request, offset);
  PutCounted(request, data);
  return request;
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    content_.files["disk"].data = "0123456789";
    content_.files["other"].data = "abc";
  }

  bytes_t Ask(const bytes_t& request) { return Ask(session_, request); }
  static bytes_t Ask(CSession& session, const bytes_t& request) {
    bytes_t reply{1, 2, 3};  // Of an earlier request.
    EXPECT_TRUE(session.Answer(request.data(), request.size(), reply));
    return reply;
  }
  static std::string Text(const bytes_t& reply) { return {reply.begin(), reply.end()}; }
  static std::uint32_t Number(const bytes_t& reply) {
    mount_agent::CRequestReader reader(reply.data(), reply.size());
    std::uint32_t number = 0;
    EXPECT_TRUE(reader.Get(number) && reader.IsAtEnd());
    return number;
  }
  std::uint32_t Open(std::string_view path) { return Number(Ask(PathRequest(1, path))); }

  Content content_;
  CSession session_{content_};
};

TEST_F(SessionTest, ALargeReadIsAnsweredFromWhereItLies) {
  constexpr std::uint32_t Large = mount_agent::LeastFromFiles;
  content_.files["disk"].data.assign(2 * Large, 'x');
  const std::uint32_t handle = Open("disk");
  EXPECT_EQ(Ask(ReadRequest(handle, 0, Large)).size(), Large) << "unless the item cannot tell";
  EXPECT_TRUE(session_.FileParts().empty());

  content_.files["disk"].isLocated = true;
  EXPECT_TRUE(Ask(ReadRequest(handle, 5, 3 * Large)).empty());
  ASSERT_EQ(session_.FileParts().size(), 1U);
  EXPECT_EQ(session_.FileParts()[0].offset, 5U);
  EXPECT_EQ(session_.FileParts()[0].length, 2 * Large - 5) << "what is there";
  EXPECT_EQ(Ask(ReadRequest(handle, 0, Large - 1)).size(), Large - 1) << "a small one is copied";
  EXPECT_TRUE(session_.FileParts().empty()) << "of an earlier request";
}

TEST_F(SessionTest, ListsTheRoot) {
  bytes_t expected;
  Put(expected, std::uint32_t{2});
  Put(expected, std::uint32_t{7});
  Put(expected, std::uint64_t{10});
  PutCounted(expected, "disk");
  Put(expected, std::uint32_t{7});
  Put(expected, std::uint64_t{3});
  PutCounted(expected, "other");
  EXPECT_EQ(Ask(PathRequest(0, "")), expected);
}

TEST_F(SessionTest, AFolderThatCannotBeListedIsNotAnEmptyOne) {
  EXPECT_TRUE(Ask(PathRequest(0, "nothing")).empty());
  content_.failure = error::IoDevice;
  EXPECT_TRUE(Ask(PathRequest(0, "")).empty());
}

TEST_F(SessionTest, OpensReadsWritesAndTellsTheSize) {
  const std::uint32_t handle = Open("disk");
  EXPECT_LT(handle, 0x80000000U);
  EXPECT_EQ(Text(Ask(ReadRequest(handle, 2, 3))), "234");
  EXPECT_EQ(Text(Ask(ReadRequest(handle, 8, 100))), "89");
  EXPECT_EQ(Number(Ask(WriteRequest(handle, 9, "XYZ"))), 3U);
  EXPECT_EQ(content_.files["disk"].data, "012345678XYZ");
  bytes_t size;
  Put(size, std::uint64_t{12});
  EXPECT_EQ(Ask(HandleRequest(4, handle)), size);
}

TEST_F(SessionTest, AReadAtOrBehindTheEndIsEmpty) {
  const std::uint32_t handle = Open("disk");
  EXPECT_TRUE(Ask(ReadRequest(handle, 10, 1)).empty());
  EXPECT_TRUE(Ask(ReadRequest(handle, std::numeric_limits<std::uint64_t>::max(), 0xFFFFFFFF)).empty());
  EXPECT_TRUE(Ask(ReadRequest(handle, 0, 0)).empty());
}

TEST_F(SessionTest, AWriteOfNothingIsAnswered) {
  EXPECT_EQ(Number(Ask(WriteRequest(Open("disk"), 3, ""))), 0U);
}

TEST_F(SessionTest, AReadTakesMemoryForWhatIsThere) {
  const bytes_t reply = Ask(ReadRequest(Open("disk"), 0, 0xFFFFFFFF));
  EXPECT_EQ(Text(reply), "0123456789");
  EXPECT_LT(reply.capacity(), 1000U);
}

TEST_F(SessionTest, AnAbsentItemIsMinusOneAndAFailureIsNot) {
  EXPECT_EQ(Open("nothing"), 0xFFFFFFFFU);
  EXPECT_EQ(Open(""), 0xFFFFFFFFU);
  content_.failure = error::TooManyOpenFiles;
  EXPECT_TRUE(Ask(PathRequest(1, "disk")).empty());
}

TEST_F(SessionTest, PathsAreCutAtDoubledSlashes) {
  content_.files["a|b"].data = "deep";
  EXPECT_EQ(Text(Ask(ReadRequest(Open("a//b"), 0, 9))), "deep");
  EXPECT_EQ(Open("a//b"), Open("/a/b"));
}

TEST_F(SessionTest, OneFileHasOneHandle) {
  EXPECT_EQ(Open("disk"), Open("disk"));
  EXPECT_NE(Open("disk"), Open("other"));
}

TEST_F(SessionTest, AHandleOfALostConnectionLeadsToTheSameFile) {
  const std::uint32_t disk = Open("disk");
  const std::uint32_t other = Open("other");
  CSession next(content_);
  EXPECT_EQ(Text(Ask(next, ReadRequest(other, 0, 9))), "abc");
  EXPECT_EQ(Text(Ask(next, ReadRequest(disk, 0, 3))), "012");
}

TEST_F(SessionTest, HandlesThatLeadNowhereFailWithoutHarm) {
  Open("disk");
  for (const std::uint32_t handle : {0xFFFFFFFFU, 0x80000000U, 0x7FFFFFFFU, 0U, 12345U}) {
    EXPECT_TRUE(Ask(ReadRequest(handle, 0, 4)).empty());
    EXPECT_TRUE(Ask(WriteRequest(handle, 0, "data")).empty());
    EXPECT_TRUE(Ask(HandleRequest(4, handle)).empty());
  }
  EXPECT_EQ(content_.files["disk"].data, "0123456789");
}

TEST_F(SessionTest, TwoNamesOfOneHandleAreKeptApart) {
  // Found by search: the hash has thirty bits, so that some pair of a hundred thousand names meets.
  std::map<std::int32_t, std::string> names;
  std::string first;
  std::string second;
  for (int i = 0; second.empty(); ++i) {
    const std::string name = "n" + std::to_string(i);
    const auto [holder, isNew] = names.emplace(CSession::HandleOf(name), name);
    if (!isNew) {
      first = holder->second;
      second = name;
    }
  }
  content_.files[first].data = "first";
  content_.files[second].data = "second";
  const std::uint32_t one = Open(first);
  const std::uint32_t two = Open(second);
  EXPECT_NE(one, two);
  EXPECT_EQ(Open(second), two);
  EXPECT_EQ(Text(Ask(ReadRequest(one, 0, 9))), "first");
  EXPECT_EQ(Text(Ask(ReadRequest(two, 0, 9))), "second");
  CSession next(content_);
  EXPECT_TRUE(Ask(next, ReadRequest(one, 0, 9)).empty());
}

TEST_F(SessionTest, AWriteThatFailsHasNoCount) {
  const std::uint32_t handle = Open("disk");
  content_.files["disk"].failure = error::DiskFull;
  EXPECT_TRUE(Ask(WriteRequest(handle, 0, "data")).empty());
}

TEST_F(SessionTest, AWriteThatEndsBehindTheLastOffsetFails) {
  const std::uint32_t handle = Open("disk");
  EXPECT_TRUE(Ask(WriteRequest(handle, std::numeric_limits<std::uint64_t>::max() - 2, "data")).empty());
}

TEST_F(SessionTest, AReadThatFailsCostsTheConnection) {
  const std::uint32_t handle = Open("disk");
  content_.files["disk"].failure = error::IoDevice;
  const bytes_t request = ReadRequest(handle, 0, 4);
  bytes_t reply;
  EXPECT_FALSE(session_.Answer(request.data(), request.size(), reply));
}

TEST_F(SessionTest, EveryRequestCutAnywhereOrTooLongIsRefused) {
  const std::uint32_t handle = Open("disk");
  for (const bytes_t& whole : {PathRequest(0, "disk"), PathRequest(1, "disk"), ReadRequest(handle, 0, 4),
                               WriteRequest(handle, 0, "data"), HandleRequest(4, handle)}) {
    bytes_t reply;
    for (std::size_t length = 0; length < whole.size(); ++length) {
      // A copy of its own, so that a byte behind it is seen by the address sanitizer.
      const bytes_t cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_FALSE(session_.Answer(cut.data(), cut.size(), reply)) << int{whole[0]} << " cut to " << length;
    }
    bytes_t longer = whole;
    longer.push_back(0);
    EXPECT_FALSE(session_.Answer(longer.data(), longer.size(), reply)) << int{whole[0]};
    EXPECT_TRUE(session_.Answer(whole.data(), whole.size(), reply)) << int{whole[0]};
  }
  EXPECT_EQ(content_.files["disk"].data, "data456789");
}

TEST_F(SessionTest, LengthsThatAnnounceMoreThanCameAreRefused) {
  bytes_t reply;
  for (const std::uint32_t command : {0U, 1U}) {
    bytes_t request;
    Put(request, command);
    Put(request, 0xFFFFFFFFU);
    EXPECT_FALSE(session_.Answer(request.data(), request.size(), reply));
  }
  bytes_t write = HandleRequest(3, Open("disk"));
  Put(write, std::uint64_t{0});
  Put(write, 0xFFFFFFFFU);
  write.push_back('x');
  EXPECT_FALSE(session_.Answer(write.data(), write.size(), reply));
}

TEST_F(SessionTest, UnknownCommandsAreRefused) {
  bytes_t reply;
  for (const std::uint32_t command : {5U, 0x80000000U, 0xFFFFFFFFU}) {
    const bytes_t request = HandleRequest(command, 0);
    EXPECT_FALSE(session_.Answer(request.data(), request.size(), reply));
  }
}

}  // namespace
