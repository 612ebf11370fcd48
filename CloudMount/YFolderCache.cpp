#include "CloudMount/YFolderCache.h"

namespace CloudMount {

namespace {
constexpr size_t kMaxListings = 4096;  // folders remembered at once
}

YFolderCache::FolderPtr YFolderCache::Get(const Qel::YString& cloudFolder) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Clock::time_point now = Clock::now();
  auto it = listings_.find(cloudFolder);
  if (it != listings_.end() && now - it->second.fetched < kListingLifetime) return it->second.folder;
  auto folder = std::make_shared<const Folder>(fetch_(cloudFolder));
  if (listings_.size() >= kMaxListings) listings_.clear();  // a walk over a huge tree: start afresh
  listings_[cloudFolder] = Listing{folder, now};
  return folder;
}

}  // namespace CloudMount
