// Mounts that come and go under clients.
#include <atomic>
#include <thread>

#include "mounts_fixture.h"
#include "remotefs/mounts/remote_fs_health_check_thread.h"

namespace test {
namespace {

class MountsConcurrency : public MountsFixture {
 protected:
  MountsConcurrency() {
    // A call in flight is not told that its client was replaced, and runs into its time.
    limits.responseMs = ShortMs;
    limits.freeClientMs = 10;
    limits.connectMs = LongMs;
    for (const char* path : {"a", "b", "c"})
      agent->SetFile(path, WireBytes(path));
    mounter = MakeMounter();
    mounter->Mount(mountUid, cfg);
    backup = mounter->ResolveMountRootFid(mountUid);
  }
  ~MountsConcurrency() override { StopClients(); }

  void StartClients() {
    for (int t = 0; t < 3; ++t) {
      clients_.emplace_back([this, t] {
        while (!isEnding_) {
          try {
            Use(t);
          } catch (const exc::exc_base_t&) {
            // The mount is away just now.
          }
        }
      });
    }
  }
  void StopClients() {
    isEnding_ = true;
    for (std::thread& thread : clients_)
      thread.join();
    clients_.clear();
  }
  /// Until clients have seen so many files, from now on.
  void WaitForReads(int count) const {
    const int end = good_ + count;
    while (good_ < end)
      std::this_thread::yield();
  }

  std::uint64_t backup = InvalidFid;

 private:
  void Use(int thread) {
    for (const char* name : {"a", "b", "c"}) {
      const std::uint64_t fid = Find(backup, name);
      const auto file = boost::dynamic_pointer_cast<IFsFile>(tab->GetItem(fid));
      if (!file)
        continue;
      SFsReadBuffer buffer;
      file->Read(0, 1, buffer);
      ASSERT_EQ(buffer.length, 1U);
      ASSERT_EQ(buffer.data[0], static_cast<std::uint8_t>(name[0])) << "never that of another file";
      ++good_;
      if (thread == 1)
        file->Write(0, 1, name);
      WIN32_FILE_ATTRIBUTE_DATA attributes;
      file->GetAttributes(attributes);
    }
    if (thread == 2) {
      std::vector<SNfsChild> children;
      tab->ListChildren(backup, children);
      Connections();
      Inactive();
    }
  }

  std::vector<std::thread> clients_;
  std::atomic<bool> isEnding_{false};
  std::atomic<int> good_{0};
};

TEST_F(MountsConcurrency, PublishingAndWithdrawingUnderClients) {
  StartClients();
  for (int i = 0; i < 15; ++i) {
    WaitForReads(3);
    mounter->Dismount(mountUid);
    EXPECT_TRUE(Active().empty());
    std::vector<SNfsChild> children;
    tab->ListChildren(backup, children);
    EXPECT_TRUE(children.empty()) << "nothing came in behind it";
    mounter->Mount(mountUid, cfg);
  }
  StopClients();
  mounter->Dismount(mountUid);
  EXPECT_FALSE(tab->GetItemForMount(backup, mountUid));
}

TEST_F(MountsConcurrency, ReplacingUnderClients) {
  StartClients();
  for (int i = 0; i < 15; ++i) {
    // Not of a mount whose client was not yet served: one signal would do for both.
    agent->WaitForClients(i + 1);
    mounter->Mount(mountUid, cfg);
  }
  StopClients();
  EXPECT_EQ(Inactive().size() + Active().size(), 1U);
}

TEST_F(MountsConcurrency, TheHealthCheckBringsMountsBackUnderClients) {
  SHealthCheckWaits waits;
  waits.periodMs = 1;
  CRemoteFsHealthCheckThread check(mounter, waits);
  StartClients();
  for (int i = 0; i < 10; ++i) {
    WaitForReads(3);
    Answer(DieInReply());
    while (mounter->ResolveMountRootFid(mountUid) == backup && Inactive().empty())
      std::this_thread::yield();
    AnswerWell();
  }
  WaitForReads(3);
  StopClients();
  check.Stop();
}

TEST_F(MountsConcurrency, ChangesOfOneMountWaitForOneAnother) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        try {
          if ((i + t) % 2 == 0) {
            mounter->Dismount(mountUid);
          } else {
            mounter->Mount(mountUid, cfg);
          }
        } catch (const exc::exc_base_t& failure) {
          ADD_FAILURE() << failure.what();
        }
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  mounter->Dismount(mountUid);
  EXPECT_FALSE(tab->GetItemForMount(backup, mountUid));
  EXPECT_TRUE(Active().empty());
  EXPECT_TRUE(Inactive().empty());
}

}  // namespace
}  // namespace test
