// A client of the three programs whose calls the input tells: handles, cookies, verifiers and times that replies gave
// are what the next calls name.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "programs/ep_mapper_table.h"
#include "programs/mount_rpc_interface.h"
#include "programs/nfs_rpc_interface.h"
#include "programs/portmap_rpc_interface.h"
#include "rpc/xdr_completion_queue.h"
#include "support/fake_fs_backend.h"
#include "vfs/nfs3/nfs_args.h"
#include "vfs/nfs3/nfs_results.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace fuzz {

/// An input's first byte.
namespace session_mode {
/// Calls go the way of the synchronous server, where READ and WRITE end by a callback; else that of the asynchronous
/// one.
inline constexpr std::uint8_t Callbacks = 0x01;
/// Of the target with a backend in memory: its files are served by a thread.
inline constexpr std::uint8_t FileThread = 0x02;
/// Of the target with host files: the registry stores what happens, and a restart finds it.
inline constexpr std::uint8_t Stored = 0x02;
}  // namespace session_mode

/// Bits of the byte after a call's selector.
namespace call_mark {
inline constexpr std::uint8_t NotAllowed = 0x01;
inline constexpr std::uint8_t Cut = 0x02;
inline constexpr std::uint8_t OtherClient = 0x04;
inline constexpr std::uint8_t BackendAway = 0x08;
inline constexpr std::uint8_t BackendFails = 0x10;
/// With callbacks: its reply is not waited for before the next call.
inline constexpr std::uint8_t UnderWay = 0x20;
}  // namespace call_mark

/// Selectors: procedures of NFS from 0 on, then these.
namespace call_selector {
inline constexpr std::uint8_t Mount = 0x40;
inline constexpr std::uint8_t Portmap = 0x60;
inline constexpr std::uint8_t Event = 0x70;
inline constexpr std::uint8_t Raw = 0x80;
}  // namespace call_selector

class CProgramSession {
 public:
  CProgramSession(CInput input, std::uint8_t mode) : input_(input), mode_(mode) {}
  CProgramSession(const CProgramSession&) = delete;
  CProgramSession& operator=(const CProgramSession&) = delete;
  virtual ~CProgramSession() {
    for (const PortmapRecord& row : CEpMapperTable::Instance().Dump())
      CEpMapperTable::Instance().Remove(row);
  }

  void Run() {
    constexpr int MostCalls = 64;
    for (int i = 0; i < MostCalls && !input_.IsEmpty(); ++i)
      MakeCall();
    Collect();
  }

 protected:
  virtual CVirtualFs& Fs() = 0;
  /// The backend before the next call.
  virtual void Prepare(std::uint8_t /*marks*/) {}
  /// What happens besides calls; nothing is under way meanwhile.
  virtual void Happen(std::uint8_t /*number*/) {}
  virtual void Read(const READ3res& /*result*/) {}

  CInput& Input() { return input_; }
  std::uint8_t Mode() const { return mode_; }
  void AddHandle(const nfs_fh3& handle) {
    constexpr std::size_t Most = 0xf0;
    if (handles_.size() < Most) {
      handles_.push_back(handle);
    } else {
      handles_[++oldest_ % Most] = handle;
    }
  }

  std::string Name() {
    static const std::array<std::string, 18> Names{
        "file", "folder", "FILE", "a",     "b",        "A",        ".",      "..",
        "",     "a/b",    "fuzz", "/fuzz", "\xff\xfe", "\xc3\xa4", "a.vmdk", std::string(300, 'n'),
        "link", "FUZZ"};
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t selector = input_.Byte();
    return selector < Own ? Names[selector % Names.size()] : TextOf(input_.Take(input_.Byte()));
  }

  /// Waits for the replies of all that is under way.
  void Collect() {
    constexpr std::uint32_t LimitMs = 60000;
    while (!underWay_.empty()) {
      Require(queue_->Event().Wait(LimitMs), "a call that was taken is answered");
      xdr_replies_t due;
      queue_->TakeFinished(due);
      for (const auto& reply : due) {
        Require(!underWay_.empty(), "there is a call for each reply");
        const check_t check = std::move(underWay_.front());
        underWay_.pop_front();
        check(BytesOf(*reply));
      }
    }
    Require(queue_->IsEmpty() && queue_->Weight() == 0, "nothing stays in the queue");
  }

 private:
  using check_t = std::function<void(bytes_view_t reply)>;
  enum program_t : std::size_t { Nfs = 0, Mount = 1, Portmap = 2 };

  void MakeCall() {
    const std::uint8_t selector = input_.Byte();
    marks_ = input_.Byte();
    if (selector >= call_selector::Raw) {
      Prepare(marks_);
      const bytes_view_t record = input_.Take(input_.Byte());
      Dispatch(static_cast<program_t>(selector % 3), record, [](bytes_view_t) {});
    } else if (selector >= call_selector::Event) {
      Collect();
      Happen(selector - call_selector::Event);
    } else if (selector >= call_selector::Portmap) {
      CallPortmap(selector - call_selector::Portmap);
    } else if (selector >= call_selector::Mount) {
      CallMount(selector - call_selector::Mount);
    } else {
      CXDRWriter call;
      Header(call, CNfsRpcInterface::Program, CNfsRpcInterface::Version, selector);
      CallNfs(selector, call);
    }
  }

  void CallPortmap(std::uint32_t procedure) {
    CXDRWriter call;
    Header(call, CPortmapRpcInterface::Program, CPortmapRpcInterface::Version, procedure);
    PortmapRecord{input_.Byte(), input_.Byte(), input_.Byte(), input_.Word()}.Encode(call);
    Send(Portmap, call, procedure);
  }

  void CallMount(std::uint32_t procedure) {
    constexpr std::uint32_t Mnt = 1;
    CXDRWriter call;
    Header(call, CMountRpcInterface::Program, CMountRpcInterface::Version, procedure);
    call.String(Name());
    if (procedure == Mnt) {
      Expect<CMountResult>(Mount, call, procedure, [this](const CMountResult& result) {
        if (result.status == MNT3_OK)
          AddHandle(result.handle);
      });
    } else {
      Send(Mount, call, procedure);
    }
  }

  void Header(CXDRWriter& call, std::uint32_t program, std::uint32_t version, std::uint32_t procedure) {
    for (const std::uint32_t word : {++xid_, 0U, 2U, program, version, procedure, 0U, 0U, 0U, 0U})
      call.UInt(word);
  }

  void CallNfs(std::uint8_t procedure, CXDRWriter& call) {
    switch (procedure) {
      case 1:
        return GetAttributes(call);
      case 2:
        return Exchange<SETATTR3res>(procedure, call, SETATTR3args{Handle(), Attributes(), Guard()});
      case 3:
        return Exchange<LOOKUP3res>(procedure, call, LOOKUP3args{Place()});
      case 4:
        return Exchange<ACCESS3res>(procedure, call, ACCESS3args{Handle(), input_.Byte()});
      case 6:
        return CallRead(call);
      case 7:
        return CallWrite(call);
      case 8:
        return Exchange<CREATE3res>(procedure, call, CREATE3args{Place(), input_.Byte(), Attributes(), {}});
      case 9:
        return Exchange<MKDIR3res>(procedure, call, MKDIR3args{Place(), Attributes()});
      case 12:
        return Exchange<REMOVE3res>(procedure, call, REMOVE3args{Place()});
      case 13:
        return Exchange<RMDIR3res>(procedure, call, RMDIR3args{Place()});
      case 14:
        return Exchange<RENAME3res>(procedure, call, RENAME3args{Place(), Place()});
      case 17:
        return List(call);
      case 18:
        return Exchange<FSSTAT3res>(procedure, call, FSSTAT3args{Handle()});
      case 19:
        return Exchange<FSINFO3res>(procedure, call, FSINFO3args{Handle()});
      default:
        return CallUnserved(procedure, call);
    }
  }

  /// NULL, the seven that are refused, and what no program has: their arguments are not read.
  void CallUnserved(std::uint8_t procedure, CXDRWriter& call) {
    if (procedure != 0)
      GETATTR3args{Handle()}.Encode(call);
    const std::uint32_t verifier = procedure == 0 ? 0 : 3;
    Send(Nfs, call, procedure, [verifier](CXDRReader& reader) {
      for (const std::uint32_t word : {1U, 0U, verifier, 0U, 0U})
        Require(reader.UInt() == word, "what is not served is refused");
    });
  }

  void GetAttributes(CXDRWriter& call) {
    const GETATTR3args args{Handle()};
    args.Encode(call);
    Expect<GETATTR3res>(Nfs, call, 1, [this, args](const GETATTR3res& result) {
      if (result.status != NFS3_OK)
        return;
      Require(result.attributes.fileid == FidFromHandle(args.object), "a handle is the item's whose attributes come");
      changed_ = result.attributes.ctime;
    });
  }

  void CallRead(CXDRWriter& call) {
    const READ3args args{Handle(), Offset(), Count()};
    args.Encode(call);
    Expect<READ3res>(Nfs, call, 6, [this, args](const READ3res& result) {
      if (result.status != NFS3_OK)
        return;
      Require(result.count <= args.count, "no more is read than was asked for");
      Read(result);
    });
  }

  void CallWrite(CXDRWriter& call) {
    WRITE3args args{Handle(), Offset(), Count(), input_.Byte(), {}};
    args.data = input_.Take(input_.Byte());
    args.Encode(call);
    Expect<WRITE3res>(Nfs, call, 7, [count = args.count, size = args.data.size()](const WRITE3res& result) {
      Require(result.status != NFS3_OK || (result.count == count && count <= size && result.committed == FILE_SYNC),
              "what is answered is written");
    });
  }

  void List(CXDRWriter& call) {
    READDIRPLUS3args args;
    args.dir = Handle();
    const std::uint8_t which = input_.Byte();
    constexpr std::uint8_t AnyCookie = 0xf0;
    if (which >= AnyCookie) {
      args.cookie = Offset();
    } else if (which != 0) {
      args.cookie = cookies_[which % cookies_.size()];
    }
    args.cookieVerifier = cookieVerifier_;
    args.dirCount = Count();
    args.maxCount = Count();
    args.Encode(call);
    Expect<READDIRPLUS3res>(
        Nfs, call, 17, [this, cookie = args.cookie](const READDIRPLUS3res& result) { CheckListing(result, cookie); });
  }

  void CheckListing(const READDIRPLUS3res& result, std::uint64_t cookie) {
    constexpr std::size_t MostEntries = 10;
    if (result.status != NFS3_OK)
      return;
    Require(result.entries.size() <= MostEntries, "a page has its size");
    Require(result.eof || !result.entries.empty(), "a listing comes to its end");
    cookieVerifier_ = result.cookieVerifier;
    std::set<std::string> names;
    for (const entryplus3& entry : result.entries) {
      Require(entry.cookie == ++cookie, "cookies follow each other");
      Require(names.insert(entry.name).second, "a name is listed once");
      Require(entry.nameHandle && FidFromHandle(*entry.nameHandle) == entry.fileid, "an entry has its handle");
      AddHandle(*entry.nameHandle);
    }
    cookies_[++nextCookie_ % cookies_.size()] = cookie;
  }

  template <typename Result>
  void Exchange(std::uint32_t procedure, CXDRWriter& call, const auto& args) {
    args.Encode(call);
    Expect<Result>(Nfs, call, procedure, [this](const Result& result) { Keep(result); });
  }

  /// A reply holds its result, whole and with nothing after it.
  template <typename Result>
  void Expect(program_t program, CXDRWriter& call, std::uint32_t procedure,
              const std::function<void(const Result&)>& keep) {
    Send(program, call, procedure, [keep](CXDRReader& reader) {
      for (const std::uint32_t word : {1U, 0U, 0U, 0U, 0U})
        Require(reader.UInt() == word, "a call is accepted");
      Result result;
      result.Decode(reader);
      Require(reader.Remaining() == 0, "nothing stands behind a result");
      keep(result);
    });
  }

  void Keep(const auto&) {}
  void Keep(const LOOKUP3res& result) {
    if (result.status == NFS3_OK)
      AddHandle(result.object);
  }
  void Keep(const CREATE3res& result) {
    if (result.object)
      AddHandle(*result.object);
  }
  void Keep(const MKDIR3res& result) {
    if (result.object)
      AddHandle(*result.object);
  }

  static bytes_t BytesOf(const CXDRWriter& writer) {
    constexpr std::size_t MarkSize = 4;
    io::byte_buffer_t out;
    writer.Finish(out, true);
    return {out.begin() + MarkSize, out.end()};
  }

  void Send(program_t program, const CXDRWriter& call, std::uint32_t procedure,
            std::function<void(CXDRReader&)> judge = {}) {
    Prepare(marks_);
    bytes_t record = BytesOf(call);
    if ((marks_ & call_mark::Cut) != 0) {
      record.resize(std::min<std::size_t>(record.size(), input_.Word() % 256));
      Dispatch(program, record, [](bytes_view_t) {});
      return;
    }
    const bool isDenied = (marks_ & call_mark::NotAllowed) != 0 && procedure != 0;
    const bool isTaken =
        Dispatch(program, record, [xid = xid_, isDenied, judge = std::move(judge)](bytes_view_t reply) {
          CXDRReader reader(boost::make_shared<io::byte_buffer_t>(reply.begin(), reply.end()));
          Require(Try([&] {
                    Require(reader.UInt() == xid, "replies come in the order of their calls");
                    if (isDenied) {
                      for (const std::uint32_t word : {1U, 0U, 0U, 0U, 0U, 13U})
                        Require(reader.UInt() == word, "a stranger is refused");
                    } else if (judge) {
                      judge(reader);
                    }
                  }),
                  "a reply can be decoded");
        });
    // A service that is not there cannot be asked for its exports.
    constexpr std::uint32_t Export = 5;
    Require(isTaken || (program == Mount && procedure == Export), "a whole call has a reply");
  }

  /// False when the record is refused without a reply.
  bool Dispatch(program_t program, bytes_view_t record, const check_t& check) {
    const sockaddr_in peer = test::Client((marks_ & call_mark::OtherClient) != 0 ? "10.0.0.9" : "10.0.0.1");
    const bool isAllowed = (marks_ & call_mark::NotAllowed) == 0;
    const auto reader =
        boost::make_shared<CXDRReader>(boost::make_shared<io::byte_buffer_t>(record.begin(), record.end()));
    if ((mode_ & session_mode::Callbacks) == 0) {
      constexpr std::array Programs{DispatchNfsCall, DispatchMountCall, DispatchPortmapCall};
      CXDRWriter writer;
      if (!Try([&] { Programs.at(program)(isAllowed, peer, *reader, writer, Fs()); }))
        return false;
      check(BytesOf(writer));
      return true;
    }
    const std::array<IXdrRpcInterface*, 3> programs{&nfs_, &mount_, &portmap_};
    if (!Try([&] { programs.at(program)->ProcessAsyncCall(isAllowed, peer, reader, queue_, Fs()); }))
      return false;
    underWay_.push_back(check);
    if ((marks_ & call_mark::UnderWay) == 0)
      Collect();
    return true;
  }

  /// One that a reply gave, or one of the input's.
  nfs_fh3 Handle() {
    constexpr std::uint8_t Own = 0xf0;
    const std::uint8_t selector = input_.Byte();
    if (selector < Own && !handles_.empty())
      return handles_[selector % handles_.size()];
    nfs_fh3 handle;
    const bytes_view_t bytes = input_.Take(input_.Byte() % (nfs_fh3::MaxSize + 1));
    std::copy(bytes.begin(), bytes.end(), handle.data.begin());
    handle.size = static_cast<std::uint32_t>(bytes.size());
    return handle;
  }
  diropargs3 Place() {
    const nfs_fh3 dir = Handle();
    return {dir, Name()};
  }

  /// Small ones, and those at the ends of the range.
  std::uint64_t Offset() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number : std::uint64_t{0} - (number - Small);
  }
  std::uint32_t Count() {
    const std::uint16_t number = input_.Word();
    constexpr std::uint16_t Small = 0xff00;
    return number < Small ? number : 0U - (number - Small);
  }
  sattr3 Attributes() {
    sattr3 attributes;
    const std::uint8_t which = input_.Byte();
    if (which == 0)
      return attributes;
    attributes.setMode = (which & 1) != 0;
    attributes.mode = input_.Word();
    attributes.setSize = (which & 2) != 0;
    attributes.size = Offset();
    attributes.atimeHow = which >> 2 & 3;
    attributes.atime = {Count(), Count()};
    attributes.mtimeHow = which >> 4 & 3;
    attributes.mtime = {Count(), Count()};
    return attributes;
  }
  /// None, the time that a reply gave, or one of the input's.
  std::optional<nfstime3> Guard() {
    switch (input_.Byte() % 3) {
      case 0:
        return std::nullopt;
      case 1:
        return changed_;
      default:
        return nfstime3{Count(), Count()};
    }
  }

  CInput input_;
  const std::uint8_t mode_;
  std::uint8_t marks_ = 0;
  std::uint32_t xid_ = 0x11223344;

  // What replies gave.
  std::vector<nfs_fh3> handles_;
  std::size_t oldest_ = 0;
  std::array<std::uint64_t, 8> cookies_{};
  std::size_t nextCookie_ = 0;
  nfs_verifier_t cookieVerifier_{};
  nfstime3 changed_;

  // With callbacks.
  CNfsRpcInterface nfs_;
  CMountRpcInterface mount_;
  CPortmapRpcInterface portmap_;
  const boost::shared_ptr<CXDRCompletionQueue> queue_ = boost::make_shared<CXDRCompletionQueue>();
  std::deque<check_t> underWay_;  ///< The checks of what was taken and has no reply yet.
};

}  // namespace fuzz
