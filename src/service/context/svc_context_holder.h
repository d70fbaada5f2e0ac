// The way to the context for code that has no other.
#pragma once

#include <boost/shared_ptr.hpp>

class CSvcContext;

/// Process-wide; any thread. Its lock guards only the pointer.
class CSvcContextHolder {
 public:
  CSvcContextHolder() = delete;

  /// Replaces the context; an empty pointer clears it.
  static void Set(boost::shared_ptr<CSvcContext> context);
  /// Throws runtime_exc_t when there is none: before the start, while it stops, and in debug mode.
  static boost::shared_ptr<CSvcContext> Get();
};
