// Many readers and writers of a mount whose agent comes and goes.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "remotefs/items/remote_fs_folder.h"
#include "support/captured_log.h"
#include "support/remote_mount.h"

namespace test {
namespace {

constexpr std::size_t FileSize = 4096;
constexpr int Files = 4;

std::string FileName(int number) {
  return "disk" + std::to_string(number);
}

class ConnectorConcurrency : public RemoteMountFixture {
 protected:
  ConnectorConcurrency() {
    // A call in flight is not told that its client was replaced, and runs into its time.
    limits.responseMs = ShortMs;
    limits.freeClientMs = 10;
    for (int i = 0; i < Files; ++i)
      agent->SetFile(FileName(i), Bytes(FileSize, static_cast<std::uint8_t>(i)));
    connector = Connected();
    root = boost::make_shared<CRemoteFsFolder>(connector, "", mountUid);
    for (int i = 0; i < Files; ++i)
      files.push_back(OpenFile(FileName(i)));
  }

  boost::shared_ptr<IFsFile> OpenFile(const std::string& name) const {
    for (;;) {
      // On a busy machine even a sound agent may be late.
      if (!connector->IsConnected())
        connector->Reconnect();
      if (const auto item = root->OpenChild(name))
        return boost::dynamic_pointer_cast<IFsFile>(item);
    }
  }
  /// Reads of a file give that file or fail, whatever happens to the connection. Counts the good ones.
  void Read(int number) {
    SFsReadBuffer buffer;
    try {
      files[static_cast<std::size_t>(number)]->Read(0, 100, buffer);
    } catch (const exc::exc_base_t&) {
      return;
    }
    ASSERT_EQ(buffer.length, 100U);
    for (std::uint32_t i = 0; i < buffer.length; ++i)
      ASSERT_EQ(buffer.data[i], number);
    ++good;
  }
  void Write(int number) {
    const Bytes data(100, static_cast<std::uint8_t>(number));
    try {
      files[static_cast<std::size_t>(number)]->Write(200, 100, data.data());
    } catch (const exc::exc_base_t&) {
    }
  }
  void LookAround() {
    SFsEnumeration enumeration;
    root->Enumerate(enumeration);
    EXPECT_EQ(enumeration.mountUid, mountUid);
    root->OpenChild("disk1");
    WIN32_FILE_ATTRIBUTE_DATA attributes;
    files[2]->GetAttributes(attributes);
    EXPECT_EQ(attributes.Size(), FileSize) << "what was known last";
  }

  /// Runs the threads' work over and over until so much of it was good.
  void RunUntil(int goodReads, const std::function<void()>& disturb) {
    std::atomic<bool> isEnding{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&, t] {
        for (int i = t; !isEnding; ++i) {
          Read(i % Files);
          if (i % 3 == t)
            Write(i % Files);
          if (t == 2)
            LookAround();
        }
      });
    }
    while (good < goodReads)
      disturb();
    isEnding = true;
    for (std::thread& thread : threads)
      thread.join();
    for (int i = 0; i < Files; ++i)
      EXPECT_EQ(agent->FileContent(FileName(i)), Bytes(FileSize, static_cast<std::uint8_t>(i)))
          << "no write went astray";
  }

  GUID mountUid;
  boost::shared_ptr<CRemoteFsConnector> connector;
  boost::shared_ptr<CRemoteFsFolder> root;
  std::vector<boost::shared_ptr<IFsFile>> files;
  std::atomic<int> good{0};
  std::atomic<bool> isStopped{false};
};

TEST_F(ConnectorConcurrency, ReconnectsUnderReaders) {
  RunUntil(300, [&] {
    const int before = good;
    while (good == before && connector->IsConnected())
      std::this_thread::yield();
    connector->Reconnect();
  });
}

TEST_F(ConnectorConcurrency, AgentsThatDieUnderReadersComeBack) {
  std::atomic<int> countdown{20};
  const auto script = [&](const AgentRequest&) -> std::optional<AgentReply> {
    if (--countdown > 0)
      return std::nullopt;
    countdown = 20;
    return DieInReply();
  };
  agent->SetScript(script);
  RunUntil(300, [&] {
    if (!connector->IsConnected())
      connector->Reconnect();
    std::this_thread::yield();
  });
  AnswerWell();
}

TEST_F(ConnectorConcurrency, AStopUnderReadersEndsThem) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (;;) {
        try {
          SFsReadBuffer buffer;
          files[static_cast<std::size_t>(t)]->Read(0, 100, buffer);
          ++good;
        } catch (const exc::exc_base_t&) {
          if (isStopped)
            return;
        }
      }
    });
  }
  while (good < 50)
    std::this_thread::yield();
  connector->Stop();
  isStopped = true;
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(connector->IsConnected());
}

}  // namespace
}  // namespace test
