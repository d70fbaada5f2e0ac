// The bytes of a record, from its first one until its call was served.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <memory>

#include "foundation/byte_budget.h"
#include "foundation/byte_buffer.h"

/// Grows as the bytes arrive. No call that is served needs more than FirstSize; what is larger all records of the
/// process draw from one budget, so that peers who send such records without end cannot take the memory of all. One
/// thread at a time. Held as io::byte_buffer_t only by the pointer that made it.
class CRecordBuffer : public io::byte_buffer_t {
 public:
  /// What a WRITE of a megabyte needs.
  static constexpr std::size_t FirstSize = (1U << 20) + (64U << 10);
  /// Bytes beyond FirstSize that all records together may have.
  static constexpr std::size_t MostBeyond = std::size_t{64} << 20;

  /// size is not below the present one. False, and nothing has changed, when the budget does not give it. Throws
  /// bad_alloc.
  bool GrowTo(std::size_t size);

 private:
  std::unique_ptr<io::byte_share_t> share_;  ///< None up to FirstSize.
};
