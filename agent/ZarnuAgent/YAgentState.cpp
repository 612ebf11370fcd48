#include "YAgentState.h"

#include "AgentConstants.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace Agent {

namespace {

// "/home/me/Zarnu/" -> "/home/me/Zarnu": paths below the root are compared
// against it as a prefix. "/" stays.
Qel::YString WithoutTrailingSlash(Qel::YString path) {
  while (path.size() > 1 && path.EndsWith("/")) path.pop_back();
  return path;
}

}  // namespace

namespace {
constexpr const char* kFile = "agent/ZarnuAgent/YAgentState";
}  // namespace

YAgentState::YAgentState(const Qel::YString& dataFolder)
    : data_folder_(dataFolder),
      started_(std::chrono::steady_clock::now()),
      db_(std::make_unique<CloudSync::YConfigDb>(Qel::File::AppendPaths(dataFolder, kConfigDbFile))) {
  db_->Initialize();
}

Qel::YString YAgentState::GetPath(const Qel::YString& file) const { return Qel::File::AppendPaths(data_folder_, file); }

Qel::YString YAgentState::GetOption(const Qel::YString& name, const Qel::YString& fallback) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return db_->GetOption(name, fallback);
}

void YAgentState::PutOption(const Qel::YString& name, const Qel::YString& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  db_->PutOption(name, value);
}

void YAgentState::LoadLinkLocked() {
  Qel::YString user = db_->GetAuthUser();
  Qel::YString token = db_->GetAuthToken();
  Qel::YString root = WithoutTrailingSlash(db_->GetRootFolder());
  std::lock_guard<std::mutex> lock(link_mutex_);
  user_ = std::move(user);
  token_ = std::move(token);
  root_ = std::move(root);
}

void YAgentState::Reload() {
  std::lock_guard<std::mutex> lock(mutex_);
  LoadLinkLocked();
  settings_.Load(*db_);
}

void YAgentState::ReloadLink() {
  std::lock_guard<std::mutex> lock(mutex_);
  LoadLinkLocked();
}

Qel::YString YAgentState::GetRootFolder() const {
  std::lock_guard<std::mutex> lock(link_mutex_);
  return root_;
}

Qel::YString YAgentState::GetUser() const {
  std::lock_guard<std::mutex> lock(link_mutex_);
  return user_;
}

Qel::YString YAgentState::GetToken() const {
  std::lock_guard<std::mutex> lock(link_mutex_);
  return token_;
}

void YAgentState::RestoreLogTypes() {
  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  for (const Qel::YString& name : Qel::Util::SplitString(GetOption(kLogTypesOption, kDefaultLogTypes), ',')) {
    unsigned int number = 0;
    if (log.FindLogType(Qel::Util::Trim(name), number)) log.EnableMessage(number, true);
  }
}

void YAgentState::SetLogTypes(const std::vector<Qel::YString>& names, bool enabled) {
  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  std::vector<unsigned int> numbers;
  Qel::YString unknown;
  for (const Qel::YString& name : names) {
    unsigned int number = 0;
    if (log.FindLogType(name, number)) numbers.push_back(number);
    else unknown += (unknown.empty() ? "" : ", ") + name;
  }
  if (!unknown.empty()) QEL_RAISE(kLogOva, kBadValue, "No such message type " + unknown, kFile, "SetLogTypes");
  for (unsigned int number : numbers) log.EnableMessage(number, enabled);
  Qel::YString kept;
  for (const auto& [name, number] : log.GetLogTypes()) {
    if (log.IsEnabled(number)) kept += (kept.empty() ? "" : ",") + name;
  }
  PutOption(kLogTypesOption, kept);
}

void YAgentState::SetOpenSessionCounter(std::function<uint64_t()> counter) {
  std::lock_guard<std::mutex> lock(mutex_);
  open_sessions_ = std::move(counter);
}

uint64_t YAgentState::CountOpenSessions() const {
  std::function<uint64_t()> counter;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    counter = open_sessions_;
  }
  return counter ? counter() : 0;
}

std::chrono::seconds YAgentState::GetUptime() const {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_);
}

void YAgentState::SetResyncHandler(std::function<void(bool)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  resync_ = std::move(handler);
}

void YAgentState::RequestResync(bool fromScratch) {
  std::function<void(bool)> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handler = resync_;
  }
  if (handler) handler(fromScratch);
}

}  // namespace Agent
