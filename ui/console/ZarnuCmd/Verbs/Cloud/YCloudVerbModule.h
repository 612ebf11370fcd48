// The "Cloud" verb module: what every cloud verb shares. It holds the module
// options (who to log in as, where the cloud is), the configuration database
// and one cloud client, replaced each time the module parses its options.
//
// Prepare (the module's parameter parse): initialise the database, parse the
// verb's words, build a new client for "cloudAddress", read the credentials,
// and switch on the log types named by "debugOutput".
//
// Every data verb calls Login() before its first cloud request. The transfer
// operations (UploadAt, PutFileParts, DownloadAt) live in YCloudTransfer.cpp.
#pragma once

#include <memory>
#include <vector>

#include "CloudSync/YCloudApi.h"
#include "CloudSync/YConfigDb.h"
#include "YZarnuCmdVerbModule.h"

namespace Cloud {

class YCloudVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YCloudVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;

  // Logs the client in by the rules of the credentials given (stored token,
  // user and password, or user and token), printing "Logged in as <user>".
  void Login();

  // Uploads a local file, or with `recurse` a local folder under its own name,
  // into the cloud folder `cloudFolder`.
  void UploadAt(const Qel::YString& localPath, const Qel::YString& cloudFolder, bool recurse, bool quiet);
  // Uploads one regular file to the full cloud path `cloudFile`.
  void PutFileParts(const Qel::YString& localFile, const Qel::YString& cloudFile, bool quiet);
  // Downloads a cloud file, or with `recurse` a cloud folder under its own
  // name, to `localPath`. Never overwrites a local file.
  void DownloadAt(const Qel::YString& cloudPath, const Qel::YString& localPath, bool recurse, bool quiet);

  CloudSync::YCloudApi& GetApi() const { return *api_; }
  // The logged-in client and copies of it, `count` in all, for transfers that
  // keep several requests on their way at once. The copies live as long as
  // the client. REQUIRES: count >= 1.
  std::vector<CloudSync::YCloudApi*> TransferConnections(size_t count);
  CloudSync::YConfigDb& GetConfigDb() { return config_db_; }
  const Qel::YString& GetUsername() const { return username_; }
  const Qel::YString& GetPassword() const { return password_; }
  const Qel::YString& GetAuthToken() const { return auth_token_; }

 private:
  std::shared_ptr<CloudSync::YCloudApi> api_;
  std::vector<std::unique_ptr<CloudSync::YCloudApi>> extra_connections_;
  CloudSync::YConfigDb config_db_;
  Qel::YString username_;
  Qel::YString password_;
  Qel::YString auth_token_;
};

}  // namespace Cloud
