#include "vfs/nfs3/nfs_args.h"

#include <algorithm>

#include "vfs/nfs3/nfs_wire.h"

using namespace nfs_wire;

void diropargs3::Decode(CXDRReader& reader) {
  GetAll(reader, dir, name);
}
void diropargs3::Encode(CXDRWriter& writer) const {
  PutAll(writer, dir, name);
}

void GETATTR3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize GETATTR3args", [&] { GetAll(reader, object); });
}
void GETATTR3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, object);
}

void SETATTR3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize SETATTR3Args structure.", [&] { GetAll(reader, object, newAttributes, guard); });
}
void SETATTR3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, object, newAttributes, guard);
}

void LOOKUP3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize LOOKUP3args.", [&] { GetAll(reader, what); });
}
void LOOKUP3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, what);
}

void ACCESS3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize ACCESS3Args", [&] { GetAll(reader, object, access); });
}
void ACCESS3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, object, access);
}

void READ3args::Decode(CXDRReader& reader) {
  GetAll(reader, file, offset, count);
}
void READ3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, file, offset, count);
}

bool WRITE3args::operator==(const WRITE3args& other) const {
  return file == other.file && offset == other.offset && count == other.count && stable == other.stable &&
         std::ranges::equal(data, other.data);
}
void WRITE3args::Decode(CXDRReader& from) {
  Wrapped("Failed to de-serialize WRITE3Args", [&] {
    GetAll(from, file, offset, count, stable);
    data = from.LastVarLenView();
  });
  reader = &from;
}
std::span<const std::uint8_t> WRITE3args::GatherData() const {
  return Rest() == nullptr ? data : reader->GatherLastView();
}
void WRITE3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, file, offset, count, stable);
  writer.VarLenData(data.data(), data.size());
}

void CREATE3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize CREATE3args structure.", [&] {
    GetAll(reader, where, how);
    if (how == UNCHECKED || how == GUARDED)
      Get(reader, attributes);
    if (how == EXCLUSIVE)
      Get(reader, verifier);
  });
}
void CREATE3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, where, how);
  if (how == UNCHECKED || how == GUARDED)
    Put(writer, attributes);
  if (how == EXCLUSIVE)
    Put(writer, verifier);
}

void MKDIR3args::Decode(CXDRReader& reader) {
  GetAll(reader, where, attributes);
}
void MKDIR3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, where, attributes);
}

void REMOVE3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize REMOVE3Args structure.", [&] { GetAll(reader, object); });
}
void REMOVE3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, object);
}

void RMDIR3args::Decode(CXDRReader& reader) {
  GetAll(reader, object);
}
void RMDIR3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, object);
}

void RENAME3args::Decode(CXDRReader& reader) {
  GetAll(reader, from, to);
}
void RENAME3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, from, to);
}

void READDIRPLUS3args::Decode(CXDRReader& reader) {
  GetAll(reader, dir, cookie, cookieVerifier, dirCount, maxCount);
}
void READDIRPLUS3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, dir, cookie, cookieVerifier, dirCount, maxCount);
}

void FSSTAT3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize FSSTAT3args.", [&] { GetAll(reader, fsRoot); });
}
void FSSTAT3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, fsRoot);
}

void FSINFO3args::Decode(CXDRReader& reader) {
  Wrapped("Failed to de-serialize FSINFOArgs.", [&] { GetAll(reader, fsRoot); });
}
void FSINFO3args::Encode(CXDRWriter& writer) const {
  PutAll(writer, fsRoot);
}
