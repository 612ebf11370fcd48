// CloudSync::YPeerTable: the peers an engine knows, keyed by device id.
//
// Heard() records a peer; it reports a change only when the list as a user
// sees it changes (a new peer, or a displayed field that differs), not when a
// known peer is merely heard again. A peer is heard on IPv4 and IPv6 alike;
// its IPv4 address is kept once known, so the shown address does not flap.
// The table holds at most `capacity` peers: beyond that new peers are refused
// (Heard returns kRefused) until some leave. Expire() forgets peers that have
// been silent longer than allowed. Snapshot() lists copies, ordered by host
// name then device id.
//
// Thread-safety: none; the registrar guards it with its mutex.
#pragma once

#include <chrono>
#include <list>
#include <map>
#include <memory>

#include "CloudSync/Peer/PeerInfo.h"

namespace CloudSync {

class YPeerTable {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Update { kUnchanged, kChanged, kRefused };

  explicit YPeerTable(size_t capacity) : capacity_(capacity) {}

  Update Heard(const PeerInfo& peer, Clock::time_point now);
  // True when the device was known.
  bool Forget(const Qel::YString& deviceId);
  // Forgets peers not heard since `now - maxSilence`; true when any went.
  bool Expire(Clock::time_point now, Clock::duration maxSilence);

  std::list<std::shared_ptr<PeerInfo>> Snapshot() const;
  size_t Size() const { return peers_.size(); }
  size_t Capacity() const { return capacity_; }

 private:
  struct Entry {
    PeerInfo info;
    Clock::time_point lastHeard;
  };
  size_t capacity_;
  std::map<Qel::YString, Entry> peers_;  // by device id
};

}  // namespace CloudSync
