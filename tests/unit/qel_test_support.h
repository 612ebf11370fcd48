// Helpers shared by the runtime-layer unit tests.
#pragma once

#include <gtest/gtest.h>

#include <ostream>

#include "Qel/Exception/YError.h"
#include "Qel/YString.h"

namespace Qel {
// Prints a YString as text in failure messages (not as a list of bytes).
inline void PrintTo(const YString& text, std::ostream* os) { *os << '"' << static_cast<const std::string&>(text) << '"'; }
}  // namespace Qel

namespace qel_test {

// Runs `f` and returns the YError it raised; a failure when it raised none.
template <class F>
Qel::Exception::YError Raised(F&& f) {
  try {
    f();
  } catch (const Qel::Exception::YError& e) {
    return e;
  }
  ADD_FAILURE() << "no YError was raised";
  return Qel::Exception::YError(0, 0, 0, 0, "", "");
}

}  // namespace qel_test
