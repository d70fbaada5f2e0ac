#include "vfs/nfs3/nfs_results.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <span>

#include "vfs/nfs3/nfs_wire.h"

using namespace nfs_wire;

namespace {

/// Of an entry of a listing with attributes, a handle of ours and the name's padding.
constexpr std::size_t MaxEntrySizeWithoutName = 4 + 8 + 4 + 3 + 8 + (4 + 84) + (4 + 28);

}  // namespace

void GETATTR3res::Decode(CXDRReader& reader) {
  Get(reader, status);
  if (status == NFS3_OK)
    Get(reader, attributes);
}
void GETATTR3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize GETATTR3res structure.", [&] {
    Put(writer, status);
    if (status == NFS3_OK)
      Put(writer, attributes);
  });
}

void SETATTR3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, wcc);
}
void SETATTR3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize SETATTR3Res structure.", [&] { PutAll(writer, status, wcc); });
}

void LOOKUP3res::Decode(CXDRReader& reader) {
  Get(reader, status);
  if (status == NFS3_OK)
    GetAll(reader, object, attributes);
  Get(reader, dirAttributes);
}
void LOOKUP3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize LOOKUP3res", [&] {
    Put(writer, status);
    if (status == NFS3_OK)
      PutAll(writer, object, attributes);
    Put(writer, dirAttributes);
  });
}

void ACCESS3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, attributes);
  if (status == NFS3_OK)
    Get(reader, access);
}
void ACCESS3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize ACCESS3res", [&] {
    PutAll(writer, status, attributes);
    if (status == NFS3_OK)
      Put(writer, access);
  });
}

bool READ3res::operator==(const READ3res& other) const {
  if (status != other.status || attributes != other.attributes || count != other.count || eof != other.eof)
    return false;
  const auto bytes = [](const READ3res& result) -> std::span<const std::uint8_t> {
    if (result.data == nullptr)
      return {};
    return std::span(*result.data).first(std::min<std::size_t>(result.count, result.data->size()));
  };
  return std::ranges::equal(bytes(*this), bytes(other));
}
void READ3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, attributes);
  if (status != NFS3_OK)
    return;
  GetAll(reader, count, eof);
  const auto bytes = boost::make_shared<io::byte_buffer_t>();
  reader.VarLenData(*bytes);
  if (bytes->size() < count) {
    throw exc::runtime_exc_t("READ result holds %1 bytes instead of %2.", bytes->size(), count);
  }
  data = bytes;
}
void READ3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, attributes);
  if (status != NFS3_OK)
    return;
  PutAll(writer, count, eof);
  if (pipe != nullptr)
    writer.PipedVarLenData(pipe);
  else
    writer.SharedVarLenData(data, count);
}

void WRITE3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, wcc);
  if (status == NFS3_OK)
    GetAll(reader, count, committed, verifier);
}
void WRITE3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize WRITE3Res structure.", [&] {
    PutAll(writer, status, wcc);
    if (status == NFS3_OK)
      PutAll(writer, count, committed, verifier);
  });
}

void CREATE3res::Decode(CXDRReader& reader) {
  Get(reader, status);
  if (status == NFS3_OK)
    GetAll(reader, object, attributes);
  Get(reader, dirWcc);
}
void CREATE3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize CREATE3Res structure.", [&] {
    Put(writer, status);
    if (status == NFS3_OK)
      PutAll(writer, object, attributes);
    Put(writer, dirWcc);
  });
}

void MKDIR3res::Decode(CXDRReader& reader) {
  Get(reader, status);
  if (status == NFS3_OK)
    GetAll(reader, object, attributes);
  Get(reader, dirWcc);
}
void MKDIR3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize MKDIR3Res structure.", [&] {
    Put(writer, status);
    if (status == NFS3_OK)
      PutAll(writer, object, attributes);
    Put(writer, dirWcc);
  });
}

void REMOVE3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, dirWcc);
}
void REMOVE3res::Encode(CXDRWriter& writer) const {
  Wrapped("Failed to serialize REMOVE3Res structure.", [&] { PutAll(writer, status, dirWcc); });
}

void RMDIR3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, dirWcc);
}
void RMDIR3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, dirWcc);
}

void RENAME3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, fromDirWcc, toDirWcc);
}
void RENAME3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, fromDirWcc, toDirWcc);
}

void entryplus3::Decode(CXDRReader& reader) {
  GetAll(reader, fileid, name, cookie, nameAttributes, nameHandle);
}
void entryplus3::Encode(CXDRWriter& writer) const {
  PutAll(writer, fileid, name, cookie, nameAttributes, nameHandle);
}

void READDIRPLUS3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, dirAttributes);
  if (status != NFS3_OK)
    return;
  Get(reader, cookieVerifier);
  while (reader.Bool())
    Get(reader, entries.emplace_back());
  Get(reader, eof);
}
void READDIRPLUS3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, dirAttributes);
  if (status != NFS3_OK)
    return;
  std::size_t size = 8 + 4 + 4;
  for (const entryplus3& entry : entries)
    size += MaxEntrySizeWithoutName + entry.name.size();
  writer.Reserve(size);
  Put(writer, cookieVerifier);
  for (const entryplus3& entry : entries)
    PutAll(writer, true, entry);
  PutAll(writer, false, eof);
}

void FSSTAT3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, attributes);
  if (status == NFS3_OK)
    GetAll(reader, tbytes, fbytes, abytes, tfiles, ffiles, afiles, invarsec);
}
void FSSTAT3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, attributes);
  if (status == NFS3_OK)
    PutAll(writer, tbytes, fbytes, abytes, tfiles, ffiles, afiles, invarsec);
}

void FSINFO3res::Decode(CXDRReader& reader) {
  GetAll(reader, status, attributes);
  if (status == NFS3_OK)
    GetAll(reader, rtmax, rtpref, rtmult, wtmax, wtpref, wtmult, dtpref, maxfilesize, timeDelta, properties);
}
void FSINFO3res::Encode(CXDRWriter& writer) const {
  PutAll(writer, status, attributes);
  if (status == NFS3_OK)
    PutAll(writer, rtmax, rtpref, rtmult, wtmax, wtpref, wtmult, dtpref, maxfilesize, timeDelta, properties);
}
