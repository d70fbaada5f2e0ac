#include "platform/registry_tables.h"

#include <utility>

#include "platform/text.h"

namespace platform {
namespace {

constexpr std::size_t LargestDepth = 512;
constexpr std::size_t MostKnownKeys = 1024;
constexpr std::size_t UsualValues = 4;
constexpr std::int64_t RootId = 0;

// The numbers of REG_SZ, REG_DWORD and REG_QWORD.
constexpr std::int64_t TextType = 1;
constexpr std::int64_t DwordType = 4;
constexpr std::int64_t QwordType = 11;

/// The data of a row whose columns `column` and `column` + 1 are type and data; false when they do not fit.
bool ReadData(const sqlite_query_t& row, int column, registry_data_t& data) {
  const std::int64_t type = row.Number(column);
  if (type == TextType && row.IsText(column + 1)) {
    const std::string_view text = row.Text(column + 1);
    if (!IsValidUtf8(text))
      return false;
    data = std::string(text);
    return true;
  }
  if (!row.IsNumber(column + 1))
    return false;
  const std::int64_t number = row.Number(column + 1);
  if (type == DwordType && number >= 0 && number <= 0xFFFFFFFF) {
    data = static_cast<std::uint32_t>(number);
    return true;
  }
  if (type != QwordType)
    return false;
  data = static_cast<std::uint64_t>(number);
  return true;
}

/// Appends the value of a row whose columns from `column` on are name, type and data, if there is one.
void AppendValue(const sqlite_query_t& row, int column, std::vector<registry_value_t>& values) {
  registry_value_t value;
  if (row.IsText(column) && ReadData(row, column + 1, value.data)) {
    value.name = row.Text(column);
    values.push_back(std::move(value));
  }
}

/// The three columns that follow the key.
void BindValue(sqlite_query_t& query, const registry_value_t& value) {
  query.Bind(value.name);
  if (const auto* text = std::get_if<std::string>(&value.data)) {
    query.Bind(TextType).Bind(*text);
  } else if (const auto* dword = std::get_if<std::uint32_t>(&value.data)) {
    query.Bind(DwordType).Bind(std::int64_t{*dword});
  } else {
    query.Bind(QwordType).Bind(static_cast<std::int64_t>(std::get<std::uint64_t>(value.data)));
  }
}

/// Reads keys from rows of id, name, and one value each, ordered so that the rows of a key follow each other.
class key_rows_t {
 public:
  explicit key_rows_t(sqlite_query_t& query) : query_(query), more_(query.Next()) {}

  bool HasMore() const { return more_; }
  std::int64_t Number(int column) const { return query_.Number(column); }

  std::int64_t Take(registry_node_t& node) {
    const std::int64_t id = query_.Number(0);
    node.name = query_.Text(1);
    node.values.reserve(UsualValues);
    do {
      AppendValue(query_, 2, node.values);
      more_ = query_.Next();
    } while (more_ && query_.Number(0) == id);
    return id;
  }

 private:
  sqlite_query_t& query_;
  bool more_;
};

}  // namespace

error_t registry_path_t::Parse(std::string_view key) {
  if (!IsValidUtf8(key))
    return error::NoUnicodeTranslation;
  if (key.find('\0') != std::string_view::npos)
    return error::InvalidParameter;
  components_ = SplitPath(key);
  if (components_.size() > LargestDepth)
    return error::FilenameExceedsRange;
  folded_.reserve(key.size() + 1);
  for (const std::string_view component : components_) {
    if (!folded_.empty())
      folded_ += '\\';
    for (const char c : component)
      folded_ += FoldAscii(c);
    ends_.push_back(folded_.size());
  }
  return error::Success;
}

error_t registry_tables_t::BeginWrite() {
  EndLeftover();
  const error_t begun = sqlite_query_t(beginWrite_).Run();
  return begun == error::Success ? Refresh() : begun;
}

error_t registry_tables_t::BeginRead() {
  EndLeftover();
  const error_t begun = sqlite_query_t(beginRead_).Run();
  return begun == error::Success ? Refresh() : begun;
}

error_t registry_tables_t::Commit() {
  createdPath_.clear();
  return sqlite_query_t(commit_).Run();
}

void registry_tables_t::Rollback() noexcept {
  known_.clear();
  createdPath_.clear();
  if (db_.InTransaction())
    db_.Execute("ROLLBACK");
}

void registry_tables_t::EndLeftover() noexcept {
  if (db_.InTransaction())
    Rollback();
}

error_t registry_tables_t::Refresh() {
  sqlite_query_t query(dataVersion_);
  if (!query.Next())
    return query.Error() == error::Success ? error::BadDatabase : query.Error();
  const std::int64_t version = query.Number(0);
  if (version != knownVersion_) {
    // Another process wrote: its keys may be others under the same paths.
    known_.clear();
    knownVersion_ = version;
  }
  return error::Success;
}

void registry_tables_t::Remember(std::string_view folded, std::int64_t id) {
  if (known_.size() >= MostKnownKeys)
    known_.clear();
  known_.emplace(folded, id);
}

void registry_tables_t::ForgetBelow(std::string_view folded) {
  createdPath_.clear();
  const std::string first = std::string(folded) + '\\';
  const std::string last = std::string(folded) + static_cast<char>('\\' + 1);
  known_.erase(known_.lower_bound(first), known_.lower_bound(last));
  if (const auto found = known_.find(folded); found != known_.end())
    known_.erase(found);
}

error_t registry_tables_t::FindChild(std::int64_t parent, std::string_view name, std::int64_t& id) {
  sqlite_query_t query(findChild_);
  if (!query.Bind(parent).Bind(name).Next())
    return query.Error() == error::Success ? error::FileNotFound : query.Error();
  id = query.Number(0);
  return error::Success;
}

error_t registry_tables_t::Walk(const registry_path_t& path, bool create, std::int64_t& id) {
  const std::size_t count = path.Components().size();
  std::size_t depth = count;
  bool isEmpty = false;
  id = RootId;
  for (; depth > 0; --depth) {
    const std::string_view folded = path.Folded(depth);
    if (createdPath_ == folded) {
      id = createdId_;
      isEmpty = true;
      break;
    }
    const auto found = known_.find(folded);
    if (found != known_.end()) {
      id = found->second;
      break;
    }
  }
  for (; depth < count; ++depth) {
    const std::int64_t parent = id;
    const std::string_view name = path.Components()[depth];
    error_t result = isEmpty ? error::FileNotFound : FindChild(parent, name, id);
    isEmpty = false;
    if (result == error::FileNotFound && create) {
      result = sqlite_query_t(insertKey_).Bind(parent).Bind(name).Run();
      id = db_.LastInsertId();
      isEmpty = true;
    }
    if (result != error::Success)
      return result;
    if (isEmpty) {
      createdPath_ = path.Folded(depth + 1);
      createdId_ = id;
    }
    if (depth + 1 < count && !isEmpty)
      Remember(path.Folded(depth + 1), id);
  }
  return error::Success;
}

error_t registry_tables_t::Find(const registry_path_t& path, std::int64_t& id) {
  return Walk(path, false, id);
}

error_t registry_tables_t::FindOrCreate(const registry_path_t& path, std::int64_t& id) {
  return Walk(path, true, id);
}

error_t registry_tables_t::Delete(const registry_path_t& path) {
  std::int64_t top = RootId;
  error_t result = Find(path, top);
  if (result != error::Success)
    return result;
  ForgetBelow(path.Folded(path.Components().size()));
  std::vector<std::int64_t> open{top};
  while (!open.empty()) {
    const std::int64_t id = open.back();
    open.pop_back();
    {
      sqlite_query_t children(children_);
      children.Bind(id);
      while (children.Next())
        open.push_back(children.Number(0));
      result = children.Error();
    }
    if (result == error::Success)
      result = sqlite_query_t(deleteValues_).Bind(id).Run();
    if (result == error::Success)
      result = sqlite_query_t(deleteKey_).Bind(id).Run();
    if (result != error::Success)
      return result;
  }
  return error::Success;
}

error_t registry_tables_t::PutValues(std::int64_t id, const std::vector<registry_value_t>& values) {
  for (std::size_t i = 0; i < values.size();) {
    const std::size_t count = values.size() - i >= 3 ? 3 : 1;
    sqlite_query_t query(count == 3 ? putThreeValues_ : putValue_);
    for (const std::size_t end = i + count; i < end; ++i)
      BindValue(query.Bind(id), values[i]);
    if (const error_t result = query.Run(); result != error::Success)
      return result;
  }
  return error::Success;
}

error_t registry_tables_t::GetValue(std::int64_t id, std::string_view name, registry_data_t& data) {
  sqlite_query_t query(getValue_);
  if (query.Bind(id).Bind(name).Next() && ReadData(query, 0, data))
    return error::Success;
  return query.Error() == error::Success ? error::FileNotFound : query.Error();
}

error_t registry_tables_t::RemoveValue(std::int64_t id, std::string_view name) {
  {
    sqlite_query_t query(findValue_);
    if (!query.Bind(id).Bind(name).Next())
      return query.Error() == error::Success ? error::FileNotFound : query.Error();
  }
  return sqlite_query_t(removeValue_).Bind(id).Bind(name).Run();
}

error_t registry_tables_t::KeyNames(std::int64_t id, std::vector<std::string>& names) {
  sqlite_query_t query(children_);
  query.Bind(id);
  while (query.Next())
    names.emplace_back(query.Text(1));
  return query.Error();
}

error_t registry_tables_t::Values(std::int64_t id, std::vector<registry_value_t>& values) {
  sqlite_query_t query(values_);
  query.Bind(id);
  while (query.Next())
    AppendValue(query, 0, values);
  return query.Error();
}

error_t registry_tables_t::Visit(std::int64_t id, registry_t::visit_order_t order, const registry_t::visitor_t& visit) {
  constexpr int KeyOfSubKey = 5;
  const bool isScan = order == registry_t::visit_order_t::AsStored;
  sqlite_query_t keyQuery(isScan ? scanKeys_ : visitKeys_);
  sqlite_query_t subKeyQuery(isScan ? scanSubKeys_ : visitSubKeys_);
  keyQuery.Bind(id);
  subKeyQuery.Bind(id);
  key_rows_t keys(keyQuery);
  key_rows_t subKeys(subKeyQuery);
  // Both come in the same order of the keys, so each sub-key's turn is when its key is read.
  while (keys.HasMore()) {
    registry_node_t node;
    const std::int64_t key = keys.Take(node);
    while (subKeys.HasMore() && subKeys.Number(KeyOfSubKey) == key)
      subKeys.Take(node.keys.emplace_back());
    if (keyQuery.Error() != error::Success || subKeyQuery.Error() != error::Success)
      break;
    visit(node);
  }
  return keyQuery.Error() == error::Success ? subKeyQuery.Error() : keyQuery.Error();
}

error_t registry_tables_t::ReadTree(std::int64_t id, registry_node_t& node, unsigned depth) {
  if (depth > LargestDepth)
    return error::BadDatabase;
  error_t result = Values(id, node.values);
  if (result != error::Success)
    return result;
  std::vector<std::int64_t> ids;
  {
    sqlite_query_t query(children_);
    query.Bind(id);
    while (query.Next()) {
      ids.push_back(query.Number(0));
      node.keys.emplace_back().name = query.Text(1);
    }
    result = query.Error();
  }
  for (std::size_t i = 0; i < ids.size() && result == error::Success; ++i)
    result = ReadTree(ids[i], node.keys[i], depth + 1);
  return result;
}

error_t registry_tables_t::Check() {
  sqlite_query_t query(check_);
  if (!query.Next())
    return query.Error() == error::Success ? error::BadDatabase : query.Error();
  return query.Text(0) == "ok" ? error::Success : error::BadDatabase;
}

}  // namespace platform
