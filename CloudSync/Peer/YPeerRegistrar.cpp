#include "CloudSync/Peer/YPeerRegistrar.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>

#include "Qel/Log/YLog.h"

namespace CloudSync {

namespace {

constexpr unsigned int kLogPeer = 203;         // CSM_PEER
constexpr unsigned int kLogPeerPackets = 205;  // CSM_PEERPAK
constexpr int kPollMs = 200;
constexpr size_t kDepartedKept = 64;  // goodbyes remembered (YPeerRegistrar::departed_)

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

uint64_t NewInstanceId() {
  std::random_device random;
  std::uniform_int_distribution<uint64_t> any(1, UINT64_MAX);
  return any(random);
}

socklen_t LengthOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

sockaddr_in6 GroupOn(unsigned int interfaceIndex, uint16_t port) {
  sockaddr_in6 to{};
  to.sin6_family = AF_INET6;
  to.sin6_port = htons(port);
  inet_pton(AF_INET6, kPeerGroupV6, &to.sin6_addr);
  to.sin6_scope_id = interfaceIndex;
  return to;
}

}  // namespace

YPeerRegistrar::YPeerRegistrar(Options options)
    : options_(std::move(options)), instance_id_(NewInstanceId()), table_(options_.capacity) {}

YPeerRegistrar::~YPeerRegistrar() { Stop(); }

void YPeerRegistrar::NoteProblem(const Qel::YString& text) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Qel::YString& known : problems_) {
      if (known == text) return;
    }
    problems_.push_back(text);
  }
  Log().Write(kLogPeer, "Peer discovery: " + text);
}

std::vector<Qel::YString> YPeerRegistrar::GetProblems() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return problems_;
}

void YPeerRegistrar::Initialize() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (initialized_ || stopped_) return;
    initialized_ = true;
  }
  if (const char* setting = std::getenv(kSwitchVariable); setting != nullptr && std::string(setting) == "off") {
    NoteProblem(std::string("switched off by ") + kSwitchVariable + "=off");
    return;  // no socket, no thread: RequestBroadcast sends nothing
  }
  const Qel::YString port = std::to_string(options_.port);
  std::string v4 = listen_v4_.Open(AF_INET, options_.port, true);
  if (!v4.empty()) {
    NoteProblem("UDP port " + port + " is not free (" + v4 +
                "): questions and announcements of other engines cannot be heard; answers to this engine's own "
                "questions still arrive");
  }
  listen_v6_.Open(AF_INET6, options_.port, true);  // no IPv6 here: discovery runs on IPv4 alone
  if (std::string why = ask_v4_.Open(AF_INET, 0, false); !why.empty()) {
    NoteProblem("no IPv4 UDP socket (" + why + ")");
  }
  ask_v6_.Open(AF_INET6, 0, false);
  Log().Write(kLogPeer, "Peer discovery listening on UDP port " + port + (options_.advertise ? " and announcing" : ""));

  receiver_ = std::make_unique<Qel::Thread::YThread>("peer receiver", [this] { ReceiverBody(); });
  notifier_ = std::make_unique<Qel::Thread::YThread>("peer notifier", [this] { NotifierBody(); });
  notifier_->Start();
  receiver_->Start();
  std::lock_guard<std::mutex> lock(mutex_);
  running_ = true;
}

void YPeerRegistrar::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return;
    stopped_ = true;
    changed_cv_.notify_all();  // under the lock: the notifier cannot miss it
    if (!initialized_) return;
  }
  if (!receiver_) return;  // switched off: nothing was started
  if (options_.advertise) Broadcast(EncodeSelf(PeerPacketKind::kGoodbye));
  receiver_->RequestTermination();
  receiver_->Join();
  notifier_->Join();
  for (YUdpSocket* socket : {&listen_v4_, &listen_v6_, &ask_v4_, &ask_v6_}) socket->Close();
}

std::string YPeerRegistrar::EncodeSelf(PeerPacketKind kind) const {
  PeerPacket packet;
  packet.kind = kind;
  packet.senderId = instance_id_;
  if (kind != PeerPacketKind::kQuery && options_.describeSelf) packet.self = options_.describeSelf();
  return EncodePeerPacket(packet);
}

void YPeerRegistrar::RequestBroadcast(PEER_COMMAND command) {
  if (command != PEER_COMMAND_QUERY) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_ || stopped_) return;
    last_query_ = Clock::now();
  }
  Broadcast(EncodeSelf(PeerPacketKind::kQuery));
}

void YPeerRegistrar::Broadcast(const std::string& bytes) {
  const std::vector<PeerInterface> interfaces = ListPeerInterfaces();
  bool anyV4 = false;
  for (const PeerInterface& item : interfaces) {
    if (item.broadcast) {
      anyV4 = true;
      sockaddr_in to = *item.broadcast;
      to.sin_port = htons(options_.port);
      if (!ask_v4_.SendTo(bytes, reinterpret_cast<const sockaddr*>(&to), sizeof(to))) {
        Log().Write(kLogPeerPackets, "Peer discovery: could not send on " + item.name);
      }
    }
    if (item.ipv6LinkLocal && ask_v6_.IsOpen()) {
      bool join = false;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        join = listen_v6_.IsOpen() && joined_v6_.insert(item.index).second;
      }
      const sockaddr_in6 to = GroupOn(item.index, options_.port);
      if (join) {
        ipv6_mreq group{};
        group.ipv6mr_multiaddr = to.sin6_addr;
        group.ipv6mr_interface = item.index;
        setsockopt(listen_v6_.GetDescriptor(), IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof(group));
      }
      ask_v6_.SendTo(bytes, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
  }
  if (interfaces.empty()) {
    NoteProblem("no network interface other than loopback is up: no peer can be found until one is");
  } else if (!anyV4) {
    NoteProblem("no network interface has an IPv4 broadcast address: only IPv6 link-local peers can be found");
  }
}

void YPeerRegistrar::Answer(const sockaddr_storage& to) {
  YUdpSocket& via = to.ss_family == AF_INET ? ask_v4_ : ask_v6_;
  via.SendTo(EncodeSelf(PeerPacketKind::kAnswer), reinterpret_cast<const sockaddr*>(&to), LengthOf(to));
}

void YPeerRegistrar::MarkChanged() {
  changed_ = true;
  changed_cv_.notify_all();
}

void YPeerRegistrar::Handle(const PeerPacket& packet, const sockaddr_storage& from) {
  if (packet.senderId == instance_id_) return;  // our own broadcast, looped back
  switch (packet.kind) {
    case PeerPacketKind::kQuery:
      if (options_.advertise) Answer(from);
      return;
    case PeerPacketKind::kGoodbye: {
      std::lock_guard<std::mutex> lock(mutex_);
      if (std::find(departed_.begin(), departed_.end(), packet.senderId) == departed_.end()) {
        departed_.push_back(packet.senderId);
        if (departed_.size() > kDepartedKept) departed_.pop_front();
      }
      if (table_.Forget(packet.self.deviceId)) MarkChanged();
      return;
    }
    case PeerPacketKind::kAnswer:
    case PeerPacketKind::kAnnounce: {
      PeerInfo peer = packet.self;
      peer.address = FormatPeerAddress(from);
      std::lock_guard<std::mutex> lock(mutex_);
      if (std::find(departed_.begin(), departed_.end(), packet.senderId) != departed_.end()) return;
      switch (table_.Heard(peer, Clock::now())) {
        case YPeerTable::Update::kChanged:
          MarkChanged();
          break;
        case YPeerTable::Update::kRefused:
          if (!table_full_said_) {
            table_full_said_ = true;
            Log().Write(kLogPeer, "Peer discovery: " + std::to_string(table_.Capacity()) +
                                      " peers known, the most kept; new peers are ignored until some leave");
          }
          break;
        case YPeerTable::Update::kUnchanged:
          break;
      }
      if (table_.Size() < table_.Capacity()) table_full_said_ = false;
      return;
    }
  }
}

void YPeerRegistrar::ReadAll(YUdpSocket& socket) {
  std::array<char, kMaxPeerPacket + 1> buffer{};
  for (;;) {
    sockaddr_storage from{};
    const ssize_t size = socket.Receive(buffer.data(), buffer.size(), &from);
    if (size < 0) return;
    const Qel::YString sender = FormatPeerAddress(from);
    bool firstRefusal = false;
    if (!limiter_.Admit(sender, Clock::now(), &firstRefusal)) {
      if (firstRefusal) Log().Write(kLogPeer, "Peer discovery: too many packets from " + sender + ", ignoring some");
      continue;
    }
    std::optional<PeerPacket> packet =
        static_cast<size_t>(size) <= kMaxPeerPacket ? DecodePeerPacket(buffer.data(), static_cast<size_t>(size))
                                                    : std::nullopt;
    if (!packet) {
      Log().Write(kLogPeerPackets, "Peer discovery: ignored a packet of " + std::to_string(size) + " bytes from " +
                                       sender + " that is not ours");
      continue;
    }
    Handle(*packet, from);
  }
}

void YPeerRegistrar::ReceiverBody() {
  Clock::time_point next_announce = Clock::now();
  while (!Qel::Thread::IsTerminationRequested()) {
    if (options_.advertise && Clock::now() >= next_announce) {
      Broadcast(EncodeSelf(PeerPacketKind::kAnnounce));
      next_announce = Clock::now() + kAnnounceInterval;
    }
    std::array<pollfd, 4> fds{};
    std::array<YUdpSocket*, 4> sockets{&listen_v4_, &listen_v6_, &ask_v4_, &ask_v6_};
    for (size_t i = 0; i < sockets.size(); ++i) {
      fds[i].fd = sockets[i]->GetDescriptor();  // -1 (a closed socket) is skipped by poll
      fds[i].events = POLLIN;
    }
    if (::poll(fds.data(), fds.size(), kPollMs) > 0) {
      for (size_t i = 0; i < sockets.size(); ++i) {
        if ((fds[i].revents & POLLIN) != 0) ReadAll(*sockets[i]);
      }
    }
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    const auto silence = now - last_query_ < kAskingWindow ? Clock::duration(kAnswerSilence)
                                                           : Clock::duration(kAnnounceSilence);
    if (table_.Expire(now, silence)) MarkChanged();
  }
}

void YPeerRegistrar::NotifierBody() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_cv_.wait(lock, [this] { return changed_ || stopped_; });
      if (stopped_) return;
      changed_ = false;
    }
    changed_signal_();
  }
}

std::list<std::shared_ptr<PeerInfo>> YPeerRegistrar::GetKnownPeers() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return table_.Snapshot();
}

}  // namespace CloudSync
