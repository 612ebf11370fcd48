#include "CloudSync/Peer/YPeerTable.h"

#include <algorithm>
#include <vector>

namespace CloudSync {

namespace {

bool IsIpv6(const Qel::YString& address) { return address.find(':') != Qel::YString::npos; }

}  // namespace

YPeerTable::Update YPeerTable::Heard(const PeerInfo& peer, Clock::time_point now) {
  auto it = peers_.find(peer.deviceId);
  if (it == peers_.end()) {
    if (peers_.size() >= capacity_) return Update::kRefused;
    peers_.emplace(peer.deviceId, Entry{peer, now});
    return Update::kChanged;
  }
  Entry& entry = it->second;
  PeerInfo next = peer;
  // The same run heard over IPv6 after IPv4: keep the IPv4 address. A new run
  // (a restarted agent) takes whatever address it was heard on.
  if (next.instanceId == entry.info.instanceId && IsIpv6(next.address) && !IsIpv6(entry.info.address)) {
    next.address = entry.info.address;
  }
  entry.lastHeard = now;
  const bool changed = next.GetDisplayText() != entry.info.GetDisplayText();
  entry.info = std::move(next);
  return changed ? Update::kChanged : Update::kUnchanged;
}

bool YPeerTable::Forget(const Qel::YString& deviceId) { return peers_.erase(deviceId) != 0; }

bool YPeerTable::Expire(Clock::time_point now, Clock::duration maxSilence) {
  const size_t before = peers_.size();
  std::erase_if(peers_, [&](const auto& item) { return now - item.second.lastHeard > maxSilence; });
  return peers_.size() != before;
}

std::list<std::shared_ptr<PeerInfo>> YPeerTable::Snapshot() const {
  std::vector<const PeerInfo*> order;
  order.reserve(peers_.size());
  for (const auto& [device, entry] : peers_) order.push_back(&entry.info);
  std::stable_sort(order.begin(), order.end(),
                   [](const PeerInfo* a, const PeerInfo* b) { return a->host < b->host; });  // ties stay by device
  std::list<std::shared_ptr<PeerInfo>> list;
  for (const PeerInfo* info : order) list.push_back(std::make_shared<PeerInfo>(*info));
  return list;
}

}  // namespace CloudSync
