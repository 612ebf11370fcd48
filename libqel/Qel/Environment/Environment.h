// Qel::Environment: facts about the running process.
#pragma once

#include "Qel/YString.h"

namespace Qel::Environment {

// Absolute path of the running executable, or an empty text when the system
// cannot tell.
YString GetPathToSelf();

// The value of environment variable `name`, or an empty text.
YString GetVariable(const char* name);

}  // namespace Qel::Environment
