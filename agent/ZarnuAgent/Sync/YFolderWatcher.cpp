#include "Sync/YFolderWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "AgentConstants.h"
#include "Qel/Log/YLog.h"

namespace Agent::Sync {

namespace {

constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                             IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

Qel::YString WatchLimitText() {
  std::ifstream in("/proc/sys/fs/inotify/max_user_watches");
  std::string value;
  if (in >> value) return value;
  return "unknown";
}

}  // namespace

YFolderWatcher::YFolderWatcher(std::function<void()> onChange) : on_change_(std::move(onChange)) {}

YFolderWatcher::~YFolderWatcher() { Stop(); }

bool YFolderWatcher::Start(const Qel::YString& root) {
  root_ = root;
  inotify_fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  stop_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (inotify_fd_ < 0 || stop_fd_ < 0) {
    Qel::Log::GetGlobalLogger().Write(kLogCsm, "inotify is not available (" + Qel::YString(std::strerror(errno)) +
                                                   "): local changes are seen by the periodic rescan only");
    return false;
  }
  AddWatch("");
  thread_ = std::thread([this] { Run(); });
  return true;
}

void YFolderWatcher::Stop() {
  if (stop_fd_ >= 0) {
    const uint64_t one = 1;
    (void)!::write(stop_fd_, &one, sizeof one);
  }
  if (thread_.joinable()) thread_.join();
  if (inotify_fd_ >= 0) ::close(inotify_fd_);
  if (stop_fd_ >= 0) ::close(stop_fd_);
  inotify_fd_ = stop_fd_ = -1;
}

size_t YFolderWatcher::CountWatches() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return by_descriptor_.size();
}

void YFolderWatcher::Watch(const std::vector<Qel::YString>& folders) {
  if (inotify_fd_ < 0) return;
  for (const Qel::YString& folder : folders) AddWatch(folder);
}

void YFolderWatcher::AddWatch(const Qel::YString& relative) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (watched_.count(relative) != 0 || inotify_fd_ < 0) return;
  if (hit_limit_.load()) return;  // the periodic rescan covers the rest
  const Qel::YString path = relative.empty() ? root_ : root_ + "/" + relative;
  const int wd = ::inotify_add_watch(inotify_fd_, path.c_str(), kEvents);
  if (wd < 0) {
    if (errno == ENOSPC && !hit_limit_.exchange(true)) {
      Qel::Log::GetGlobalLogger().Write(
          kLogExc, "The inotify watch limit is reached (fs.inotify.max_user_watches = " + WatchLimitText() + ", " +
                       std::to_string(by_descriptor_.size()) + " folders watched): changes below " + path +
                       " and other unwatched folders are seen by the periodic rescan only");
    }
    return;
  }
  by_descriptor_[wd] = relative;
  watched_.insert(relative);
}

void YFolderWatcher::Run() {
  alignas(inotify_event) char buffer[16384];
  pollfd fds[2] = {{inotify_fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
  while (true) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents != 0) return;
    bool changed = false;
    while (true) {
      const ssize_t n = ::read(inotify_fd_, buffer, sizeof buffer);
      if (n <= 0) break;
      for (char* p = buffer; p < buffer + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        p += sizeof(inotify_event) + event->len;
        if (event->mask & IN_IGNORED) {
          std::lock_guard<std::mutex> lock(mutex_);
          auto it = by_descriptor_.find(event->wd);
          if (it != by_descriptor_.end()) {
            watched_.erase(it->second);
            by_descriptor_.erase(it);
          }
          continue;
        }
        changed = true;
        if ((event->mask & IN_ISDIR) && (event->mask & (IN_CREATE | IN_MOVED_TO)) && event->len > 0) {
          // Watch a new folder at once, so that files written into it right
          // away are seen too.
          Qel::YString parent;
          {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = by_descriptor_.find(event->wd);
            if (it == by_descriptor_.end()) continue;
            parent = it->second;
          }
          AddWatch(parent.empty() ? Qel::YString(event->name) : parent + "/" + event->name);
        }
      }
    }
    if (changed && on_change_) on_change_();
  }
}

}  // namespace Agent::Sync
