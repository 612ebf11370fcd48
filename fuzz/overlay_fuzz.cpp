// Fuzz target: bytes as they would arrive on the agent's overlay socket go
// through the frame decoder, and every command decoded is dispatched by the
// agent's request table against a scratch data folder. A crash, a sanitizer
// report or an escape of anything but a YError is a finding.
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "CloudSync/Codes.h"
#include "Qel/IO/YFrame.h"
#include "YAgentState.h"
#include "YOverlayDispatcher.h"

namespace {

struct Fixture {
  Fixture() {
    CloudSync::RegisterErrorCodes();
    CloudSync::RegisterLogTypes();
    folder = std::filesystem::temp_directory_path() / ("zarnu-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    state = std::make_unique<Agent::YAgentState>(folder.string());
    dispatcher = std::make_unique<Agent::YOverlayDispatcher>(*state);
  }
  std::filesystem::path folder;
  std::unique_ptr<Agent::YAgentState> state;
  std::unique_ptr<Agent::YOverlayDispatcher> dispatcher;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  // Small limit, so that the limit checks are reached too.
  Qel::IO::YFrameDecoder decoder(1u << 16);
  decoder.Feed(reinterpret_cast<const char*>(data), size);
  try {
    while (auto command = decoder.Next()) {
      // Methods that write files are fine to run: they stay in the scratch folder.
      if (!command->IsRequest()) continue;
      try {
        fixture.dispatcher->Dispatch(*command, [](Qel::IO::YCommandPtr) {});
      } catch (const Qel::Exception::YError&) {
      }
    }
  } catch (const Qel::Exception::YError&) {
    // A malformed frame: the session would close here.
  }
  return 0;
}
