// What the threads were doing, as text.
#pragma once

#include <cstdint>

#include "foundation/dump/text.h"

namespace crash {

/// Adds a paragraph for each thread that the monitoring knows: its id, role and parent, and its open log scopes, the
/// outermost first. Takes no lock: a thread that runs on may be told half in one scope and half in the next.
void AddThreadNotes(std::uint32_t crashedThread, text_t& text) noexcept;

}  // namespace crash
