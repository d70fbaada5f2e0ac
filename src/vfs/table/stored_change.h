// Changes of the table that are one with what their callers store.
#pragma once

#include <exception>
#include <functional>

/// Writes to the registry what belongs to a change, in the change's own transaction, under the table's lock. Empty for
/// nothing. What it throws undoes the change.
using fs_store_t = std::function<void()>;

/// Runs change(store). A failure of the storing comes out as it is, without what the change says of its own ones.
template <typename Change>
void RunStored(const fs_store_t& store, const Change& change) {
  std::exception_ptr notStored;
  const fs_store_t watched = [&] {
    try {
      if (store)
        store();
    } catch (...) {
      notStored = std::current_exception();
      throw;
    }
  };
  try {
    change(watched);
  } catch (...) {
    if (notStored)
      std::rethrow_exception(notStored);
    throw;
  }
}
