// Where the agent keeps its data, and where the cloud lives by default.
#pragma once

#include "Qel/YString.h"

namespace CloudSync {

// The agent's data folder: $ZARNU_DATA when set and not empty, else
// $HOME/.zarnu.
Qel::YString GetDefaultZarnuDataPath();

// The default cloud API endpoint: $ZARNU_CLOUD_ADDRESS when set and not empty,
// else "https://localhost:8443/".
Qel::YString GetDefaultCloudAddress();

// The product's web link, the default of "csmLinkUrl".
Qel::YString GetDefaultLinkUrl();

}  // namespace CloudSync
