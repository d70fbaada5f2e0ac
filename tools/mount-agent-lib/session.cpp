#include "mount-agent-lib/session.h"

#include <algorithm>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace mount_agent {
namespace {

namespace error = platform::error;

constexpr std::int32_t NotFound = -1;
// Below it handles follow from names; above it lie those of names whose handle was taken.
constexpr std::uint32_t FirstUnnamed = 1U << 30U;

std::string Join(const IMountedContent::path_t& path) {
  std::string joined;
  for (const std::string_view component : path) {
    if (!joined.empty())
      joined += "//";
    joined += component;
  }
  return joined;
}

}  // namespace

bool CSession::Answer(const void* request, std::size_t length, bytes_t& reply) {
  reply.clear();
  fileParts_.clear();
  CRequestReader reader(request, length);
  std::uint32_t command = 0;
  if (!reader.Get(command))
    return false;
  switch (static_cast<command_t>(command)) {
    case command_t::Enumerate:
      return AnswerEnumerate(reader, reply);
    case command_t::Open:
      return AnswerOpen(reader, reply);
    case command_t::Read:
      return AnswerRead(reader, reply);
    case command_t::Write:
      return AnswerWrite(reader, reply);
    case command_t::GetSize:
      return AnswerGetSize(reader, reply);
  }
  return false;
}

std::int32_t CSession::HandleOf(std::string_view name) {
  std::uint32_t hash = 2166136261U;  // FNV-1a
  for (const char c : name)
    hash = (hash ^ static_cast<std::uint8_t>(c)) * 16777619U;
  return static_cast<std::int32_t>((hash ^ (hash >> 30U)) & (FirstUnnamed - 1));
}

bool CSession::AnswerEnumerate(CRequestReader& request, bytes_t& reply) {
  std::string_view path;
  if (!request.GetCounted(path) || !request.IsAtEnd())
    return false;
  std::vector<SListedItem> items;
  if (content_.List(platform::SplitPath(path), items) != error::Success)
    return true;
  constexpr std::size_t MaxCount = std::numeric_limits<std::uint32_t>::max();
  const std::size_t count = std::min(items.size(), MaxCount);
  Put(reply, static_cast<std::uint32_t>(count));
  for (std::size_t i = 0; i < count; ++i) {
    Put(reply, items[i].kind);
    Put(reply, items[i].size);
    PutCounted(reply, items[i].name);
  }
  return true;
}

bool CSession::AnswerOpen(CRequestReader& request, bytes_t& reply) {
  std::string_view path;
  if (!request.GetCounted(path) || !request.IsAtEnd())
    return false;
  const IMountedContent::path_t components = platform::SplitPath(path);
  item_ptr_t item;
  const platform::error_t failure = content_.Open(components, item);
  if (failure == error::FileNotFound || failure == error::PathNotFound) {
    Put(reply, static_cast<std::uint32_t>(NotFound));
  } else if (failure == error::Success && item) {
    const std::int32_t handle = Keep(Join(components), item);
    if (handle != NotFound)
      Put(reply, static_cast<std::uint32_t>(handle));
  }
  return true;
}

bool CSession::AnswerRead(CRequestReader& request, bytes_t& reply) {
  std::uint32_t handle = 0;
  std::uint64_t offset = 0;
  std::uint32_t length = 0;
  if (!request.Get(handle) || !request.Get(offset) || !request.Get(length) || !request.IsAtEnd())
    return false;
  const item_ptr_t item = Find(handle);
  if (!item)
    return true;
  // The reply takes memory for what is there, whatever was asked for.
  std::uint64_t size = 0;
  if (item->GetSize(size) != error::Success)
    return false;
  const std::uint64_t left = offset < size ? size - offset : 0;
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>({left, length, MaxReadLength}));
  if (wanted == 0 || (wanted >= LeastFromFiles && item->Locate(offset, wanted, fileParts_)))
    return true;
  reply.resize(wanted);
  std::size_t got = 0;
  if (item->Read(offset, reply.data(), wanted, got) != error::Success || got > wanted)
    return false;
  reply.resize(got);
  return true;
}

bool CSession::AnswerWrite(CRequestReader& request, bytes_t& reply) {
  std::uint32_t handle = 0;
  std::uint64_t offset = 0;
  std::string_view data;
  if (!request.Get(handle) || !request.Get(offset) || !request.GetCounted(data) || !request.IsAtEnd())
    return false;
  // The service tells the guest that all was stored as soon as there is any count: only the whole is answered by one.
  const item_ptr_t item = Find(handle);
  if (!item || offset > std::numeric_limits<std::uint64_t>::max() - data.size())
    return true;
  if (data.empty() || item->Write(offset, data.data(), data.size()) == error::Success)
    Put(reply, static_cast<std::uint32_t>(data.size()));
  return true;
}

bool CSession::AnswerGetSize(CRequestReader& request, bytes_t& reply) {
  std::uint32_t handle = 0;
  if (!request.Get(handle) || !request.IsAtEnd())
    return false;
  std::uint64_t size = 0;
  const item_ptr_t item = Find(handle);
  if (item && item->GetSize(size) == error::Success)
    Put(reply, size);
  return true;
}

CSession::item_ptr_t CSession::Find(std::uint32_t handle) {
  const auto known = opened_.find(static_cast<std::int32_t>(handle));
  if (known != opened_.end())
    return known->second.item;
  return handle < FirstUnnamed ? FindByName(handle) : item_ptr_t();
}

CSession::item_ptr_t CSession::FindByName(std::uint32_t handle) {
  std::vector<SListedItem> items;
  if (content_.List({}, items) != error::Success)
    return {};
  const SListedItem* match = nullptr;
  for (const SListedItem& item : items) {
    if (HandleOf(item.name) != static_cast<std::int32_t>(handle))
      continue;
    // Two names of one handle: there is no telling which was meant.
    if (match != nullptr)
      return {};
    match = &item;
  }
  item_ptr_t found;
  if (match == nullptr || content_.Open({match->name}, found) != error::Success || !found)
    return {};
  return Keep(match->name, found) == static_cast<std::int32_t>(handle) ? found : item_ptr_t();
}

std::int32_t CSession::Keep(std::string path, const item_ptr_t& item) {
  const std::int32_t named = HandleOf(path);
  const auto holder = opened_.find(named);
  if (holder != opened_.end() && holder->second.path == path) {
    holder->second.item = item;
    return named;
  }
  std::int32_t handle = named;
  // Only the name of a file in the root is found again from its handle alone.
  if (holder != opened_.end() || path.find('/') != std::string::npos) {
    for (auto& [number, opened] : opened_) {
      if (opened.path == path) {
        opened.item = item;
        return number;
      }
    }
    // A handle of another connection is not to lead anywhere here.
    if (nextUnnamed_ < 0)
      nextUnnamed_ = static_cast<std::int32_t>(FirstUnnamed + std::random_device()() % (FirstUnnamed / 2));
    handle = nextUnnamed_++;
  }
  if (opened_.size() >= MaxHandles)
    return NotFound;
  opened_[handle] = {std::move(path), item};
  return handle;
}

}  // namespace mount_agent
