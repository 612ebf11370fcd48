#include "CloudSync/Peer/PeerInfo.h"

namespace CloudSync {

namespace {
constexpr size_t kShownDeviceDigits = 8;
}

Qel::YString PeerInfo::GetDisplayText() const {
  return host + " (" + (user.empty() ? Qel::YString("not linked") : user) + ") at " + address + ", agent " + version +
         ", device " + deviceId.substr(0, kShownDeviceDigits);
}

}  // namespace CloudSync
