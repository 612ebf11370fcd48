#include "Sync/YSyncIndex.h"

#include <random>
#include <sstream>

namespace Agent::Sync {

namespace {

// The base and the landings hold the same record: a path as it was in step.
constexpr const char* kStepColumns = R"sql((
  path TEXT PRIMARY KEY,
  folder INTEGER NOT NULL,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  inode INTEGER NOT NULL,
  cloud_id INTEGER NOT NULL) WITHOUT ROWID;
)sql";

constexpr const char* kOtherTables = R"sql(
CREATE TABLE IF NOT EXISTS remote(
  path TEXT PRIMARY KEY,
  id INTEGER NOT NULL,
  folder INTEGER NOT NULL,
  size INTEGER NOT NULL,
  modified INTEGER NOT NULL,
  parts TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS sending(
  path TEXT PRIMARY KEY,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  inode INTEGER NOT NULL,
  parts TEXT NOT NULL,
  run INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS meta(
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL) WITHOUT ROWID;
)sql";

Qel::YString Schema() {
  return Qel::YString("CREATE TABLE IF NOT EXISTS base") + kStepColumns + "CREATE TABLE IF NOT EXISTS landing" +
         kStepColumns + kOtherTables;
}

// Parts are kept as "<fingerprint>:<size>" joined by ",".
Qel::YString EncodeParts(const std::vector<CloudPart>& parts) {
  Qel::YString text;
  for (const CloudPart& part : parts) {
    if (!text.empty()) text += ',';
    text += part.fingerprint + ":" + std::to_string(part.size);
  }
  return text;
}

std::vector<CloudPart> DecodeParts(const Qel::YString& text) {
  std::vector<CloudPart> parts;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(',', start);
    if (end == Qel::YString::npos) end = text.size();
    const std::string_view item(text.data() + start, end - start);
    const size_t colon = item.find(':');
    if (colon != std::string_view::npos) {
      parts.push_back({Qel::YString(item.substr(0, colon)),
                       static_cast<uint32_t>(std::stoul(std::string(item.substr(colon + 1))))});
    }
    start = end + 1;
  }
  return parts;
}

}  // namespace

YSyncIndex::YSyncIndex(const Qel::YString& file) : db_(file) {}

void YSyncIndex::Open() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  db_.Initialize();
  db_.OpenForWrite();
  db_.Execute("PRAGMA synchronous=FULL;");
  db_.Execute(Schema());
  run_ = std::random_device{}() | static_cast<uint64_t>(std::random_device{}()) << 32;
}

std::map<Qel::YString, BaseItem> YSyncIndex::LoadBase() { return LoadItems("base"); }

std::map<Qel::YString, BaseItem> YSyncIndex::LoadLandings() { return LoadItems("landing"); }

std::map<Qel::YString, BaseItem> YSyncIndex::LoadItems(const char* table) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::map<Qel::YString, BaseItem> items;
  auto st = db_.Prepare("SELECT path, folder, size, mtime_ns, inode, cloud_id FROM " + Qel::YString(table));
  while (st.Step()) {
    BaseItem item;
    item.folder = st.GetInt64(1) != 0;
    item.size = static_cast<uint64_t>(st.GetInt64(2));
    item.mtimeNs = st.GetInt64(3);
    item.inode = static_cast<uint64_t>(st.GetInt64(4));
    item.cloudId = static_cast<uint64_t>(st.GetInt64(5));
    items.emplace(st.GetText(0), item);
  }
  return items;
}

std::map<Qel::YString, SendingItem> YSyncIndex::LoadSendings() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::map<Qel::YString, SendingItem> items;
  auto st = db_.Prepare("SELECT path, size, mtime_ns, inode, parts, run FROM sending");
  while (st.Step()) {
    SendingItem item;
    item.local.size = static_cast<uint64_t>(st.GetInt64(1));
    item.local.mtimeNs = st.GetInt64(2);
    item.local.inode = static_cast<uint64_t>(st.GetInt64(3));
    item.parts = DecodeParts(st.GetText(4));
    item.run = static_cast<uint64_t>(st.GetInt64(5));
    items.emplace(st.GetText(0), std::move(item));
  }
  return items;
}

std::map<Qel::YString, RemoteItemPtr> YSyncIndex::LoadRemote() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  std::map<Qel::YString, RemoteItemPtr> items;
  auto st = db_.Prepare("SELECT path, id, folder, size, modified, parts FROM remote");
  while (st.Step()) {
    auto item = std::make_shared<RemoteItem>();
    item->id = static_cast<uint64_t>(st.GetInt64(1));
    item->folder = st.GetInt64(2) != 0;
    item->size = static_cast<uint64_t>(st.GetInt64(3));
    item->modified = st.GetInt64(4);
    item->parts = DecodeParts(st.GetText(5));
    items.emplace(st.GetText(0), std::move(item));
  }
  return items;
}

Qel::YString YSyncIndex::GetMeta(const Qel::YString& name) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto st = db_.Prepare("SELECT value FROM meta WHERE name = ?1");
  st.Bind(1, name);
  return st.Step() ? st.GetText(0) : Qel::YString();
}

void YSyncIndex::RunInTransaction(const std::function<void()>& work) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  db_.RunInTransaction(work);
}

void YSyncIndex::Write(const Qel::YString& sql, const std::function<void(Qel::SQLite::YStatement&)>& bind) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto run = [&] {
    auto st = db_.Prepare(sql);
    bind(st);
    st.Execute();
  };
  if (db_.IsInTransaction()) run();
  else db_.RunInTransaction(run);
}

void YSyncIndex::PutBase(const Qel::YString& path, const BaseItem& item) { PutItem("base", path, item); }

void YSyncIndex::PutLanding(const Qel::YString& path, const BaseItem& item) { PutItem("landing", path, item); }

void YSyncIndex::RemoveLanding(const Qel::YString& path) {
  Write("DELETE FROM landing WHERE path = ?1", [&](Qel::SQLite::YStatement& st) { st.Bind(1, path); });
}

void YSyncIndex::PutItem(const char* table, const Qel::YString& path, const BaseItem& item) {
  Write("INSERT OR REPLACE INTO " + Qel::YString(table) +
            "(path, folder, size, mtime_ns, inode, cloud_id) VALUES(?1, ?2, ?3, ?4, ?5, ?6)",
        [&](Qel::SQLite::YStatement& st) {
          st.Bind(1, path)
              .Bind(2, item.folder ? 1 : 0)
              .Bind(3, static_cast<int64_t>(item.size))
              .Bind(4, item.mtimeNs)
              .Bind(5, static_cast<int64_t>(item.inode))
              .Bind(6, static_cast<int64_t>(item.cloudId));
        });
}

void YSyncIndex::RemoveBase(const Qel::YString& path) {
  Write("DELETE FROM base WHERE path = ?1", [&](Qel::SQLite::YStatement& st) { st.Bind(1, path); });
}

void YSyncIndex::PutSending(const Qel::YString& path, SendingItem item) {
  item.run = run_;
  RestoreSending(path, item);
}

void YSyncIndex::RestoreSending(const Qel::YString& path, const SendingItem& item) {
  Write("INSERT OR REPLACE INTO sending(path, size, mtime_ns, inode, parts, run) VALUES(?1, ?2, ?3, ?4, ?5, ?6)",
        [&](Qel::SQLite::YStatement& st) {
          st.Bind(1, path)
              .Bind(2, static_cast<int64_t>(item.local.size))
              .Bind(3, item.local.mtimeNs)
              .Bind(4, static_cast<int64_t>(item.local.inode))
              .Bind(5, EncodeParts(item.parts))
              .Bind(6, static_cast<int64_t>(item.run));
        });
}

void YSyncIndex::RemoveSending(const Qel::YString& path) {
  Write("DELETE FROM sending WHERE path = ?1", [&](Qel::SQLite::YStatement& st) { st.Bind(1, path); });
}

void YSyncIndex::PutRemote(const Qel::YString& path, const RemoteItem& item) {
  Write("INSERT OR REPLACE INTO remote(path, id, folder, size, modified, parts) VALUES(?1, ?2, ?3, ?4, ?5, ?6)",
        [&](Qel::SQLite::YStatement& st) {
          st.Bind(1, path)
              .Bind(2, static_cast<int64_t>(item.id))
              .Bind(3, item.folder ? 1 : 0)
              .Bind(4, static_cast<int64_t>(item.size))
              .Bind(5, item.modified)
              .Bind(6, EncodeParts(item.parts));
        });
}

void YSyncIndex::RemoveRemote(const Qel::YString& path) {
  Write("DELETE FROM remote WHERE path = ?1", [&](Qel::SQLite::YStatement& st) { st.Bind(1, path); });
}

void YSyncIndex::SetMeta(const Qel::YString& name, const Qel::YString& value) {
  Write("INSERT OR REPLACE INTO meta(name, value) VALUES(?1, ?2)",
        [&](Qel::SQLite::YStatement& st) { st.Bind(1, name).Bind(2, value); });
}

void YSyncIndex::ClearRemote() {
  Write("DELETE FROM remote", [](Qel::SQLite::YStatement&) {});
}

void YSyncIndex::ClearAll() {
  RunInTransaction([this] {
    db_.Execute("DELETE FROM base; DELETE FROM landing; DELETE FROM sending; DELETE FROM remote; DELETE FROM meta;");
  });
}

}  // namespace Agent::Sync
