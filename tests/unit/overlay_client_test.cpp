// The overlay client: its connection state machine against an in-process
// agent built from the real runtime (a Unix socket, real sessions), the
// requests the agent sends it, remote.cfg, and the menu model.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "CloudSync/Overlay/OverlayClient.h"
#include "Qel/IO/YFrame.h"
#include "Qel/JSON/YValue.h"
#include "qel_test_support.h"

namespace {

using OverlayClient::PathStatus;
using OverlayClient::YOverlayContext;
using Qel::YString;
using Qel::IO::YCommand;
using Qel::IO::YCommandPtr;
using Qel::JSON::YObject;
using Qel::JSON::YValue;
using Qel::Time::YDuration;
using qel_test::Raised;
using qel_test::TempFolder;

// An agent in the test process: answers the root share, counts requests by
// method; keeps its sessions so that the test can push requests or drop clients.
class InProcessAgent {
 public:
  explicit InProcessAgent(const std::string& path) {
    service_.Initialize(1);
    listener_ = Qel::IO::YListener::CreateUnix(service_, path, 0600);
    listener_->Start([this](std::shared_ptr<Qel::IO::YIoBase> io) {
      auto session = std::make_shared<Qel::IO::YSession>([this](std::shared_ptr<Qel::IO::YSession>, YCommandPtr r) {
        {
          std::lock_guard<std::mutex> lock(mutex_);
          ++counts_[r->GetMethod()];
        }
        YCommandPtr reply = YCommand::CreateReply(*r);
        YObject result;
        result.Set("share_path", YValue("/home/u/Zarnu"));
        reply->SetResult(result);
        return reply;
      });
      std::lock_guard<std::mutex> lock(mutex_);
      sessions_.push_back(session);
      session->Allocate(io);
    });
  }
  ~InProcessAgent() {
    DropClients();
    listener_->Close();
    service_.Deinitialize();
  }
  void DropClients() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& s : sessions_) s->Release();
    sessions_.clear();
  }
  // Sends a request to the newest client and returns its reply.
  YCommandPtr Ask(YCommandPtr request) {
    std::shared_ptr<Qel::IO::YSession> s;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      s = sessions_.back();
    }
    return s->ProcessRequest(std::move(request), YDuration::Seconds(3));
  }
  int Count(const std::string& method) {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_[method];
  }
  // Waits (bounded) until `method` arrived `n` times: asynchronous requests
  // land a little after they are sent.
  bool AwaitCount(const std::string& method, int n) {
    for (int i = 0; i < 3000 && Count(method) < n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return Count(method) == n;
  }

 private:
  Qel::IO::YService service_;
  std::shared_ptr<Qel::IO::YListener> listener_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Qel::IO::YSession>> sessions_;
  std::map<std::string, int> counts_;
};

YCommandPtr RefreshPath(const YString& path, int status, int progress, int flags) {
  YObject entry;
  entry.Set("path", YValue(path));
  entry.Set("status", YValue(status));
  entry.Set("progress", YValue(progress));
  entry.Set("flags", YValue(flags));
  YCommandPtr request = YCommand::CreateRequest("ova_refresh_path");
  request->SetParam("paths", YValue(Qel::JSON::YArray{std::make_shared<YValue>(entry)}));
  return request;
}

class OverlayContextTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.Initialize(1); }
  void TearDown() override {
    context_.reset();
    agent_.reset();
    service_.Deinitialize();
  }
  void MakeContext(const std::string& address) {
    context_ = YOverlayContext::Create(
        address, service_, true,
        [this](const PathStatus& s) {
          std::lock_guard<std::mutex> lock(mutex_);
          pushed_.push_back(s);
        },
        [this] { ++refreshes_; });
  }
  std::vector<PathStatus> Pushed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return pushed_;
  }

  TempFolder folder_{"overlay"};
  const std::string socket_ = folder_.Path("zarnuagent-overlay.socket");
  Qel::IO::YService service_;
  std::unique_ptr<InProcessAgent> agent_;
  std::shared_ptr<YOverlayContext> context_;
  std::mutex mutex_;
  std::vector<PathStatus> pushed_;
  std::atomic<int> refreshes_{0};
};

TEST(PollStepTest, HalfTheWaitAtMostHalfASecond) {
  EXPECT_EQ(OverlayClient::PollStep(YDuration::Milliseconds(300)), YDuration::Milliseconds(150));
  EXPECT_EQ(OverlayClient::PollStep(YDuration::Seconds(5)), YDuration::Milliseconds(500));
  EXPECT_EQ(OverlayClient::PollStep(OverlayClient::kSubmitSessionWait), YDuration::Milliseconds(50));
}

TEST_F(OverlayContextTest, AZeroWaitStartsAConnectionThatALaterCallFinds) {
  agent_ = std::make_unique<InProcessAgent>(socket_);
  MakeContext(socket_);
  EXPECT_EQ(context_->GetSession(YDuration()), nullptr);
  auto session = context_->GetSession(YDuration::Seconds(3));
  ASSERT_NE(session, nullptr);
  EXPECT_TRUE(session->IsConnected());
  EXPECT_EQ(context_->GetSession(YDuration()), session) << "a connected session is handed out at once";
}

TEST_F(OverlayContextTest, ADroppedAgentIsReplacedAndTheCacheAndRootShareStartOver) {
  agent_ = std::make_unique<InProcessAgent>(socket_);
  MakeContext(socket_);
  auto first = context_->GetSession(YDuration::Seconds(3));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(context_->GetRootShare(), "/home/u/Zarnu");
  EXPECT_EQ(context_->GetRootShare(), "/home/u/Zarnu");
  EXPECT_EQ(agent_->Count("overlay_get_root_share"), 1) << "the root share is asked once per connection";

  // An uncached path is asked for asynchronously each time and reads as the
  // default status until the agent pushes one.
  for (int i = 1; i <= 2; ++i) {
    EXPECT_EQ(context_->GetCachedPathStatus("/home/u/Zarnu/a"), PathStatus{"/home/u/Zarnu/a"});
    EXPECT_TRUE(agent_->AwaitCount("overlay_path_status_cached", i));
  }

  // A pushed status fills the cache and reaches the callback once; the same
  // status again does nothing; a changed flag alone is news.
  agent_->Ask(RefreshPath("/home/u/Zarnu/a", 1, 0, 0));
  agent_->Ask(RefreshPath("/home/u/Zarnu/a", 1, 0, 0));
  agent_->Ask(RefreshPath("/home/u/Zarnu/a", 1, 0, 4));
  ASSERT_EQ(Pushed().size(), 2u);
  EXPECT_EQ(Pushed()[1].flags, 4u);
  EXPECT_EQ(context_->GetCachedPathStatus("/home/u/Zarnu/a").cloudStatus, OverlayClient::kStatusSynced);
  EXPECT_EQ(agent_->Count("overlay_path_status_cached"), 2) << "a cache hit does not ask the agent";

  agent_->Ask(YCommand::CreateRequest("ova_refresh_menu"));
  EXPECT_EQ(refreshes_.load(), 1);

  // Any other request from the agent is refused with code 1; the session stays.
  EXPECT_EQ(Raised([&] { agent_->Ask(YCommand::CreateRequest("ova_bogus")); }).GetCcode(), 1u);
  EXPECT_TRUE(first->IsConnected());

  agent_->DropClients();
  for (int i = 0; i < 500 && first->IsConnected(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_FALSE(first->IsConnected());
  auto second = context_->GetSession(YDuration::Seconds(3));
  ASSERT_NE(second, nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(context_->GetCache().Size(), 0u);
  EXPECT_EQ(context_->GetRootShare(), "/home/u/Zarnu");
  EXPECT_EQ(agent_->Count("overlay_get_root_share"), 2) << "a new connection asks for the root share again";
}

TEST_F(OverlayContextTest, NoAgentIsAConnectErrorAndSubmissionsFailWith88) {
  MakeContext(socket_);  // nothing listens there
  EXPECT_EQ(context_->GetSession(YDuration::Seconds(2)), nullptr);
  EXPECT_EQ(context_->GetLastConnectError().GetCcode(), static_cast<unsigned int>(ENOENT));
  const Qel::Exception::YError e = Raised([&] { context_->GetPathStatus("/x"); });
  EXPECT_EQ(e.GetCcode(), 88u);
  EXPECT_EQ(e.GetLogType(), 206u);
  EXPECT_EQ(context_->GetRootShare(), "") << "a failed root share request is an empty path";
}

TEST_F(OverlayContextTest, ARefusedConnectionIsKeptAsTheLastErrorUntilTheNextAttempt) {
  {
    // A socket file with nothing listening on it, as a crashed agent leaves.
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::close(fd);
  }
  ASSERT_TRUE(std::filesystem::exists(socket_));
  MakeContext(socket_);
  EXPECT_EQ(context_->GetSession(YDuration::Seconds(5)), nullptr);
  EXPECT_EQ(context_->GetLastConnectError().GetCcode(), static_cast<unsigned int>(ECONNREFUSED));

  // Once an agent listens there, the next call closes the errored transport
  // and connects afresh.
  std::filesystem::remove(socket_);
  agent_ = std::make_unique<InProcessAgent>(socket_);
  ASSERT_NE(context_->GetSession(YDuration::Seconds(3)), nullptr);
  EXPECT_EQ(context_->GetLastConnectError().GetCcode(), 0u);
}

TEST_F(OverlayContextTest, ASecondCallerDoesNotWaitWhileAnotherConnects) {
  // An address too long for a socket makes the attempt fail through the
  // 2-second timer, so the first caller is certainly still waiting.
  MakeContext(std::string(200, 'x'));
  std::atomic<bool> first_done{false};
  std::thread first([&] {
    EXPECT_EQ(context_->GetSession(YDuration::Seconds(5)), nullptr);
    first_done = true;
  });
  // The first caller is inside GetSession once it holds the reservation (it
  // then stays there about 2 s).
  while (context_->GetSessionCallers() == 0 && !first_done) std::this_thread::yield();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(context_->GetSession(YDuration::Seconds(5)), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));
  EXPECT_FALSE(first_done.load());
  first.join();
  EXPECT_EQ(context_->GetLastConnectError().GetCcode(), static_cast<unsigned int>(ENAMETOOLONG));
}

TEST(OverlayClientTest, RemoteConfigLinesAndThePathLookup) {
  const auto entries = OverlayClient::ParseRemoteConfig("srv, /home/a/Shared ,/Shared\n\nshort,line\n,,\nb,/l,/r,extra\n");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], (OverlayClient::RemoteEntry{"srv:8446", "/home/a/Shared", "/Shared"}));
  EXPECT_EQ(entries[1], (OverlayClient::RemoteEntry{"b:8446", "/l", "/r"}));

  const TempFolder folder("remote");
  folder.Write("remote.cfg", "srv, /home/a/Shared ,/Shared\nsrv, /home/a/Shared ,/Shared\n");
  OverlayClient::Initialize(folder.Path(), nullptr, nullptr);
  EXPECT_EQ(OverlayClient::GetRemoteContexts().size(), 1u) << "a repeated line replaces its twin";
  auto [remote, translated] = OverlayClient::GetContextForPath("/home/a/Shared/x/y");
  ASSERT_NE(remote, nullptr);
  EXPECT_EQ(remote->GetAddress(), "srv:8446");
  EXPECT_FALSE(remote->IsLocal());
  EXPECT_EQ(translated, "/Shared/x/y");
  auto [local, same] = OverlayClient::GetContextForPath("/home/a/Other");
  EXPECT_EQ(local, OverlayClient::GetLocalContext());
  EXPECT_EQ(same, "/home/a/Other");
  EXPECT_EQ(local->GetAddress(), folder.Path("zarnuagent-overlay.socket"));
  OverlayClient::Deinitialize();
  EXPECT_EQ(Raised([] { OverlayClient::ConnectToAgent(); }).GetCcode(), 55u);
}

TEST(MenuModelTest, MenusTravelWithTheirImagesAndNestedOrder) {
  auto item = std::make_shared<OverlayClient::MenuItem>();
  item->title = "Copy public link";
  item->description = "Synced 2 minutes ago";
  item->flags = 0x11;
  item->commandId = 7;
  item->commandArg.type = 3;
  item->commandArg.data.Assign(reinterpret_cast<const unsigned char*>("arg"), 3);
  item->avatar = std::make_shared<OverlayClient::ImageItem>();
  const unsigned char png[] = {0x89, 'P', 'N', 'G', 0, 1, 2};
  item->avatar->data.Assign(png, sizeof png);
  item->avatar->mimeType = "BinaryIndex-0 is text";  // beside an attachment, named like one, still text
  item->avatar->width = item->avatar->height = 16;
  for (const char* title : {"first", "second"}) {
    auto sub = std::make_shared<OverlayClient::MenuItem>();
    sub->title = title;
    sub->subMenus.push_back(std::make_shared<OverlayClient::MenuItem>());
    item->subMenus.push_back(sub);
  }
  YCommandPtr reply = YCommand::CreateReply(*YCommand::CreateRequest("overlay_get_menu"));
  YObject result;
  result.Set("menus", YValue(Qel::JSON::YArray{std::make_shared<YValue>(item->Write())}));
  reply->SetResult(result);

  const std::string frame = Qel::IO::EncodeFrame(*reply);
  const std::string png_bytes(reinterpret_cast<const char*>(png), sizeof png);
  EXPECT_NE(frame.find(png_bytes), std::string::npos) << "images travel as attachments, not as text";
  const YCommand decoded = Qel::IO::DecodeFrame(frame);
  OverlayClient::MenuItem read;
  read.Read(decoded.GetResult().Get<Qel::JSON::YArray>("menus", 0).at(0)->AsObject());
  EXPECT_EQ(read.title, "Copy public link");
  EXPECT_EQ(read.commandId, 7u);
  EXPECT_EQ(read.flags, 0x11u);
  EXPECT_EQ(read.commandArg.type, 3u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(read.commandArg.data.Get()), 3), "arg");
  ASSERT_NE(read.avatar, nullptr);
  EXPECT_EQ(read.preview, nullptr);
  ASSERT_EQ(read.avatar->data.GetCount(), sizeof png);
  EXPECT_EQ(0, std::memcmp(read.avatar->data.Get(), png, sizeof png));
  EXPECT_EQ(read.avatar->mimeType, "BinaryIndex-0 is text");
  ASSERT_EQ(read.subMenus.size(), 2u);
  EXPECT_EQ(read.subMenus[1]->title, "second");
  EXPECT_EQ(read.subMenus[1]->subMenus.size(), 1u);
  EXPECT_EQ(read.subMenus[1]->commandArg.data.GetCount(), 0u);  // an empty attachment

  YObject bare = item->subMenus[0]->Write();
  bare.GetMembers().erase("sub_menus");
  OverlayClient::MenuItem incomplete;
  const Qel::Exception::YError missing = Raised([&] { incomplete.Read(bare); });
  EXPECT_EQ(missing.GetCcode(), 56u);
  EXPECT_NE(missing.GetInfo().find("sub_menus"), std::string::npos);
}

TEST(MenuModelTest, StatusTextsAndTheirUnknowns) {
  PathStatus s;
  EXPECT_EQ(OverlayClient::CloudStatusText(s), "None");
  s.cloudStatus = 2;
  s.syncProgress = 5;
  EXPECT_EQ(OverlayClient::CloudStatusText(s) + " " + OverlayClient::SyncProgressText(s), "Syncing 100%");
  s.cloudStatus = 4;
  s.syncProgress = 6;
  EXPECT_EQ(OverlayClient::CloudStatusText(s), "Unknown");
  EXPECT_EQ(OverlayClient::SyncProgressText(s), "Unknown");
  s.syncProgress = -1;
  EXPECT_EQ(OverlayClient::SyncProgressText(s), "Unknown");
}

}  // namespace
