// Records with a different value in each field, so that two that change places are seen.
#pragma once

#include "vfs/nfs3/nfs_results.h"

namespace test {

inline fattr3 SampleFattr(std::uint32_t seed) {
  fattr3 out;
  out.type = NF3REG;
  out.mode = seed + 1;
  out.nlink = seed + 2;
  out.uid = seed + 3;
  out.gid = seed + 4;
  out.size = 0x0000000140000000ULL + seed;
  out.used = 0x0000000240000000ULL + seed;
  out.rdev = {seed + 5, seed + 6};
  out.fsid = 0x0000000300000000ULL + seed;
  out.fileid = 0x0000000400000000ULL + seed;
  out.atime = {seed + 7, seed + 8};
  out.mtime = {seed + 9, seed + 10};
  out.ctime = {seed + 11, seed + 12};
  return out;
}

inline wcc_data SampleWcc(std::uint32_t seed) {
  return {wcc_attr{0x0000000500000000ULL + seed, {seed + 1, seed + 2}, {seed + 3, seed + 4}}, SampleFattr(seed + 100)};
}

inline sattr3 SampleSattr() {
  return {
      true,    0600, true, 7, true, 8, true, 0x0000000600000009ULL, SET_TO_CLIENT_TIME, {10, 11}, SET_TO_CLIENT_TIME,
      {12, 13}};
}

inline diropargs3 SampleDirOp(std::uint64_t fid, const char* name) {
  return {HandleFromFid(fid), name};
}

}  // namespace test
