// What every thread does around its own work.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>

#include "foundation/exc.h"
#include "foundation/monitoring.h"
#include "foundation/thread.h"

namespace synch::impl {

/// The body of a new thread: its name, its record, its lines in the log, and the procedure between them. The record is
/// made by whoever starts the thread, for the same role and parent. Returns what ended the procedure; empty after
/// a normal end and after term_exc_t. Throws nothing but the C library's unwinding of a cancelled thread.
boost::shared_ptr<exc::exc_base_t> RunThread(monitoring::thread_record_t& record, const std::string& role,
                                             std::uint32_t parentId, const thread_exec_proc_t& procedure);

}  // namespace synch::impl
