// Agent::Sync::CheckCloudName: whether the cloud can hold a relative path.
// The cloud refuses control characters, backslashes, text that is not valid
// UTF-8, components "." and "..", components longer than 255 bytes, paths
// longer than 4096 bytes and more than 256 components. Such local items are
// never uploaded and never deleted; they show status Error.
#pragma once

#include "Qel/YString.h"

namespace Agent::Sync {

// "" when the cloud can hold `relative`, else the reason, for logs and
// statuses.
Qel::YString CheckCloudName(const Qel::YString& relative);

}  // namespace Agent::Sync
