// What the thread sanitizer cannot see.

#if defined(__SANITIZE_THREAD__)

/// An exception from outside the family travels between threads under the reference count of the C++ runtime, which is
/// not instrumented: the sanitizer misses that the last holder frees it after all others are done.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:std::__exception_ptr::exception_ptr::_M_release\n"
         "race:__cxa_end_catch\n"
         "race:__gxx_exception_cleanup\n"
         "race:std::logic_error::~logic_error\n"
         "race:std::out_of_range::~out_of_range\n"
         // The same, where the runtime's own frame is missing from the report.
         "race:FailuresComeOutWithTheirOwnTypeOnBothRoads\n";
}

#endif
