#include "platform/named_event.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/location.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using platform::descriptor_t;
using platform::named_event_t;
using event_ptr_t = boost::shared_ptr<named_event_t>;
namespace error = platform::error;

constexpr mode_t Private = 0600;

class NamedEventTest : public testing::Test {
 protected:
  static event_ptr_t MustCreate(const std::string& name) {
    event_ptr_t event;
    EXPECT_EQ(named_event_t::Create(name, Private, event), 0U);
    return event;
  }
  static event_ptr_t MustOpen(const std::string& name) {
    event_ptr_t event;
    EXPECT_EQ(named_event_t::Open(name, event), 0U);
    return event;
  }
  std::string SocketPath(const std::string& name) const { return folder_ / ("run/event/" + name); }

  /// A peer that connects and does nothing else.
  descriptor_t Connect(const std::string& name) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = SocketPath(name);
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    descriptor_t peer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0)
        << std::strerror(errno);
    return peer;
  }
  /// A socket under the name that is not an event's.
  descriptor_t Squat(const std::string& name) const {
    fs::create_directories(folder_ / "run/event");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    SocketPath(name).copy(address.sun_path, sizeof(address.sun_path) - 1);
    descriptor_t listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener.Get(), 5), 0);
    return listener;
  }
  /// Answers one peer with a byte and, if there is one, a descriptor.
  static void Answer(int listener, int descriptor) {
    const descriptor_t peer(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      cmsghdr* header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    }
    EXPECT_EQ(::sendmsg(peer.Get(), &message, MSG_NOSIGNAL), 1);
  }

  test::TempDir folder_;
  test::ScopedEnvironment runtime_{"KELVO_RUNTIME_DIR", folder_ / "run"};
};

TEST_F(NamedEventTest, IsNotSignalledUntilItIsSet) {
  const event_ptr_t event = MustCreate("Global\\KelvoTest");
  EXPECT_FALSE(event->IsSet());
  EXPECT_EQ(event->Wait(0), error::WaitTimeout);
  EXPECT_EQ(event->Set(), 0U);
  EXPECT_EQ(event->Set(), 0U);
  // It stays set, however many wait for it, until it is reset.
  EXPECT_EQ(event->Wait(0), 0U);
  EXPECT_EQ(event->Wait(platform::Infinite), 0U);
  EXPECT_EQ(event->Reset(), 0U);
  EXPECT_EQ(event->Reset(), 0U);
  EXPECT_FALSE(event->IsSet());
}

TEST_F(NamedEventTest, OthersFindItByItsName) {
  const event_ptr_t owner = MustCreate("Global\\KelvoTest");
  const event_ptr_t other = MustOpen("KelvoTest");
  ASSERT_TRUE(other);
  EXPECT_FALSE(other->IsSet());
  EXPECT_EQ(other->Set(), 0U);
  EXPECT_TRUE(owner->IsSet());
  EXPECT_EQ(owner->Reset(), 0U);
  EXPECT_EQ(other->Wait(0), error::WaitTimeout);
  EXPECT_EQ(owner->Set(), 0U);
  EXPECT_EQ(MustOpen("Global\\KelvoTest")->Wait(0), 0U);
}

TEST_F(NamedEventTest, AWaitEndsWhenAnotherSetsIt) {
  const event_ptr_t owner = MustCreate("KelvoTest");
  const event_ptr_t other = MustOpen("KelvoTest");
  std::thread waiter([&] { EXPECT_EQ(other->Wait(300000), 0U); });
  EXPECT_EQ(owner->Set(), 0U);
  waiter.join();
}

TEST_F(NamedEventTest, IsNotThereWithoutAnOwner) {
  event_ptr_t event;
  EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::FileNotFound);
  EXPECT_FALSE(event);
  MustCreate("KelvoTest").reset();
  EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::FileNotFound);
  EXPECT_FALSE(fs::exists(SocketPath("KelvoTest")));
}

TEST_F(NamedEventTest, CreatingOneThatExistsGivesThatOne) {
  const event_ptr_t owner = MustCreate("KelvoTest");
  event_ptr_t second;
  EXPECT_EQ(named_event_t::Create("KelvoTest", Private, second), error::AlreadyExists);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->Set(), 0U);
  EXPECT_TRUE(owner->IsSet());
  // It is not the second's to end.
  second.reset();
  EXPECT_TRUE(MustOpen("KelvoTest")->IsSet());
}

TEST_F(NamedEventTest, HandlesOutliveTheOwner) {
  event_ptr_t owner = MustCreate("KelvoTest");
  const event_ptr_t other = MustOpen("KelvoTest");
  owner->Set();
  owner.reset();
  EXPECT_EQ(other->Wait(0), 0U);
  EXPECT_EQ(other->Reset(), 0U);
  // A new event of the name is another.
  const event_ptr_t next = MustCreate("KelvoTest");
  EXPECT_EQ(next->Set(), 0U);
  EXPECT_FALSE(other->IsSet());
}

TEST_F(NamedEventTest, LivesAsLongAsItsProcess) {
  std::array<int, 2> ready{};
  ASSERT_EQ(::pipe(ready.data()), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const event_ptr_t event = MustCreate("KelvoTest");
    event->Set();
    ::_exit(::write(ready[1], "x", 1) == 1 ? ::pause() : 1);
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::close(ready[0]);
  ::close(ready[1]);
  event_ptr_t event;
  EXPECT_EQ(named_event_t::Create("KelvoTest", Private, event), error::AlreadyExists);
  EXPECT_TRUE(event->IsSet());
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  // What it left is no event, and does not stand in the way of a new one.
  ASSERT_TRUE(fs::exists(SocketPath("KelvoTest")));
  EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::FileNotFound);
  EXPECT_EQ(named_event_t::Create("KelvoTest", Private, event), 0U);
  EXPECT_FALSE(MustOpen("KelvoTest")->IsSet());
}

TEST_F(NamedEventTest, ModesAreAsAskedWhateverTheMask) {
  const mode_t old = ::umask(0077);
  event_ptr_t open;
  event_ptr_t closed;
  EXPECT_EQ(named_event_t::Create("Open", 0666, open), 0U);
  EXPECT_EQ(named_event_t::Create("Closed", 0600, closed), 0U);
  ::umask(old);
  const auto modeOf = [](const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
  };
  EXPECT_EQ(modeOf(SocketPath("Open")), 0666U);
  EXPECT_EQ(modeOf(SocketPath("Closed")), 0600U);
  EXPECT_EQ(modeOf(folder_ / "run/event"), 0755U);
  EXPECT_EQ(modeOf(folder_ / "run"), 0755U);
}

TEST_F(NamedEventTest, OnlyPlainNamesAreNames) {
  event_ptr_t event;
  for (const std::string name : {"", "Global\\", ".", "..", "a/b", "a\\b", "Global\\..\\x", "Global\\Global\\x"}) {
    EXPECT_EQ(named_event_t::Create(name, Private, event), error::PathNotFound) << name;
    EXPECT_EQ(named_event_t::Open(name, event), error::PathNotFound) << name;
  }
  EXPECT_EQ(named_event_t::Create(std::string("a\0b", 3), Private, event), error::PathNotFound);
  EXPECT_EQ(named_event_t::Create(std::string(300, 'n'), Private, event), error::FilenameExceedsRange);
}

TEST_F(NamedEventTest, ALongFolderIsNoHindrance) {
  const std::string deep = folder_ / std::string(100, 'd');
  const test::ScopedEnvironment runtime("KELVO_RUNTIME_DIR", deep);
  const event_ptr_t owner = MustCreate("KelvoTest");
  const event_ptr_t other = MustOpen("KelvoTest");
  ASSERT_TRUE(owner && other);
  other->Set();
  EXPECT_TRUE(owner->IsSet());
}

TEST_F(NamedEventTest, SomethingElseUnderTheNameStays) {
  fs::create_directories(folder_ / "run/event");
  std::ofstream(SocketPath("File")) << "x";
  event_ptr_t event;
  EXPECT_EQ(named_event_t::Create("File", Private, event), error::InvalidHandle);
  EXPECT_EQ(named_event_t::Open("File", event), error::InvalidHandle);
  EXPECT_EQ(fs::file_size(SocketPath("File")), 1U);
  fs::create_symlink("/etc/passwd", SocketPath("Link"));
  EXPECT_EQ(named_event_t::Create("Link", Private, event), error::InvalidHandle);
  EXPECT_TRUE(fs::is_symlink(SocketPath("Link")));
}

TEST_F(NamedEventTest, AnOwnerWhoHandsOutSomethingElseIsNone) {
  const descriptor_t listener = Squat("KelvoTest");
  const descriptor_t file(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int handed : {file.Get(), -1}) {
    std::thread stranger([&] { Answer(listener.Get(), handed); });
    event_ptr_t event;
    EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::InvalidHandle);
    EXPECT_FALSE(event);
    stranger.join();
  }
  std::thread leaving([&] { const descriptor_t peer(::accept(listener.Get(), nullptr, nullptr)); });
  event_ptr_t event;
  EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::FileNotFound);
  leaving.join();
}

TEST_F(NamedEventTest, AnOwnerWhoDoesNotAnswerIsGivenUp) {
  const descriptor_t listener = Squat("KelvoTest");
  event_ptr_t event;
  EXPECT_EQ(named_event_t::Open("KelvoTest", event), error::SemaphoreTimeout);
  EXPECT_FALSE(event);
}

TEST_F(NamedEventTest, PeersThatDoNotReadCostNothing) {
  event_ptr_t owner = MustCreate("KelvoTest");
  std::vector<descriptor_t> silent;
  silent.reserve(200);
  for (int i = 0; i < 200; ++i)
    silent.push_back(Connect("KelvoTest"));
  for (descriptor_t& peer : silent)
    ::shutdown(peer.Get(), SHUT_RD);
  const event_ptr_t other = MustOpen("KelvoTest");
  ASSERT_TRUE(other);
  EXPECT_EQ(owner->Set(), 0U);
  EXPECT_EQ(other->Wait(0), 0U);
  // Nor does one keep the owner from going.
  owner.reset();
  EXPECT_FALSE(fs::exists(SocketPath("KelvoTest")));
}

TEST_F(NamedEventTest, PeersThatSpoilTheEventDoNotHangUs) {
  const event_ptr_t owner = MustCreate("KelvoTest");
  const event_ptr_t hostile = MustOpen("KelvoTest");
  ASSERT_TRUE(hostile);
  // Blocking, and full or empty: each would hang a plain write or read.
  ASSERT_EQ(::fcntl(hostile->Descriptor(), F_SETFL, O_RDWR), 0);
  EXPECT_EQ(owner->Reset(), 0U);
  const std::uint64_t full = 0xFFFFFFFFFFFFFFFE;
  ASSERT_EQ(::write(hostile->Descriptor(), &full, sizeof(full)), static_cast<ssize_t>(sizeof(full)));
  EXPECT_EQ(owner->Set(), 0U);
  EXPECT_EQ(owner->Wait(0), 0U);
  ASSERT_EQ(::fcntl(hostile->Descriptor(), F_SETFL, O_RDWR), 0);
  EXPECT_EQ(owner->Reset(), 0U);
  EXPECT_FALSE(owner->IsSet());
}

TEST_F(NamedEventTest, ALockThatAnotherKeepsIsNoHindrance) {
  fs::create_directories(folder_ / "run/event");
  const descriptor_t hostile(::open((folder_ / "run/event").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(hostile.Get(), LOCK_EX), 0);
  event_ptr_t owner = MustCreate("KelvoTest");
  ASSERT_TRUE(owner);
  EXPECT_TRUE(MustOpen("KelvoTest"));
  owner.reset();
  EXPECT_FALSE(fs::exists(SocketPath("KelvoTest")));
}

TEST_F(NamedEventTest, RunningOutOfDescriptorsPasses) {
  const event_ptr_t owner = MustCreate("KelvoTest");
  descriptor_t peer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t whole = limit.rlim_cur;
  limit.rlim_cur = 3;  // Below what is open, so no accept succeeds.
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  SocketPath("KelvoTest").copy(address.sun_path, sizeof(address.sun_path) - 1);
  EXPECT_EQ(::connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  pollfd answer{peer.Get(), POLLIN, 0};
  const int early = ::poll(&answer, 1, 20);
  limit.rlim_cur = whole;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(early, 0);
  EXPECT_EQ(::poll(&answer, 1, 30000), 1);
  EXPECT_TRUE(MustOpen("KelvoTest"));
}

TEST_F(NamedEventTest, OneOfManyCreatorsIsTheOwner) {
  // A leftover tempts all of them to replace it.
  { const descriptor_t gone = Squat("KelvoTest"); }
  constexpr int Creators = 8;
  std::array<event_ptr_t, Creators> events;
  std::atomic<int> owners = 0;
  std::vector<std::thread> threads;
  threads.reserve(Creators);
  for (event_ptr_t& event : events) {
    threads.emplace_back([&] {
      const platform::error_t created = named_event_t::Create("KelvoTest", Private, event);
      owners += created == error::Success ? 1 : 0;
      EXPECT_TRUE(created == error::Success || created == error::AlreadyExists) << created;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(owners, 1);
  events[3]->Set();
  for (const event_ptr_t& event : events)
    EXPECT_TRUE(event->IsSet());
}

TEST_F(NamedEventTest, ItsThreadTakesNoSignals) {
  const event_ptr_t owner = MustCreate("KelvoTest");
  ASSERT_TRUE(MustOpen("KelvoTest"));
  for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
    std::ifstream status(entry.path() / "status");
    const std::string text{std::istreambuf_iterator<char>(status), {}};
    if (text.find("Name:\tnamed event") == std::string::npos)
      continue;
    const std::size_t at = text.find("SigBlk:\t");
    ASSERT_NE(at, std::string::npos);
    const std::uint64_t blocked = std::stoull(text.substr(at + 8, 16), nullptr, 16);
    EXPECT_TRUE(blocked & (1ULL << (SIGTERM - 1)));
    EXPECT_TRUE(blocked & (1ULL << (SIGINT - 1)));
    EXPECT_FALSE(blocked & (1ULL << (SIGSEGV - 1)));
    return;
  }
  ADD_FAILURE() << "no such thread";
}

}  // namespace
