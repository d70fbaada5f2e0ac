#include "fault/support/fault_fixture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace test {
namespace fs = std::filesystem;

CFaults::CFaults() {
  const std::string path = folder_.Path() + "/faults";
  const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  void* mapped = MAP_FAILED;
  if (file >= 0 && ftruncate(file, sizeof(SFaults)) == 0)
    mapped = mmap(nullptr, sizeof(SFaults), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (mapped == MAP_FAILED)
    throw std::runtime_error("no memory to share with the service");
  faults_ = static_cast<SFaults*>(mapped);
}

CFaults::~CFaults() {
  munmap(faults_, sizeof(SFaults));
}

std::map<std::string, std::string> CFaults::Environment() const {
  return {{"LD_PRELOAD", Program("fault_injection.so")}, {FaultsVariable, folder_.Path() + "/faults"}};
}

void CFaults::SetPath(const std::string& path) {
  const std::size_t length = std::min(path.size(), sizeof(SFaults::path) - 1);
  std::memcpy(faults_->path, path.data(), length);
  faults_->path[length] = '\0';
}

void CFaults::Clear() {
  for (std::atomic<int> SFaults::*error :
       {&SFaults::readError, &SFaults::writeError, &SFaults::openError, &SFaults::syncError})
    (faults_->*error).store(0);
  faults_->memoryOneIn = 0;
  faults_->clockSeconds = 0;
}

std::unique_ptr<CSmallDisk> CFaultTest::MakeDisk(const std::string& path, const std::string& size) {
  const CTempFolder kept;
  fs::copy(path, kept.Path(), fs::copy_options::recursive | fs::copy_options::overwrite_existing);
  auto disk = std::make_unique<CSmallDisk>(path, size);
  fs::copy(kept.Path(), path, fs::copy_options::recursive);
  return disk;
}

void CFaultTest::UseFaults() {
  for (const auto& [name, value] : faults_.Environment())
    service_.SetVariable(name, value);
}

void CFaultTest::Begin() {
  WriteFile(HostPath("known"), knownContent_);
  service_.Start();
  if (HasFatalFailure())
    return;
  root_ = NewClient().Mount().value();
  known_ = HandleOf("known");
  ExpectServing();
}

void CFaultTest::ExpectServing() {
  EXPECT_EQ(Client().GetAttr(known_), Ok);
  const SReadResult read = Client().Read(known_, 0, 65536);
  EXPECT_EQ(read.status, Ok);
  EXPECT_TRUE(read.data == knownContent_);
  EXPECT_EQ(Client().Lookup(root_, "known"), Ok);
}

void CFaultTest::ExpectWell() {
  ExpectServing();
  EXPECT_EQ(Client().Write(known_, 0, "k"), Ok);
  const std::string name = "round" + std::to_string(++round_);
  bytes_t folder;
  bytes_t file;
  ASSERT_EQ(Client().MkDir(root_, name, &folder), Ok);
  ASSERT_EQ(Client().Create(folder, "made", &file), Ok);
  EXPECT_EQ(Client().Write(file, 0, "content"), Ok);
  EXPECT_EQ(Client().Rename(folder, "made", folder, "moved"), Ok);
  EXPECT_EQ(Client().Read(file, 0, 100).data, "content");
  EXPECT_EQ(Client().List(folder).size(), 1U);
  EXPECT_EQ(Client().Remove(folder, "moved"), Ok);
  EXPECT_EQ(Client().RmDir(root_, name), Ok);
  EXPECT_EQ(Client().Lookup(root_, name), NoEntry);
  EXPECT_NO_THROW(NewClient().List(root_));
}

void CFaultTest::ExpectDescriptors(std::size_t most) {
  EXPECT_TRUE(WaitUntil([&] { return Descriptors() <= most; })) << Descriptors() << " instead of " << most;
}

std::string CFaultTest::Fill(const std::string& folder) {
  std::string path = folder + "/filler";
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  const std::string block(4096, 'x');
  while (write(file, block.data(), block.size()) > 0) {
  }
  EXPECT_EQ(errno, ENOSPC);
  close(file);
  return path;
}

}  // namespace test
