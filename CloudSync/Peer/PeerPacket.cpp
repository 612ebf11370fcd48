#include "CloudSync/Peer/PeerPacket.h"

#include <cstring>

#include "Qel/Exception/YError.h"
#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"

namespace CloudSync {

namespace {

constexpr size_t kMinDeviceId = 8;
constexpr size_t kKindOffset = 5;
constexpr size_t kLengthOffset = 6;
constexpr size_t kSenderOffset = 8;

void PutBigEndian(std::string& out, size_t offset, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) out[offset + i] = static_cast<char>((value >> (8 * (bytes - 1 - i))) & 0xff);
}

uint64_t GetBigEndian(const unsigned char* in, size_t bytes) {
  uint64_t value = 0;
  for (size_t i = 0; i < bytes; ++i) value = (value << 8) | in[i];
  return value;
}

bool IsKnownKind(uint8_t kind) {
  return kind >= static_cast<uint8_t>(PeerPacketKind::kQuery) && kind <= static_cast<uint8_t>(PeerPacketKind::kGoodbye);
}

// Texts shown on a terminal: control characters could move the cursor or
// recolour it, so a field holding one makes the packet unreadable.
bool IsPrintable(const Qel::YString& text) {
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

bool IsDeviceId(const Qel::YString& id) {
  if (id.size() < kMinDeviceId || id.size() > kMaxDeviceId) return false;
  for (char c : id) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

// The string field `name`, when present, a string, printable and short enough.
std::optional<Qel::YString> ReadText(const Qel::JSON::YObject& body, const char* name, size_t limit) {
  auto it = body.GetMembers().find(name);
  if (it == body.GetMembers().end() || !it->second || !it->second->IsString()) return std::nullopt;
  Qel::YString text = it->second->AsString();
  if (text.size() > limit || !IsPrintable(text)) return std::nullopt;
  return text;
}

}  // namespace

namespace {

// Texts are cut to `textLimit` bytes; escaping may still make the body longer
// than a packet holds, so the caller retries with a smaller limit.
std::string EncodeWithLimit(const PeerPacket& packet, size_t textLimit) {
  Qel::JSON::YObject body;
  if (packet.kind != PeerPacketKind::kQuery) {
    body.Set("device", Qel::JSON::YValue(packet.self.deviceId.substr(0, kMaxDeviceId)));
  }
  if (packet.kind == PeerPacketKind::kAnswer || packet.kind == PeerPacketKind::kAnnounce) {
    body.Set("host", Qel::JSON::YValue(packet.self.host.substr(0, textLimit)));
    body.Set("user", Qel::JSON::YValue(packet.self.user.substr(0, textLimit)));
    body.Set("version", Qel::JSON::YValue(packet.self.version.substr(0, kMaxPeerVersion)));
  }
  const std::string text = body.Stringify();
  std::string out(kPeerHeaderSize, '\0');
  std::memcpy(out.data(), kPeerMagic, sizeof(kPeerMagic));
  out[4] = static_cast<char>(kPeerProtocolVersion);
  out[kKindOffset] = static_cast<char>(packet.kind);
  PutBigEndian(out, kLengthOffset, text.size(), 2);
  PutBigEndian(out, kSenderOffset, packet.senderId, 8);
  return out + text;
}

}  // namespace

std::string EncodePeerPacket(const PeerPacket& packet) {
  constexpr size_t kShortTexts = 100;  // even fully escaped, these fit a packet
  std::string out = EncodeWithLimit(packet, kMaxPeerText);
  return out.size() <= kMaxPeerPacket ? out : EncodeWithLimit(packet, kShortTexts);
}

std::optional<PeerPacket> DecodePeerPacket(const void* bytes, size_t size) {
  const auto* in = static_cast<const unsigned char*>(bytes);
  if (size < kPeerHeaderSize || size > kMaxPeerPacket) return std::nullopt;
  if (std::memcmp(in, kPeerMagic, sizeof(kPeerMagic)) != 0 || in[4] != kPeerProtocolVersion) return std::nullopt;
  if (!IsKnownKind(in[kKindOffset])) return std::nullopt;
  if (GetBigEndian(in + kLengthOffset, 2) != size - kPeerHeaderSize) return std::nullopt;

  PeerPacket packet;
  packet.kind = static_cast<PeerPacketKind>(in[kKindOffset]);
  packet.senderId = GetBigEndian(in + kSenderOffset, 8);
  packet.self.instanceId = packet.senderId;
  if (packet.senderId == 0) return std::nullopt;
  if (packet.kind == PeerPacketKind::kQuery) return packet;  // a query's body says nothing we need

  Qel::JSON::YObject body;
  try {
    body = Qel::JSON::ParseObject(Qel::YString(reinterpret_cast<const char*>(in + kPeerHeaderSize),
                                               size - kPeerHeaderSize));
  } catch (const Qel::Exception::YError&) {
    return std::nullopt;
  }
  std::optional<Qel::YString> device = ReadText(body, "device", kMaxDeviceId);
  if (!device || !IsDeviceId(*device)) return std::nullopt;
  packet.self.deviceId = *device;
  if (packet.kind == PeerPacketKind::kGoodbye) return packet;

  std::optional<Qel::YString> host = ReadText(body, "host", kMaxPeerText);
  std::optional<Qel::YString> user = ReadText(body, "user", kMaxPeerText);
  std::optional<Qel::YString> version = ReadText(body, "version", kMaxPeerVersion);
  if (!host || host->empty() || !user || !version || version->empty()) return std::nullopt;
  packet.self.host = *host;
  packet.self.user = *user;
  packet.self.version = *version;
  return packet;
}

}  // namespace CloudSync
