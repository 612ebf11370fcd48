// Agent::LoadDeviceId: the stable id this data folder's agent shows to peers
// on the network (32 lowercase hex digits in "device.id"). Made on first use
// and written whole (temporary file, fsync, rename), so a crash never leaves
// half an id; an unreadable or malformed file is replaced by a new id.
#pragma once

#include "Qel/YString.h"

namespace Agent {

Qel::YString LoadDeviceId(const Qel::YString& dataFolder);

}  // namespace Agent
