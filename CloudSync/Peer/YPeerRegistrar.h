// CloudSync::YPeerRegistrar: finds the Zarnu clients on the local network
// (docs/peer-discovery.md).
//
// Initialize() opens the sockets and starts two threads: the receiver, which
// reads discovery packets, answers questions (when advertising), announces
// this engine every kAnnounceInterval (when advertising) and forgets silent
// peers; and the notifier, which raises the peer-list-changed signal, on its
// own thread and only when the known list really changed. RequestBroadcast
// asks every interface who is there. Network trouble (no interface, the port
// held by another program) never throws: it is logged under CSM_PEER and
// listed by GetProblems(), and discovery does what it still can.
//
// Peers are forgotten after a goodbye, or when silent for kAnswerSilence
// while this engine keeps asking (a scan asks every second), else for
// kAnnounceSilence. Packets carrying this engine's own instance id are never
// peers. Senders are rate-limited (YSenderLimiter) and the table is capped at
// kMaxPeers, both said once in the log.
//
// Thread-safety: every operation may be called from any thread, except that
// Initialize and Stop must not run at the same time. Slots run on
// the notifier thread; Stop() waits for a running slot, so a slot must not
// call Stop.
#pragma once

#include <boost/signals2/signal.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "CloudSync/Peer/PeerInfo.h"
#include "CloudSync/Peer/PeerNetwork.h"
#include "CloudSync/Peer/PeerPacket.h"
#include "CloudSync/Peer/YPeerTable.h"
#include "CloudSync/Peer/YSenderLimiter.h"
#include "Qel/Thread/YThread.h"

namespace CloudSync {

// What a registrar can be asked to broadcast.
enum PEER_COMMAND : int {
  PEER_COMMAND_QUERY = 1,  // "who is there?"
};

class YPeerRegistrar {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kMaxPeers = 256;
  // "off" in this environment variable keeps the registrar off the network
  // (test suites that are not about peers set it).
  static constexpr const char* kSwitchVariable = "ZARNU_PEER_DISCOVERY";
  static constexpr std::chrono::seconds kAnnounceInterval{10};
  static constexpr std::chrono::milliseconds kAnswerSilence{3500};
  static constexpr std::chrono::seconds kAnnounceSilence{3 * 10 + 2};
  static constexpr std::chrono::seconds kAskingWindow{5};  // asked within this: kAnswerSilence applies

  struct Options {
    // Answer questions, announce, and say goodbye (what a running agent does).
    bool advertise = false;
    // Who this engine is (its address is left empty). Called on the receiver
    // thread for every answer and announcement, so a new link shows at once.
    // REQUIRES: set when `advertise`.
    std::function<PeerInfo()> describeSelf;
    uint16_t port = kPeerPort;
    size_t capacity = kMaxPeers;
  };

  explicit YPeerRegistrar(Options options);
  ~YPeerRegistrar();
  YPeerRegistrar(const YPeerRegistrar&) = delete;
  YPeerRegistrar& operator=(const YPeerRegistrar&) = delete;

  // Starts listening (once; later calls do nothing).
  void Initialize();
  // Says goodbye when advertising, ends both threads, closes the sockets.
  void Stop();

  // One broadcast of `command` on every interface that can carry it.
  void RequestBroadcast(PEER_COMMAND command);

  // The peers known now, as copies the caller may keep.
  std::list<std::shared_ptr<PeerInfo>> GetKnownPeers() const;
  boost::signals2::signal<void()>& GetPeerListChangedSignal() { return changed_signal_; }

  // What limits discovery here, one clear sentence each (empty when nothing).
  std::vector<Qel::YString> GetProblems() const;
  uint64_t GetInstanceId() const { return instance_id_; }

 private:
  void ReceiverBody();
  void NotifierBody();
  void ReadAll(YUdpSocket& socket);
  void Handle(const PeerPacket& packet, const sockaddr_storage& from);
  void Answer(const sockaddr_storage& to);
  // Sends `bytes` to the IPv4 broadcast address and the IPv6 group of every
  // interface; refreshes the interface list (and the group memberships) first.
  void Broadcast(const std::string& bytes);
  std::string EncodeSelf(PeerPacketKind kind) const;
  void MarkChanged();
  void NoteProblem(const Qel::YString& text);

  Options options_;
  uint64_t instance_id_;
  YUdpSocket listen_v4_, listen_v6_;  // the fixed port, shared by every engine on the host
  YUdpSocket ask_v4_, ask_v6_;        // ephemeral ports: questions, answers, announcements
  std::unique_ptr<Qel::Thread::YThread> receiver_;
  std::unique_ptr<Qel::Thread::YThread> notifier_;
  YSenderLimiter limiter_;  // receiver thread only

  mutable std::mutex mutex_;  // guards everything below
  bool initialized_ = false;
  bool running_ = false;  // the sockets are open and the threads run
  bool stopped_ = false;
  YPeerTable table_;
  bool table_full_said_ = false;
  bool changed_ = false;
  std::condition_variable changed_cv_;
  Clock::time_point last_query_{};
  std::set<unsigned int> joined_v6_;  // interface indexes in the IPv6 group
  // Engines (by instance id) that said goodbye, the latest last, at most
  // kDepartedKept: an answer of theirs read after the goodbye (it may come in
  // on another socket) must not bring them back. A restarted agent is a new
  // instance and is heard at once.
  std::deque<uint64_t> departed_;
  std::vector<Qel::YString> problems_;

  boost::signals2::signal<void()> changed_signal_;
};

}  // namespace CloudSync
