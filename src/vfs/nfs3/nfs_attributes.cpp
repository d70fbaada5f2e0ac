#include "vfs/nfs3/nfs_attributes.h"

#include "vfs/nfs3/nfs_wire.h"

using namespace nfs_wire;

namespace {

constexpr std::uint64_t TicksPerSecond = 10'000'000;
constexpr std::uint32_t NanosecondsPerTick = 100;

/// A flag and, when it is set, the value. A value that is not there stays as it is.
template <typename Value>
void GetFlagged(CXDRReader& reader, bool& isSet, Value& value) {
  isSet = reader.Bool();
  if (isSet)
    Get(reader, value);
}

template <typename Value>
void PutFlagged(CXDRWriter& writer, bool isSet, const Value& value) {
  Put(writer, isSet);
  if (isSet)
    Put(writer, value);
}

void GetTime(CXDRReader& reader, std::uint32_t& how, nfstime3& time) {
  how = reader.UInt();
  if (how == SET_TO_CLIENT_TIME)
    Get(reader, time);
}

void PutTime(CXDRWriter& writer, std::uint32_t how, const nfstime3& time) {
  Put(writer, how);
  if (how == SET_TO_CLIENT_TIME)
    Put(writer, time);
}

}  // namespace

void nfstime3::Decode(CXDRReader& reader) {
  GetAll(reader, seconds, nseconds);
}
void nfstime3::Encode(CXDRWriter& writer) const {
  PutAll(writer, seconds, nseconds);
}

void fattr3::Decode(CXDRReader& reader) {
  GetAll(reader, type, mode, nlink, uid, gid, size, used, rdev.specdata1, rdev.specdata2, fsid, fileid, atime, mtime,
         ctime);
}
void fattr3::Encode(CXDRWriter& writer) const {
  PutAll(writer, type, mode, nlink, uid, gid, size, used, rdev.specdata1, rdev.specdata2, fsid, fileid, atime, mtime,
         ctime);
}

void wcc_attr::Decode(CXDRReader& reader) {
  GetAll(reader, size, mtime, ctime);
}
void wcc_attr::Encode(CXDRWriter& writer) const {
  PutAll(writer, size, mtime, ctime);
}

void wcc_data::Decode(CXDRReader& reader) {
  GetAll(reader, before, after);
}
void wcc_data::Encode(CXDRWriter& writer) const {
  PutAll(writer, before, after);
}

void sattr3::Decode(CXDRReader& reader) {
  GetFlagged(reader, setMode, mode);
  GetFlagged(reader, setUid, uid);
  GetFlagged(reader, setGid, gid);
  GetFlagged(reader, setSize, size);
  GetTime(reader, atimeHow, atime);
  GetTime(reader, mtimeHow, mtime);
}
void sattr3::Encode(CXDRWriter& writer) const {
  PutFlagged(writer, setMode, mode);
  PutFlagged(writer, setUid, uid);
  PutFlagged(writer, setGid, gid);
  PutFlagged(writer, setSize, size);
  PutTime(writer, atimeHow, atime);
  PutTime(writer, mtimeHow, mtime);
}

fattr3 FattrFromAttributes(std::uint64_t fid, const WIN32_FILE_ATTRIBUTE_DATA& attributes) noexcept {
  fattr3 out;
  out.type = attributes.IsDirectory() ? NF3DIR : NF3REG;
  out.mode = 0777;
  out.nlink = 1;
  out.uid = 1;
  out.gid = 1;
  out.size = attributes.Size();
  out.used = out.size;
  out.fsid = 1;
  out.fileid = fid;
  out.atime = NfsTimeFromFiletime(attributes.lastAccessTime);
  out.mtime = NfsTimeFromFiletime(attributes.lastWriteTime);
  out.ctime = NfsTimeFromFiletime(attributes.creationTime);
  return out;
}

wcc_attr WccAttrFromAttributes(const WIN32_FILE_ATTRIBUTE_DATA& attributes) noexcept {
  return {attributes.Size(), NfsTimeFromFiletime(attributes.lastWriteTime),
          NfsTimeFromFiletime(attributes.creationTime)};
}

nfstime3 NfsTimeFromFiletime(FILETIME time) noexcept {
  const std::uint64_t seconds = time / TicksPerSecond;
  return {static_cast<std::uint32_t>(seconds - platform::FiletimeEpochSeconds),
          static_cast<std::uint32_t>((time - seconds * TicksPerSecond) * NanosecondsPerTick)};
}

FILETIME FiletimeFromNfsTime(const nfstime3& time) noexcept {
  return time.seconds * TicksPerSecond + time.nseconds / NanosecondsPerTick + platform::FiletimeEpochSeconds;
}
