// OverlayClient::PathStatus: the agent's answer to "what state is this path
// in", and the texts it is shown under.
#pragma once

#include <cstdint>

#include "Qel/YString.h"

namespace OverlayClient {

// Cloud status values.
inline constexpr int32_t kStatusNone = 0;
inline constexpr int32_t kStatusSynced = 1;
inline constexpr int32_t kStatusSyncing = 2;
inline constexpr int32_t kStatusError = 3;

struct PathStatus {
  Qel::YString path;         // as the agent names it
  int32_t cloudStatus = 0;   // kStatus*
  int32_t syncProgress = 0;  // 0 none, 1..5: 20 % steps up to 100 %
  uint32_t flags = 0;        // the agent's bits, passed through

  bool operator==(const PathStatus&) const = default;
};

// "None", "Synced", "Syncing", "Error"; "Unknown" for any other value.
Qel::YString CloudStatusText(const PathStatus& status);
// "None", "20%" ... "100%"; "Unknown" for any other value.
Qel::YString SyncProgressText(const PathStatus& status);

}  // namespace OverlayClient
