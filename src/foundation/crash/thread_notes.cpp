#include "foundation/crash/thread_notes.h"

#include <algorithm>

#include "foundation/monitoring.h"

namespace crash {

namespace {

/// A list that damage has closed to a circle must end somewhere.
constexpr std::size_t MaxRecords = 100000;

void AddThread(const monitoring::CThreadState& state, bool isCrashed, text_t& text) noexcept {
  using monitoring::CThreadState;
  using monitoring::CThreadTrace;
  const std::string_view role(state.Role(), std::find(state.Role(), state.Role() + CThreadState::MaxRole, '\0'));
  text.Format("Thread id: %1, parent id: %2, role: %3",
              {decimal_t(state.ThreadId()), decimal_t(state.ParentId()), role.empty() ? "none" : role});
  text.Add(isCrashed ? ", crashed\n" : "\n");
  const std::size_t open = state.Trace().OpenScopes();
  for (std::size_t i = 0; i < std::min(open, CThreadTrace::MaxScopes); ++i) {
    char scope[CThreadTrace::MaxText + 1];
    const std::size_t length = state.Trace().ScopeText(i, scope, sizeof scope);
    text.AddSpaces(2 * (i + 1)).Add({scope, length}).Add('\n');
  }
  if (open > CThreadTrace::MaxScopes)
    text.AddSpaces(2).Add("and ").AddDecimal(open - CThreadTrace::MaxScopes).Add(" deeper ones\n");
}

}  // namespace

void AddThreadNotes(std::uint32_t crashedThread, text_t& text) noexcept {
  std::size_t records = 0;
  for (const monitoring::CThreadState* state = monitoring::CThreadStatesCollection::Instance().First();
       state != nullptr && records < MaxRecords; state = state->Next(), ++records) {
    if (state->IsLive())
      AddThread(*state, state->ThreadId() == crashedThread, text);
  }
}

}  // namespace crash
