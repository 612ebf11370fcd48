// CloudMount::YFolderCache: cloud folder listings (with every file's part
// list), kept for kListingLifetime so that a burst of lookups in one folder
// costs one listing.
//
// Thread-safety: every operation may be called from any thread; listings are
// fetched through the fetch function given, one at a time.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "CloudSync/PartInfo.h"

namespace CloudMount {

class YFolderCache {
 public:
  using Clock = std::chrono::steady_clock;
  // Entries of one folder by name.
  using Folder = std::map<Qel::YString, CloudSync::MetadataPtr>;
  using FolderPtr = std::shared_ptr<const Folder>;
  // Lists a cloud folder's direct children, parts included; raises YError.
  using FetchFn = std::function<Folder(const Qel::YString& cloudFolder)>;

  static constexpr std::chrono::seconds kListingLifetime{10};

  explicit YFolderCache(FetchFn fetch) : fetch_(std::move(fetch)) {}

  // The listing of `cloudFolder`, fetched when missing or older than the
  // lifetime. Raises the fetch's error.
  FolderPtr Get(const Qel::YString& cloudFolder);

 private:
  struct Listing {
    FolderPtr folder;
    Clock::time_point fetched;
  };
  FetchFn fetch_;
  std::mutex mutex_;
  std::map<Qel::YString, Listing> listings_;
};

}  // namespace CloudMount
