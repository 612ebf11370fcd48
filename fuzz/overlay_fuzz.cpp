// Fuzz target: bytes as they would arrive on the agent's overlay socket go
// through the frame decoder, and every command decoded (request or not) is
// dispatched by the agent's request table against a scratch data folder,
// exactly as a session would: the reply, or the error reply made from the
// YError, and every push are encoded as frames.
//
// Findings: a crash, a sanitizer report, an escape of anything but a YError
// from the decoder or the dispatcher, and a broken codec invariant (abort):
//   - every reply and push the agent encodes decodes again;
//   - a decoded command re-encodes to a frame that is stable: encoding what
//     that frame decodes to gives the same bytes.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "CloudSync/Codes.h"
#include "Qel/IO/YFrame.h"
#include "YAgentState.h"
#include "YOverlayDispatcher.h"

namespace {

// The decoder's limit here is small, so that inputs reach the limit checks.
constexpr uint32_t kFuzzMaxBody = 1u << 16;

[[noreturn]] void Broken(const char* what, const std::string& detail) {
  std::fprintf(stderr, "overlay_fuzz: %s: %s\n", what, detail.c_str());
  std::abort();
}

// The scratch data folder lives in memory when it can: config.db writes sync
// to disk, which would otherwise dominate the run.
std::filesystem::path ScratchRoot() {
  std::error_code ec;
  if (std::filesystem::is_directory("/dev/shm", ec)) return "/dev/shm";
  return std::filesystem::temp_directory_path();
}

struct Fixture {
  Fixture() {
    CloudSync::RegisterErrorCodes();
    CloudSync::RegisterLogTypes();
    folder = ScratchRoot() / ("zarnu-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    state = std::make_unique<Agent::YAgentState>(folder.string());
    dispatcher = std::make_unique<Agent::YOverlayDispatcher>(*state);
  }
  ~Fixture() {
    dispatcher.reset();
    state.reset();
    std::error_code ec;
    std::filesystem::remove_all(folder, ec);
  }
  std::filesystem::path folder;
  std::unique_ptr<Agent::YAgentState> state;
  std::unique_ptr<Agent::YOverlayDispatcher> dispatcher;
};

// Encodes what the agent sends and checks that the frame decodes again.
void SendChecked(const Qel::IO::YCommand& command, const char* what) {
  std::string frame;
  try {
    frame = Qel::IO::EncodeFrame(command);
  } catch (const Qel::Exception::YError& e) {
    // Only a frame above the limit may be refused; the session then sends
    // the error reply instead.
    if (e.GetCcode() != Qel::IO::kBadFrame) Broken(what, e.GetSummary());
    return;
  }
  try {
    Qel::IO::DecodeFrame(frame);
  } catch (const Qel::Exception::YError& e) {
    Broken(what, "the agent's own frame does not decode: " + std::string(e.GetSummary()));
  }
}

void CheckStableEncoding(const Qel::IO::YCommand& command) {
  std::string first;
  try {
    first = Qel::IO::EncodeFrame(command);
  } catch (const Qel::Exception::YError&) {
    return;  // above the limit after renumbering: refused, as a session would
  }
  std::string second;
  try {
    second = Qel::IO::EncodeFrame(Qel::IO::DecodeFrame(first));
  } catch (const Qel::Exception::YError& e) {
    Broken("re-encoding", e.GetSummary());
  }
  if (first != second) Broken("re-encoding", "frame changed:\n" + first + "\n" + second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  Qel::IO::YFrameDecoder decoder(kFuzzMaxBody);
  decoder.Feed(reinterpret_cast<const char*>(data), size);
  for (;;) {
    std::optional<Qel::IO::YCommand> command;
    try {
      command = decoder.Next();
    } catch (const Qel::Exception::YError& e) {
      if (e.GetCcode() != Qel::IO::kBadFrame) Broken("decoder", e.GetSummary());
      return 0;  // a malformed frame: the session closes here
    }
    if (!command) return 0;
    CheckStableEncoding(*command);
    Qel::IO::YCommandPtr reply;
    try {
      Agent::YPushChannel channel;
      channel.clientId = 1;
      channel.send = [](Qel::IO::YCommandPtr push) {
        if (!push) Broken("push", "null push");
        SendChecked(*push, "push");
      };
      reply = fixture.dispatcher->Dispatch(*command, channel);
      if (!reply) Broken("dispatch", "null reply");
    } catch (const Qel::Exception::YError& e) {
      if (e.GetCcode() == 0) Broken("dispatch", "an error without a code: " + std::string(e.GetSummary()));
      reply = Qel::IO::YCommand::CreateErrorReply(*command, e);
    }
    SendChecked(*reply, "reply");
  }
}
