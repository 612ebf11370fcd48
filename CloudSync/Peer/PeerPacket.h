// The peer discovery packet (docs/peer-discovery.md).
//
// A packet is a 16-byte header followed by a JSON object:
//   magic "ZRNP" | version (1 byte) | kind (1 byte) | body length (2 bytes,
//   big-endian) | sender's instance id (8 bytes, big-endian) | body
// and is at most kMaxPeerPacket bytes long. Decode accepts only packets of
// this exact shape and version; anything else is not ours and is dropped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "CloudSync/Peer/PeerInfo.h"

namespace CloudSync {

// The UDP port every engine listens on, and the IPv6 link-local group it joins.
inline constexpr uint16_t kPeerPort = 47821;
inline constexpr const char* kPeerGroupV6 = "ff02::5a72";

inline constexpr size_t kMaxPeerPacket = 1024;
inline constexpr size_t kPeerHeaderSize = 16;
inline constexpr uint8_t kPeerProtocolVersion = 1;
inline constexpr char kPeerMagic[4] = {'Z', 'R', 'N', 'P'};

// Longest accepted texts of an advertisement.
inline constexpr size_t kMaxDeviceId = 64;
inline constexpr size_t kMaxPeerText = 255;
inline constexpr size_t kMaxPeerVersion = 32;

enum class PeerPacketKind : uint8_t {
  kQuery = 1,     // "who is there?", broadcast by an engine that scans
  kAnswer = 2,    // the reply to a query, sent back to the asker only
  kAnnounce = 3,  // "I am here", broadcast by a running agent now and then
  kGoodbye = 4,   // "I am leaving", broadcast by an agent that stops
};

struct PeerPacket {
  PeerPacketKind kind = PeerPacketKind::kQuery;
  uint64_t senderId = 0;
  // Who the sender is; used for answers and announcements and goodbyes
  // (a goodbye needs the device id only). The address is never sent.
  PeerInfo self;
};

// The bytes of `packet`, never more than kMaxPeerPacket: texts are cut to the
// limits above, and shorter still when escaping would make them too long.
std::string EncodePeerPacket(const PeerPacket& packet);

// The packet in `bytes`, or nothing when they are not a well-formed packet of
// this version: wrong magic, version, kind or length, a body that is not a
// JSON object, or missing or oversized fields.
std::optional<PeerPacket> DecodePeerPacket(const void* bytes, size_t size);

}  // namespace CloudSync
