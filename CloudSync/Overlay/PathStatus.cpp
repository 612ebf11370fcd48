#include "CloudSync/Overlay/PathStatus.h"

namespace OverlayClient {

Qel::YString CloudStatusText(const PathStatus& status) {
  static const char* const kTexts[] = {"None", "Synced", "Syncing", "Error"};
  if (status.cloudStatus < 0 || status.cloudStatus > kStatusError) return "Unknown";
  return kTexts[status.cloudStatus];
}

Qel::YString SyncProgressText(const PathStatus& status) {
  static const char* const kTexts[] = {"None", "20%", "40%", "60%", "80%", "100%"};
  if (status.syncProgress < 0 || status.syncProgress > 5) return "Unknown";
  return kTexts[status.syncProgress];
}

}  // namespace OverlayClient
