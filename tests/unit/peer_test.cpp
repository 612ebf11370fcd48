// The peer discovery packet, the peer table and the sender limiter.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "CloudSync/Peer/PeerPacket.h"
#include "CloudSync/Peer/YPeerTable.h"
#include "CloudSync/Peer/YSenderLimiter.h"

namespace {

using CloudSync::DecodePeerPacket;
using CloudSync::EncodePeerPacket;
using CloudSync::PeerInfo;
using CloudSync::PeerPacket;
using CloudSync::PeerPacketKind;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

PeerInfo Agent(const std::string& device, const std::string& host, const std::string& address = "10.0.0.1") {
  PeerInfo p;
  p.deviceId = device;
  p.instanceId = 42;
  p.host = host;
  p.user = "";
  p.version = "1.34.0508";
  p.address = address;
  return p;
}

PeerPacket Announce(const PeerInfo& self) {
  PeerPacket packet;
  packet.kind = PeerPacketKind::kAnnounce;
  packet.senderId = 0x0102030405060708ULL;
  packet.self = self;
  return packet;
}

std::optional<PeerPacket> Decode(const std::string& bytes) { return DecodePeerPacket(bytes.data(), bytes.size()); }

TEST(PeerPacket, EveryKindSurvivesTheRoundTrip) {
  PeerInfo self = Agent("0123456789abcdef0123456789abcdef", "alice-laptop");
  self.user = "alice@example.com";
  for (PeerPacketKind kind :
       {PeerPacketKind::kQuery, PeerPacketKind::kAnswer, PeerPacketKind::kAnnounce, PeerPacketKind::kGoodbye}) {
    PeerPacket packet = Announce(self);
    packet.kind = kind;
    const std::string bytes = EncodePeerPacket(packet);
    ASSERT_EQ(bytes.substr(0, 6), std::string("ZRNP\x01", 5) + static_cast<char>(kind));
    std::optional<PeerPacket> back = Decode(bytes);
    ASSERT_TRUE(back) << static_cast<int>(kind);
    EXPECT_EQ(back->kind, kind);
    EXPECT_EQ(back->senderId, packet.senderId);
    if (kind == PeerPacketKind::kAnswer || kind == PeerPacketKind::kAnnounce) {
      EXPECT_EQ(back->self.host, "alice-laptop");
      EXPECT_EQ(back->self.user, "alice@example.com");
      EXPECT_EQ(back->self.version, "1.34.0508");
    }
    if (kind != PeerPacketKind::kQuery) {
      EXPECT_EQ(back->self.deviceId, self.deviceId);
    }
    EXPECT_TRUE(back->self.address.empty()) << "the address is where a packet came from, never what it says";
  }
}

TEST(PeerPacket, AnythingButAWellFormedPacketOfThisVersionIsRefused) {
  const std::string good = EncodePeerPacket(Announce(Agent("0123456789abcdef", "host")));
  ASSERT_TRUE(Decode(good));
  auto with = [&](size_t at, char value) {
    std::string b = good;
    b[at] = value;
    return b;
  };
  const std::string body = good.substr(CloudSync::kPeerHeaderSize);
  auto header = [](uint8_t kind, size_t length) {
    std::string h = "ZRNP";
    h += '\x01';
    h += static_cast<char>(kind);
    h += static_cast<char>(length >> 8);
    h += static_cast<char>(length & 0xff);
    h += std::string(7, '\0') + '\x07';
    return h;
  };
  auto packet = [&](const std::string& json) { return header(3, json.size()) + json; };
  const std::vector<std::pair<const char*, std::string>> bad = {
      {"empty", ""},
      {"header only, cut short", good.substr(0, 10)},
      {"body cut short", good.substr(0, good.size() - 1)},
      {"trailing byte", good + " "},
      {"another magic", with(0, 'X')},
      {"another version", with(4, '\x02')},
      {"unknown kind", with(5, '\x09')},
      {"sender id 0", good.substr(0, 8) + std::string(8, '\0') + body},
      {"oversized", packet(std::string(CloudSync::kMaxPeerPacket, ' '))},
      {"not JSON", packet("{\"device\":")},
      {"JSON but no object", packet("[1,2]")},
      {"device missing", packet(R"({"host":"h","user":"","version":"1"})")},
      {"device not hex", packet(R"({"device":"../../etc/passwd","host":"h","user":"","version":"1"})")},
      {"device a number", packet(R"({"device":1234567890,"host":"h","user":"","version":"1"})")},
      {"host empty", packet(R"({"device":"0123456789abcdef","host":"","user":"","version":"1"})")},
      {"terminal escape in host", packet("{\"device\":\"0123456789abcdef\",\"host\":\"\\u001b[2J\",\"user\":\"\","
                                         "\"version\":\"1\"}")},
      {"version missing", packet(R"({"device":"0123456789abcdef","host":"h","user":""})")},
  };
  for (const auto& [why, bytes] : bad) EXPECT_FALSE(Decode(bytes)) << why;
}

TEST(PeerPacket, LongAndEscapedTextsStillFitOnePacket) {
  PeerInfo self = Agent(std::string(64, 'a'), std::string(600, '"'));
  self.user = std::string(600, '\\');
  self.version = std::string(100, '"');
  const std::string bytes = EncodePeerPacket(Announce(self));
  EXPECT_LE(bytes.size(), CloudSync::kMaxPeerPacket);
  std::optional<PeerPacket> back = Decode(bytes);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->self.deviceId, self.deviceId);
  EXPECT_EQ(back->self.host, std::string(back->self.host.size(), '"'));
}

TEST(PeerTable, ReportsOnlyChangesAUserWouldSee) {
  CloudSync::YPeerTable table(8);
  const Clock::time_point t0 = Clock::now();
  EXPECT_EQ(table.Heard(Agent("bbbbbbbb", "zeta"), t0), CloudSync::YPeerTable::Update::kChanged);
  EXPECT_EQ(table.Heard(Agent("aaaaaaaa", "alpha"), t0), CloudSync::YPeerTable::Update::kChanged);
  EXPECT_EQ(table.Heard(Agent("bbbbbbbb", "zeta"), t0 + 1s), CloudSync::YPeerTable::Update::kUnchanged);

  PeerInfo linked = Agent("bbbbbbbb", "zeta");
  linked.user = "alice";
  EXPECT_EQ(table.Heard(linked, t0 + 2s), CloudSync::YPeerTable::Update::kChanged) << "a new link shows";

  // The same run heard over IPv6 keeps its IPv4 address; a restart takes the new one.
  PeerInfo over_v6 = linked;
  over_v6.address = "fe80::1%eth0";
  EXPECT_EQ(table.Heard(over_v6, t0 + 2s), CloudSync::YPeerTable::Update::kUnchanged);
  over_v6.instanceId = 43;
  EXPECT_EQ(table.Heard(over_v6, t0 + 2s), CloudSync::YPeerTable::Update::kChanged);

  auto list = table.Snapshot();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list.front()->host, "alpha") << "ordered by host name";
  EXPECT_EQ(list.back()->GetDisplayText(), "zeta (alice) at fe80::1%eth0, agent 1.34.0508, device bbbbbbbb");
  list.front()->host = "changed by the caller";
  EXPECT_EQ(table.Snapshot().front()->host, "alpha") << "a snapshot is the caller's own copy";
}

TEST(PeerTable, ForgetsTheSilentAndRefusesBeyondItsCapacity) {
  CloudSync::YPeerTable table(2);
  const Clock::time_point t0 = Clock::now();
  table.Heard(Agent("aaaaaaaa", "a"), t0);
  table.Heard(Agent("bbbbbbbb", "b"), t0 + 3s);
  EXPECT_EQ(table.Heard(Agent("cccccccc", "c"), t0 + 3s), CloudSync::YPeerTable::Update::kRefused);
  EXPECT_EQ(table.Size(), 2u);

  EXPECT_FALSE(table.Expire(t0 + 3s, 3500ms));
  EXPECT_TRUE(table.Expire(t0 + 4s, 3500ms));
  ASSERT_EQ(table.Size(), 1u);
  EXPECT_EQ(table.Snapshot().front()->host, "b");
  EXPECT_EQ(table.Heard(Agent("cccccccc", "c"), t0 + 4s), CloudSync::YPeerTable::Update::kChanged)
      << "room again once a peer left";
  EXPECT_TRUE(table.Forget("cccccccc"));
  EXPECT_FALSE(table.Forget("cccccccc"));
}

TEST(SenderLimiter, AFlooderIsCutOffWithoutStarvingOthersAndTrackingStaysBounded) {
  CloudSync::YSenderLimiter limiter;
  const Clock::time_point t0 = Clock::now();
  int admitted = 0, first_refusals = 0;
  for (int i = 0; i < 5000; ++i) {
    bool first = false;
    if (limiter.Admit("10.0.0.66", t0, &first)) ++admitted;
    if (first) ++first_refusals;
  }
  EXPECT_EQ(admitted, static_cast<int>(CloudSync::YSenderLimiter::kBurst));
  EXPECT_EQ(first_refusals, 1) << "one log line per run of refusals";
  bool first = false;
  EXPECT_TRUE(limiter.Admit("10.0.0.7", t0, &first)) << "another sender is still heard";
  EXPECT_TRUE(limiter.Admit("10.0.0.66", t0 + 1s, &first)) << "the flooder is heard again after a pause";

  for (int i = 0; i < 3000; ++i) limiter.Admit("10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256),
                                               t0 + 2s + std::chrono::milliseconds(i), nullptr);
  EXPECT_LE(limiter.TrackedSenders(), CloudSync::YSenderLimiter::kMaxSenders);
}

TEST(SenderLimiter, ManySpoofedSendersShareOneOverallLimit) {
  CloudSync::YSenderLimiter limiter;
  const Clock::time_point t0 = Clock::now();
  int admitted = 0;
  for (int i = 0; i < 1000; ++i) {
    if (limiter.Admit("10.2.0." + std::to_string(i), t0, nullptr)) ++admitted;
  }
  EXPECT_EQ(admitted, static_cast<int>(CloudSync::YSenderLimiter::kAllBurst));
}

}  // namespace
