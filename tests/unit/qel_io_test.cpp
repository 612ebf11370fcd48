// The IO layer: the frame decoder fed piecemeal, and sessions over real sockets.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <thread>

#include "Qel/IO/YFrame.h"
#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/IO/YSession.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using Qel::IO::YCommand;
using Qel::IO::YCommandPtr;
using Qel::JSON::YObject;
using Qel::JSON::YValue;
using qel_test::Raised;
namespace Time = Qel::Time;

TEST(FrameTest, DecoderTakesFramesFedByteByByte) {
  const std::string stream = Qel::IO::EncodeFrame(*YCommand::CreateRequest("a")) +
                             Qel::IO::EncodeFrame(*YCommand::CreateRequest("b"));
  Qel::IO::YFrameDecoder decoder;
  std::vector<YString> methods;
  for (char c : stream) {
    decoder.Feed(&c, 1);
    while (auto command = decoder.Next()) methods.push_back(command->GetMethod());
  }
  EXPECT_EQ(methods, (std::vector<YString>{"a", "b"}));
}

// A service, a listener on a temporary socket and sessions on both ends.
class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_.Initialize(2);
  }
  void TearDown() override {
    for (auto& s : server_sessions_) s->Release();
    if (listener_) listener_->Close();
    service_.Deinitialize();
  }

  // Serves requests: "echo" returns its params, "fail" raises code 174, "slow"
  // answers after `slow_ms_`.
  void Listen() {
    listener_ = Qel::IO::YListener::CreateUnix(service_, path_, 0600);
    listener_->Start([this](std::shared_ptr<Qel::IO::YIoBase> io) {
      auto session = std::make_shared<Qel::IO::YSession>(
          [this](std::shared_ptr<Qel::IO::YSession>, YCommandPtr request) -> YCommandPtr {
            YCommandPtr reply = YCommand::CreateReply(*request);
            if (request->GetMethod() == "fail") QEL_RAISE(0, 174, "no file x", "test", "Handler");
            if (request->GetMethod() == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(slow_ms_));
            reply->SetResult(request->GetParams());
            return reply;
          });
      {
        std::lock_guard<std::mutex> lock(mutex_);
        server_sessions_.push_back(session);
      }
      session->Allocate(io);
    });
  }

  std::shared_ptr<Qel::IO::YSession> Connect(Qel::IO::YSession::RequestHandler handler = nullptr) {
    auto io = Qel::IO::YUnixDomainIo::Create(service_);
    std::promise<const Qel::Exception::YError*> done;
    std::optional<Qel::Exception::YError> error;
    io->ConnectAsync(
        path_,
        [&](std::shared_ptr<Qel::IO::YIoBase>, const Qel::Exception::YError* e) {
          if (e) error = *e;
          done.set_value(e);
        },
        Time::YDuration::Seconds(3));
    done.get_future().wait();
    if (error) throw *error;
    auto session = std::make_shared<Qel::IO::YSession>(std::move(handler));
    session->Allocate(io);
    return session;
  }

  qel_test::TempFolder folder_{"qel_io"};
  const std::string path_ = folder_.Path("s.socket");
  Qel::IO::YService service_;
  std::shared_ptr<Qel::IO::YListener> listener_;
  std::mutex mutex_;
  std::vector<std::shared_ptr<Qel::IO::YSession>> server_sessions_;
  int slow_ms_ = 0;
};

TEST_F(SessionTest, RequestsRepliesAndErrorRepliesTravelBothWays) {
  Listen();
  EXPECT_EQ(std::filesystem::status(path_).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  auto client = Connect([](std::shared_ptr<Qel::IO::YSession>, YCommandPtr request) {
    YCommandPtr reply = YCommand::CreateReply(*request);
    YObject result;
    result.Set("seen", YValue(request->GetMethod()));
    reply->SetResult(result);
    return reply;
  });
  YCommandPtr echo = YCommand::CreateRequest("echo");
  echo->SetParam("file_path", YValue("/home/ä/x"));
  echo->SetParam("n", YValue(7u));
  YCommandPtr reply = client->ProcessRequest(echo, Time::YDuration::Seconds(3));
  EXPECT_EQ(reply->GetResult().Get<YString>("file_path", 0), "/home/ä/x");
  EXPECT_EQ(reply->GetResult().Get<unsigned long long>("n", 0), 7u);

  const Qel::Exception::YError failed =
      Raised([&] { client->ProcessRequest(YCommand::CreateRequest("fail"), Time::Infinity()); });
  EXPECT_EQ(failed.GetCcode(), 174u);
  EXPECT_EQ(failed.GetInfo(), "no file x");
  EXPECT_TRUE(client->IsConnected());

  // The server side asks the client.
  std::shared_ptr<Qel::IO::YSession> server;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_EQ(server_sessions_.size(), 1u);
    server = server_sessions_[0];
  }
  EXPECT_EQ(server->ProcessRequest(YCommand::CreateRequest("ova_refresh_menu"), Time::YDuration::Seconds(3))
                ->GetResult()
                .Get<YString>("seen", 0),
            "ova_refresh_menu");
}

TEST_F(SessionTest, TimeoutsAndLostPeersFailRequestsWithoutHanging) {
  slow_ms_ = 400;
  Listen();
  auto client = Connect();
  const Qel::Exception::YError late =
      Raised([&] { client->ProcessRequest(YCommand::CreateRequest("slow"), Time::YDuration::Milliseconds(50)); });
  EXPECT_EQ(late.GetCcode(), static_cast<unsigned int>(ETIMEDOUT));
  // The late reply is dropped and the session goes on.
  EXPECT_TRUE(client->ProcessRequest(YCommand::CreateRequest("echo"), Time::YDuration::Seconds(3)) != nullptr);

  // The peer goes away while a request waits without limit.
  std::thread closer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& s : server_sessions_) s->Release();
  });
  const Qel::Exception::YError lost =
      Raised([&] { client->ProcessRequest(YCommand::CreateRequest("slow"), Time::Infinity()); });
  closer.join();
  EXPECT_EQ(lost.GetCcode(), Qel::IO::kNoSession);
  EXPECT_FALSE(client->IsConnected());
  EXPECT_NE(client->GetSessionError().GetCcode(), 0u);
  EXPECT_EQ(Raised([&] { client->ProcessRequest(YCommand::CreateRequest("echo"), Time::Infinity()); }).GetCcode(),
            Qel::IO::kNoSession);
}

TEST(ConnectTest, RefusedAndMissingAddressesReportTheirError) {
  Qel::IO::YService service;
  service.Initialize(1);
  const auto attempt = [&service](std::shared_ptr<Qel::IO::YConnectedIo> io, const YString& address) {
    std::promise<unsigned int> code;
    io->ConnectAsync(
        address,
        [&code](std::shared_ptr<Qel::IO::YIoBase>, const Qel::Exception::YError* e) {
          code.set_value(e ? e->GetCcode() : 0);
        },
        Time::YDuration::Seconds(3));
    const unsigned int c = code.get_future().get();
    Qel::Exception::YError state(0, 0, 0, 0, "", "");
    EXPECT_EQ(io->HasError(state), c != 0);
    return c;
  };
  EXPECT_EQ(attempt(Qel::IO::YUnixDomainIo::Create(service), "/nonexistent/zarnu.socket"),
            static_cast<unsigned int>(ENOENT));
  auto listener = Qel::IO::YListener::CreateTcp(service, "127.0.0.1:0");
  listener->Start([](std::shared_ptr<Qel::IO::YIoBase>) {});
  EXPECT_EQ(attempt(Qel::IO::YTcpIo::Create(service), listener->GetAddress()), 0u);
  listener->Close();
  // A bound port that does not listen refuses.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in in{};
  in.sin_family = AF_INET;
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof in;
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&in), sizeof in), 0);
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&in), &len), 0);
  EXPECT_EQ(attempt(Qel::IO::YTcpIo::Create(service), "127.0.0.1:" + std::to_string(ntohs(in.sin_port))),
            static_cast<unsigned int>(ECONNREFUSED));
  ::close(fd);
  service.Deinitialize();
}

}  // namespace
