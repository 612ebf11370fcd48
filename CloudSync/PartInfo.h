// CloudSync::PartInfo and CloudSync::MetadataInfo: the records that travel
// between the cloud client and its callers.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "Qel/File/File.h"
#include "Qel/Memory/YHeapPtr.h"
#include "Qel/YString.h"

namespace CloudSync {

// One part of a file: at most 1 MiB of its bytes, named by its fingerprint
// (lower-case hex MD5 followed by lower-case hex SHA-1 of the bytes). `data`
// holds the bytes only while they are in flight.
struct PartInfo {
  Qel::YString fingerprint;
  uint32_t size = 0;
  uint64_t offset = 0;
  Qel::Memory::YHeapPtr<unsigned char> data{"Part data"};
};

using PartPtr = std::shared_ptr<PartInfo>;
using PartList = std::list<PartPtr>;

// One cloud entry of a listing.
struct MetadataInfo {
  uint64_t id = 0;          // file version id (hand back to GetParts) or folder id
  Qel::YString path;        // full cloud path, "/" for the root
  uint32_t attributes = 0;  // Qel::File::kAttributeFolder for folders
  uint64_t size = 0;        // files: bytes; folders: 0
  int64_t modified = 0;     // seconds since the epoch
  int64_t deleted = 0;      // deleted time, 0 when the entry is live
  uint64_t contained = 0;   // folders: live direct children
  uint64_t partCount = 0;   // files: number of parts (also when parts were not listed)
  uint64_t changeSeq = 0;   // the account's change sequence of this state; 0 when the service did not say
  PartList parts;           // files, when parts were asked for; in file order

  bool IsFolder() const { return (attributes & Qel::File::kAttributeFolder) != 0; }
  bool IsDeleted() const { return deleted != 0; }
};

using MetadataPtr = std::shared_ptr<MetadataInfo>;

}  // namespace CloudSync
