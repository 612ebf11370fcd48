// zarnucmd: the command-line companion of the Zarnu agent.
#include <array>

#include "Qel/Environment/Environment.h"
#include "Qel/Foundation/YInitContext.h"
#include "YZarnuCmd.h"

int main(int argc, char** argv) {
  // Slot 0 always holds the program's own absolute path; at most 63 real
  // arguments follow. argc is passed on unchanged.
  Qel::YString self = Qel::Environment::GetPathToSelf();
  if (self.empty() && argc > 0 && argv[0] != nullptr) self = argv[0];
  std::array<char*, 64> args{};
  args[0] = self.data();
  for (int i = 1; i < argc && i < 64; ++i) args[static_cast<size_t>(i)] = argv[i];

  Qel::Foundation::YInitContext init;
  return RunZarnuCmd(argc, args.data());
}
