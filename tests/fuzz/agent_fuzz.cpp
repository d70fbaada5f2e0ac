// A mount agent before a service that asks for anything, with an overlay that somebody has damaged: the sessions'
// requests, the overlay's file, and what a guest reads of what it wrote.
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>

#include "fuzz/agent_input.h"
#include "fuzz/fuzz_input.h"
#include "kelvo-mount-agent/folder_content.h"
#include "kelvo-mount-agent/little_endian.h"
#include "mount-agent-lib/session.h"
#include "platform/text.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
namespace mode = fuzz::agent_mode;
using mount_agent::BlockSize;
using mount_agent::CFolderContent;
using mount_agent::COverlayFile;
using mount_agent::COverlayMap;
using mount_agent::CSession;

/// The files of the backup; the second has an overlay from the start.
constexpr const char* Names[] = {"disk", "other"};
/// What a guest writes beyond is not looked at: the file would be long.
constexpr std::uint64_t LongestModel = 1U << 20;

struct SFolders {
  test::TempDir dir;
  std::string source = dir / "source";
  std::string overlay = dir / "overlay";
};

SFolders& Folders() {
  static SFolders folders;
  return folders;
}

std::string Pattern(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i)
    text[i] = static_cast<char>('a' + i % 23);
  return text;
}

class CAgent {
 public:
  explicit CAgent(fuzz::CInput input) : input_(input), mode_(input_.Byte()) {
    for (const std::string& folder : {Folders().source, Folders().overlay}) {
      fs::remove_all(folder);
      fs::create_directory(folder);
    }
    for (const char* name : Names) {
      const std::string content = Pattern(input_.Word());
      std::ofstream(fs::path(Folders().source) / name) << content;
      models_[name] = content;
    }
    if ((mode_ & mode::DamagedOverlay) != 0)
      DamageOverlay();
  }

  void Run() {
    if (!Open())
      return;
    constexpr int MostRequests = 100;
    for (int i = 0; i < MostRequests && !input_.IsEmpty() && session_; ++i)
      MakeRequest(input_.Byte() % fuzz::agent_request::Kinds);
    CheckSource();
  }

 private:
  using word_t = std::uint32_t;

  /// False when the overlay is refused.
  bool Open() {
    session_.reset();
    content_.reset();
    mount_agent::SFolderOptions options{Folders().source, Folders().overlay, mount_agent::writes_t::ToOverlay};
    if ((mode_ & mode::ToSource) != 0) {
      options.overlay.clear();
      options.writes = mount_agent::writes_t::ToSource;
    } else if ((mode_ & mode::ReadOnly) != 0) {
      options.writes = mount_agent::writes_t::Refused;
    }
    if (!fuzz::Try([&] { content_ = std::make_unique<CFolderContent>(options); }))
      return false;
    session_.emplace(*content_);
    handles_.assign({0});
    paths_.clear();
    return true;
  }

  // ---- The damaged overlay.

  void DamageOverlay() {
    const std::string path = Folders().overlay + '/' + COverlayFile::FileNameOf(Names[1]);
    {
      // A sound one with two blocks in it.
      CFolderContent content({Folders().source, Folders().overlay, mount_agent::writes_t::ToOverlay});
      boost::shared_ptr<mount_agent::IMountedItem> item;
      content.Open({Names[1]}, item);
      const std::string data(100, 'z');
      item->Write(BlockSize - 50, data.data(), data.size());
    }
    const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    fuzz::Require(file >= 0, "a write makes an overlay");
    constexpr int MostPlaces = 16;
    const int places = input_.Byte() % MostPlaces;
    for (int i = 0; i < places; ++i) {
      const std::uint64_t at = input_.Word();
      const fuzz::bytes_view_t bytes = input_.Take(input_.Byte());
      fuzz::Require(bytes.empty() || ::pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(at)) > 0,
                    "there is room");
    }
    const std::uint16_t length = input_.Word();
    if (length != 0)
      fuzz::Require(::ftruncate(file, length * 16L) == 0, "there is room");
    if ((mode_ & mode::MendSums) != 0) {
      MendSum(file, 0, 12);
      MendSum(file, BlockSize, 4);
    }
    ::close(file);
    models_.erase(Names[1]);
  }

  static void MendSum(int file, std::uint64_t at, std::size_t sumAt) {
    std::array<std::uint8_t, BlockSize> block{};
    const auto place = static_cast<off_t>(at);
    if (::pread(file, block.data(), block.size(), place) != static_cast<ssize_t>(block.size()))
      return;
    mount_agent::PutAt<std::uint32_t>(&block[sumAt], 0);
    const auto sum = static_cast<std::uint32_t>(::crc32(0, block.data(), static_cast<uInt>(block.size())));
    mount_agent::PutAt<std::uint32_t>(&block[sumAt], sum);
    fuzz::Require(::pwrite(file, block.data(), block.size(), place) > 0, "there is room");
  }

  // ---- Requests.

  void MakeRequest(std::uint8_t kind) {
    using mount_agent::command_t;
    mount_agent::bytes_t request;
    mount_agent::Put<word_t>(request, kind);
    switch (kind) {
      case static_cast<std::uint8_t>(command_t::Enumerate): {
        mount_agent::PutCounted(request, input_.Byte() % 2 == 0 ? "" : Path());
        const mount_agent::bytes_t reply = Ask(request);
        return;
      }
      case static_cast<std::uint8_t>(command_t::Open):
        return AskToOpen(request);
      case static_cast<std::uint8_t>(command_t::Read):
        return AskToRead(request);
      case static_cast<std::uint8_t>(command_t::Write):
        return AskToWrite(request);
      case static_cast<std::uint8_t>(command_t::GetSize):
        return AskForSize(request);
      case fuzz::agent_request::Raw: {
        const fuzz::bytes_view_t raw = input_.Take(input_.Byte());
        const mount_agent::bytes_t bytes(raw.begin(), raw.end());
        // It may be a write as well: what the files hold is not known any more.
        models_.clear();
        Ask(bytes);
        return;
      }
      default:
        fuzz::Require(content_->Flush() == platform::error::Success, "what was written can be flushed");
        fuzz::Require(Open(), "what an agent has written another one can serve");
    }
  }

  mount_agent::bytes_t Ask(const mount_agent::bytes_t& request) {
    // In a block of its own, so that what is read past its end is seen.
    const auto exact = std::make_unique<std::uint8_t[]>(request.size());
    std::copy(request.begin(), request.end(), exact.get());
    mount_agent::bytes_t reply;
    isClosed_ = !session_->Answer(exact.get(), request.size(), reply);
    for (const platform::file_part_t& part : session_->FileParts()) {
      mount_agent::bytes_t bytes(part.length);
      const ssize_t got = ::pread(part.file, bytes.data(), bytes.size(), static_cast<off_t>(part.offset));
      fuzz::Require(got == static_cast<ssize_t>(part.length), "a reply lies where it is said to lie");
      reply.insert(reply.end(), bytes.begin(), bytes.end());
    }
    return reply;
  }

  std::string Path() {
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t which = input_.Byte();
    return which >= Own ? fuzz::TextOf(input_.Take(input_.Byte())) : Names[which % std::size(Names)];
  }
  word_t Handle() {
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t which = input_.Byte();
    return which >= Own ? word_t{input_.Word()} << 16 | input_.Word() : handles_[which % handles_.size()];
  }
  /// Anywhere in the first blocks, or at the ends of the range.
  std::uint64_t Offset() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number * 5ULL : std::uint64_t{0} - (number - Small);
  }

  void AskToOpen(mount_agent::bytes_t& request) {
    const std::string path = Path();
    mount_agent::PutCounted(request, path);
    const mount_agent::bytes_t reply = Ask(request);
    fuzz::Require(!isClosed_ && (reply.empty() || reply.size() == sizeof(word_t)), "an open is answered");
    const auto handle = reply.empty() ? ~word_t{0} : mount_agent::GetAt<word_t>(reply.data());
    // The same file under other spellings, too.
    const auto components = platform::SplitPath(path);
    const bool isThere = components.size() == 1 && (components.front() == Names[0] || components.front() == Names[1]);
    fuzz::Require(!isThere || handle != ~word_t{0}, "what is there can be opened");
    if (handle == ~word_t{0})
      return;
    handles_.push_back(handle);
    paths_[handle] = isThere ? std::string(components.front()) : std::string();
  }

  /// What is known of the file of a handle, if anything is.
  std::string* ModelOf(word_t handle) {
    const auto path = paths_.find(handle);
    if (path == paths_.end())
      return nullptr;
    const auto model = models_.find(path->second);
    return model == models_.end() ? nullptr : &model->second;
  }

  void AskToRead(mount_agent::bytes_t& request) {
    const word_t handle = Handle();
    const std::uint64_t offset = Offset();
    const word_t length = input_.Word() * 3U;
    mount_agent::Put(request, handle);
    mount_agent::Put(request, offset);
    mount_agent::Put(request, length);
    const mount_agent::bytes_t reply = Ask(request);
    fuzz::Require(reply.size() <= length, "no more is read than was asked for");
    const std::string* const model = ModelOf(handle);
    if (model == nullptr)
      return;
    const std::string expected = offset < model->size() ? model->substr(offset, length) : std::string();
    fuzz::Require(!isClosed_ && fuzz::TextOf(reply) == expected, "a guest reads what is there");
  }

  void AskToWrite(mount_agent::bytes_t& request) {
    const word_t handle = Handle();
    const std::uint64_t offset = Offset();
    const std::string data(input_.Word(), static_cast<char>(input_.Byte()));
    mount_agent::Put(request, handle);
    mount_agent::Put(request, offset);
    mount_agent::PutCounted(request, data);
    std::string* const model = ModelOf(handle);
    const mount_agent::bytes_t reply = Ask(request);
    fuzz::Require(!isClosed_ && (reply.empty() || reply.size() == sizeof(word_t)), "a write is answered");
    if (model == nullptr) {
      // Of a file without a model, or of any: a handle follows from a name.
      if (!paths_.contains(handle))
        models_.clear();
      return;
    }
    const bool isWritable = (mode_ & mode::ToSource) != 0 || (mode_ & mode::ReadOnly) == 0;
    fuzz::Require(isWritable || reply.empty() || data.empty(), "nobody writes who may not");
    if (reply.empty())
      return;
    fuzz::Require(mount_agent::GetAt<word_t>(reply.data()) == data.size(), "all of it is written");
    if (data.empty())
      return;
    if (offset + data.size() > LongestModel) {
      models_.erase(paths_[handle]);
      return;
    }
    if (model->size() < offset + data.size())
      model->resize(offset + data.size());
    model->replace(offset, data.size(), data);
  }

  void AskForSize(mount_agent::bytes_t& request) {
    const word_t handle = Handle();
    mount_agent::Put(request, handle);
    const mount_agent::bytes_t reply = Ask(request);
    const std::string* const model = ModelOf(handle);
    if (model == nullptr)
      return;
    fuzz::Require(
        reply.size() == sizeof(std::uint64_t) && mount_agent::GetAt<std::uint64_t>(reply.data()) == model->size(),
        "a file is as long as it is");
  }

  void CheckSource() const {
    if ((mode_ & mode::ToSource) != 0)
      return;
    std::ifstream file(fs::path(Folders().source) / Names[0]);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    fuzz::Require(content == Pattern(content.size()), "the backup stays as it is");
  }

  fuzz::CInput input_;
  const std::uint8_t mode_;
  std::unique_ptr<CFolderContent> content_;
  std::optional<CSession> session_;
  bool isClosed_ = false;
  std::vector<word_t> handles_;
  std::map<word_t, std::string> paths_;        ///< By handle.
  std::map<std::string, std::string> models_;  ///< What a file holds, as long as it is known.
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::DropLog();
  fuzz::StoreInMemory();
  Folders();
  return 0;
}

/// A byte of modes, the sizes of the two files, the damage, then the requests.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  CAgent({data, size}).Run();
  return 0;
}
