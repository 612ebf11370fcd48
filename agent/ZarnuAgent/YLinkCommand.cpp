#include "YLinkCommand.h"

#include <cstdio>
#include <filesystem>
#include <iostream>

#include "AgentConstants.h"
#include "CloudSync/Paths.h"
#include "CloudSync/YCloudApi.h"
#include "CloudSync/YConfigDb.h"
#include "Qel/File/File.h"

namespace Agent {

int RunLink(const YAgentCommandLine& commandLine, const Qel::YString& dataFolder) {
  const Qel::YString user = commandLine.Require("username");
  const Qel::YString root = std::filesystem::absolute(std::string(commandLine.Require("root"))).lexically_normal().string();
  const Qel::YString address = commandLine.Get("cloudAddress", CloudSync::GetDefaultCloudAddress());
  std::string password;
  std::getline(std::cin, password);
  if (!password.empty() && password.back() == '\r') password.pop_back();

  CloudSync::YConfigDb db(Qel::File::AppendPaths(dataFolder, kConfigDbFile));
  db.Initialize();
  CloudSync::YCloudApi api("ZarnuAgent", address);
  api.ApplyConfig(db);
  const CloudSync::YCloudApi::LoginResult login = api.Login(user, password);
  Qel::File::CreatePath(root, true);
  db.PutLogin(login.token, user, root, address);
  std::printf("Linked %s at %s; root folder %s\n", user.c_str(), address.c_str(), root.c_str());
  return 0;
}

}  // namespace Agent
