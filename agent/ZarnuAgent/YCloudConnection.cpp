#include "YCloudConnection.h"

#include "AgentConstants.h"
#include "CloudSync/YConfigDb.h"

namespace Agent {

std::unique_ptr<CloudSync::YCloudApi> ConnectToCloud(const Qel::YString& address, const Qel::YString& token,
                                                     const Qel::YString& configDb, uint64_t upLimit,
                                                     uint64_t downLimit) {
  auto api = std::make_unique<CloudSync::YCloudApi>(kAgentName, address);
  CloudSync::YConfigDb db(configDb);
  db.Initialize();
  api->ApplyConfig(db);  // time-outs, TLS trust
  api->SetBandwidthLimits(upLimit, downLimit);
  api->Login(token);
  return api;
}

}  // namespace Agent
