#include "Qel/Application/YMain.h"

namespace Qel::Application {

bool YMain::CheckCommandLineOption(const YString& option) const {
  const int n = GetFilledArgC();
  for (int i = 1; i < n; ++i) {
    if (argv_[i] != nullptr && option == argv_[i]) return true;
  }
  return false;
}

}  // namespace Qel::Application
