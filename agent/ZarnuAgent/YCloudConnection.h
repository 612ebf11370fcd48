// Agent::ConnectToCloud: a logged-in cloud client for the agent's own calls.
#pragma once

#include <cstdint>
#include <memory>

#include "CloudSync/YCloudApi.h"
#include "Qel/YString.h"

namespace Agent {

// A client of the service at `address`, with the time-outs and TLS trust of
// the configuration database `configDb` (and "ca.pem" beside it), limited to
// the given bytes per second each way (0: no limit), logged in with the
// agent's stored `token`. Raises what the login raises (163 unreachable, 191
// refused token). The caller owns the client; one thread uses it at a time.
std::unique_ptr<CloudSync::YCloudApi> ConnectToCloud(const Qel::YString& address, const Qel::YString& token,
                                                     const Qel::YString& configDb, uint64_t upLimit = 0,
                                                     uint64_t downLimit = 0);

}  // namespace Agent
