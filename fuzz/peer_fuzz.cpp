// Fuzz target: bytes as they would arrive on the peer discovery port go
// through the packet decoder, and whatever it accepts is shown as a peer.
//
// Findings: a crash, a sanitizer report, and a broken codec invariant (abort):
//   - a decoded packet encodes again to bytes that decode to the same packet;
//   - an accepted peer's display text holds no control character (it is
//     printed on users' terminals).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "CloudSync/Peer/PeerPacket.h"
#include "CloudSync/Peer/YPeerTable.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::optional<CloudSync::PeerPacket> packet = CloudSync::DecodePeerPacket(data, size);
  if (!packet) return 0;
  const std::string again = CloudSync::EncodePeerPacket(*packet);
  std::optional<CloudSync::PeerPacket> back = CloudSync::DecodePeerPacket(again.data(), again.size());
  if (!back || back->kind != packet->kind || back->senderId != packet->senderId ||
      !(back->self == packet->self)) {
    std::abort();
  }
  CloudSync::YPeerTable table(4);
  CloudSync::PeerInfo peer = packet->self;
  peer.address = "10.0.0.1";
  table.Heard(peer, std::chrono::steady_clock::now());
  for (const auto& shown : table.Snapshot()) {
    for (unsigned char c : shown->GetDisplayText()) {
      if (c < 0x20 || c == 0x7f) std::abort();
    }
  }
  return 0;
}
