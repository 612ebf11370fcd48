#include "Verbs/Config/YConfigVerbModule.h"

#include <memory>

#include "CloudSync/Overlay/OverlayClient.h"
#include "CloudSync/Paths.h"
#include "Qel/IO/YSession.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Util/Util.h"
#include "Verbs/Config/YDefaultVerb.h"
#include "Verbs/Config/YGetVerb.h"
#include "Verbs/Config/YListVerb.h"
#include "Verbs/Config/YPutVerb.h"

namespace Config {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Config/YConfigVerbModule";
constexpr const char* kIntType = "int";
constexpr const char* kTextType = "YString";
constexpr unsigned int kLogShell = 15;  // the shell's own errors
constexpr unsigned int kBadValue = 55;  // an unknown option name or type
constexpr const char* kConfigDbName = "config.db";
constexpr const char* kConfigPutMethod = "overlay_configdb_put";

}  // namespace

Qel::YString DefaultText(const YConfigVerbModule::YOptionEntry& entry) {
  if (entry.type == kIntType) return Qel::Util::NumberToString(boost::any_cast<int>(entry.default_value));
  return boost::any_cast<Qel::YString>(entry.default_value);
}

YConfigVerbModule::YConfigVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Config", "Muck with your Zarnu agent configuration, including hidden advanced options\n *WARNING* Modifying entries in here can break zarnu!",
                          {
                          }),
      config_db_(Qel::File::GetPathName(Qel::File::kMapData, kConfigDbName)) {
  RegisterVerb(std::make_shared<YGetVerb>(app, this));
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YPutVerb>(app, this));
  RegisterVerb(std::make_shared<YDefaultVerb>(app, this));
}

void YConfigVerbModule::Prepare(unsigned int& exitCode) {
  config_db_.Initialize();
  BuildOptionTable();
}

void YConfigVerbModule::AddOption(const Qel::YString& name, const boost::any& defaultValue) {
  const Qel::YString type = Qel::Util::ParseTypeName(defaultValue.type());
  if (type != kIntType && type != kTextType) {
    QEL_RAISE(kLogShell, kBadValue, "Unsupported type " + type + " of config option " + name, kFile, "AddOption");
  }
  options_[name] = YOptionEntry{defaultValue, type};
}

// The agent's option names are its database keys and keep their spellings
// ("Bandwith", "Pasword"). Two rows are added twice with the same default.
void YConfigVerbModule::BuildOptionTable() {
  options_.clear();
  const auto number = [this](const char* name, int value) { AddOption(name, boost::any(value)); };
  const auto text = [this](const char* name, const Qel::YString& value) { AddOption(name, boost::any(value)); };
  number("csmPeerSync", 1);
  text("csmRootCache", "N/A");
  number("csmMoveToTrash2", 0);
  number("csmChangeScanners", 2);
  number("csmSyncSyncers", 2);
  number("csmDirProcessors", 2);
  number("csmLargeProcessors", 2);
  number("csmSmallProcessors", 2);
  text("csmCloudAddress", CloudSync::GetDefaultCloudAddress());
  number("csmBandwithDownLimitSet", 0);
  number("csmBandwithDownLimit", 0);
  number("csmBandwithUpLimitSet", 0);
  number("csmAutoSendCrashLogs", 1);
  number("csmAutoSendCrashLogs", 1);
  number("csmAcceptAllIncomingTransfers", 0);
  number("csmPromptToSyncRemovable", 0);
  number("csmOverlay", 1);
  text("csmUpdateBuildSlot", "ga");
  number("csmBandwithUpLimit", 0);
  text("csmProxyType", "None");
  text("csmProxyServer", "UNSET");
  text("csmProxyPort", "UNSET");
  text("csmProxyLoginReq", "UNSET");
  text("csmProxyUser", "UNSET");
  text("csmProxyPasword", "UNSET");
  text("csmProxyAuth", "Basic");
  number("csmProxyTunneling", 0);
  number("csmDeveloperMode", 0);
  number("csmCurlTimeout", 300);
  number("csmCurlDnsCacheTimeout", 300);
  number("csmCurlConnectTimeout", 300);
  number("csmMetadataSendMax", 150);
  text("csmLinkUrl", CloudSync::GetDefaultLinkUrl());
  number("csmSslVerify", 1);
  number("csmSslVerify", 1);
  number("csmProcessorTreeMax", 100000);
  number("csmPartReceivers", 2);
  number("csmPartSenders", 2);
}

const YConfigVerbModule::YOptionEntry& YConfigVerbModule::Find(const Qel::YString& name,
                                                               const char* function) const {
  auto it = options_.find(name);
  if (it == options_.end()) QEL_RAISE(kLogShell, kBadValue, "No such config option " + name, kFile, function);
  return it->second;
}

Qel::YString YConfigVerbModule::GetOptionDefault(const Qel::YString& name) const {
  return DefaultText(Find(name, "GetOptionDefault"));
}

Qel::YString YConfigVerbModule::GetOption(const Qel::YString& name) const {
  const YOptionEntry& entry = Find(name, "GetOption");
  return config_db_.GetOption(name, DefaultText(entry));
}

void YConfigVerbModule::PutOption(const Qel::YString& name, const Qel::YString& value) {
  Find(name, "PutOption");
  // The running agent stores the value itself and applies it at once; when no
  // agent can be reached, or it refuses, the database is written directly.
  try {
    std::shared_ptr<Qel::IO::YSession> session = OverlayClient::ConnectToAgent();
    Qel::IO::YCommandPtr request = Qel::IO::YCommand::CreateRequest(kConfigPutMethod);
    request->SetParam("option", Qel::JSON::YValue(name));
    request->SetParam("value", Qel::JSON::YValue(value));
    session->ProcessRequest(request, Qel::Time::Infinity());
    return;
  } catch (const Qel::Exception::YError&) {
  }
  config_db_.PutOption(name, value);
}

}  // namespace Config
