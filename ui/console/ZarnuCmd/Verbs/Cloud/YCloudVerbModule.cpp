#include "Verbs/Cloud/YCloudVerbModule.h"

#include <memory>

#include "CloudSync/Paths.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

#include "Verbs/Cloud/YGetVerb.h"
#include "Verbs/Cloud/YLinkVerb.h"
#include "Verbs/Cloud/YListVerb.h"
#include "Verbs/Cloud/YMkdirVerb.h"
#include "Verbs/Cloud/YPutVerb.h"
#include "Verbs/Cloud/YRmVerb.h"
#include "Verbs/Cloud/YUndeleteVerb.h"
#include "Verbs/Cloud/YAuthClientVerb.h"
#include "Verbs/Cloud/YCheckAuthVerb.h"
#include "Verbs/Cloud/YBuildVerb.h"
#include "Verbs/Cloud/YMountVerb.h"

namespace Cloud {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Cloud/YCloudVerbModule";

}  // namespace

YCloudVerbModule::YCloudVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Cloud", "Muck with stuff in your cloud zarnu folder",
                          {
           {"username=", "Login to the cloud as this user"},
           {"password=", "Password for the login"},
           {"cloudAddress=", "Url to talk to "},
           {"authToken=", "Authentication token to login with"},
           {"debugOutput,debug", "Enable debug message masks"},
                          }),
      config_db_(Qel::File::GetPathName(9, "config.db")) {
  RegisterVerb(std::make_shared<YGetVerb>(app, this));
  RegisterVerb(std::make_shared<YLinkVerb>(app, this));
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YMkdirVerb>(app, this));
  RegisterVerb(std::make_shared<YPutVerb>(app, this));
  RegisterVerb(std::make_shared<YRmVerb>(app, this));
  RegisterVerb(std::make_shared<YUndeleteVerb>(app, this));
  RegisterVerb(std::make_shared<YLinkVerb>(app, this));
  RegisterVerb(std::make_shared<YAuthClientVerb>(app, this));
  RegisterVerb(std::make_shared<YCheckAuthVerb>(app, this));
  RegisterVerb(std::make_shared<YBuildVerb>(app, this));
  RegisterVerb(std::make_shared<YMountVerb>(app, this));
}

void YCloudVerbModule::Prepare(unsigned int& exitCode) {
  using Qel::Application::GetOptionValue;

  // The file is not created here: a machine that never stored an option has
  // no config.db, and reading it gives the defaults.
  config_db_.Initialize();
  if (GetCurrentVerb() != nullptr) GetCurrentVerb()->ParseParams(exitCode);
  const Qel::Application::OptionMap& options = GetOptions();

  auto api = std::make_shared<CloudSync::YCloudApi>(
      "zarnucmd", GetOptionValue(options, "cloudAddress", CloudSync::GetDefaultCloudAddress()));
  api->ApplyConfig(config_db_);
  api_ = std::move(api);
  extra_connections_.clear();  // copies of the client this replaces

  username_ = GetOptionValue(options, "username", "");
  password_ = GetOptionValue(options, "password", "");
  auth_token_ = GetOptionValue(options, "authToken", "");

  if (Qel::Application::HasOption(options, "debugOutput")) {
    Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
    log.SetEnabledMessages(Qel::Util::SplitString(GetOptionValue(options, "debugOutput", ""), ','));
    log.SetDebugOutput(true);
  }
}

void YCloudVerbModule::Login() {
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();

  if (username_.empty()) {
    if (!password_.empty() || !auth_token_.empty()) {
      QEL_RAISE(15, 55, "If a password or authToken are given, a username must also be", kFile, "Login");
    }
    Qel::YString token;
    try {
      token = CloudSync::GetAuthToken(config_db_);
    } catch (Qel::Exception::YError& e) {
      e.AppendInfo("Could not find authentication token");
      throw;
    }
    const CloudSync::YCloudApi::LoginResult result = api_->Login(token);
    out << "Logged in as " << result.usernames.front() << Qel::Log::Ctl::EndLine;
    return;
  }

  if (password_.empty() == auth_token_.empty()) {
    QEL_RAISE(15, 55, "If a username is given, either a password or authToken must also be, but not both", kFile,
              "Login");
  }

  if (!password_.empty()) {
    api_->Login(username_, password_);
    out << "Logged in as " << username_ << Qel::Log::Ctl::EndLine;
    return;
  }

  // A token names its accounts; the user name given may differ in ASCII case.
  const CloudSync::YCloudApi::LoginResult result = api_->Login(auth_token_);
  for (const Qel::YString& name : result.usernames) {
    if (name.EqualsIgnoreCaseAscii(username_)) {
      out << "Logged in as " << username_ << Qel::Log::Ctl::EndLine;
      return;
    }
  }
  QEL_RAISE(15, 55, "Authentication token doesn't match username", kFile, "Login");
}

}  // namespace Cloud
