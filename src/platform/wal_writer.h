// Writing the registry's log in one go.
#pragma once

namespace platform {

/// The name of a file system layer for SQLite which is the default one but for this: what a transaction appends to a
/// write-ahead log reaches the system in one write instead of two for each page. The last frame of a transaction, which
/// says so, takes those before it along, so that what was committed is with the system as before; frames that
/// came earlier, of a transaction larger than the cache, are written when the buffer is full, the log is read or the
/// transaction ends. What changes frames that are in the log already is written at once.
/// Null when SQLite has no default layer. Any thread.
const char* GatheringVfs() noexcept;

}  // namespace platform
