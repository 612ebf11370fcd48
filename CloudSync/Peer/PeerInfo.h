// CloudSync::PeerInfo: one Zarnu client heard on the local network.
#pragma once

#include <cstdint>

#include "Qel/YString.h"

namespace CloudSync {

struct PeerInfo {
  Qel::YString deviceId;  // stable per data folder: the key of a peer
  uint64_t instanceId = 0;  // the agent run that was heard (new at every start)
  Qel::YString host;      // the peer's host name
  Qel::YString user;      // the linked account, "" when not linked
  Qel::YString version;   // the agent's version
  Qel::YString address;   // where it was heard from: "10.0.0.7" or "fe80::1%eth0"

  // "<host> (<user>) at <address>, agent <version>, device <first 8 of id>";
  // "(not linked)" stands for an empty user.
  Qel::YString GetDisplayText() const;

  bool operator==(const PeerInfo& other) const = default;
};

}  // namespace CloudSync
