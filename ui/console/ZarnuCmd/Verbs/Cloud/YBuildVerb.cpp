#include "Verbs/Cloud/YBuildVerb.h"

#include <list>
#include <map>

#include "CloudSync/YCurlObj.h"
#include "Qel/Environment/Environment.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/Util/Util.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Cloud/YBuildVerb";
constexpr const char* kDefaultVersion = "1.34.0508";
constexpr long kPostTimeoutSeconds = 5 * 60;

using Qel::YString;
using Qel::Log::Ctl;

// The form of a slot name that decides whether it is the "ga" slot.
YString NormaliseSlot(const YString& slot) { return Qel::Util::Trim(slot).ToLowerAscii(); }

// The build-slot service: $ZARNU_BUILD_SLOT_ADDRESS, else the cloud address
// followed by "buildslots/".
YString BuildSlotAddress(const YString& cloudAddress) {
  YString address = Qel::Environment::GetVariable("ZARNU_BUILD_SLOT_ADDRESS");
  if (address.empty()) address = Qel::File::AppendPaths(cloudAddress, "buildslots/", "/");
  return address;
}

}  // namespace

YBuildVerb::YBuildVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "build", "Uploads build to Zarnu and optionally updates build slot with new token",
                {
       {"json", "update build slot with new token"},
       {"debug", "prints request and response info to console"},
       {"folder=", "override dest folder name in <plat> directory"},
       {"todisk", "write created Zarnu url to a file in current directory"},
       {"retries=", "number of retries to make (in case of cloud errors) default: 0"},
       {"version=", "override version number used in json post"},
                },
                {"local_path", "build_slots", "plat"}, true),
      module_(module) {}

void YBuildVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  const unsigned int retries = Qel::Application::GetOptionValueNumber(GetOptions(), "retries", 0);
  for (unsigned int attempt = 0;; ++attempt) {
    try {
      RunBuild();
      return;
    } catch (const Qel::Exception::YError& error) {
      if (attempt == retries) throw;
      GetApp()->GetLogger() << error.GetDescription() << Ctl::EndLine;
      GetApp()->GetLogger() << "Retrying..." << Ctl::EndLine;
    }
  }
}

void YBuildVerb::RunBuild() {
  const Qel::Application::OptionMap& options = GetOptions();
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  module_->Login();

  const YString localPath = GetArgument("local_path");
  const YString plat = GetArgument("plat");
  const YString platformFolder =
      Qel::File::AppendPaths(Qel::File::AppendPaths("/Zarnu Builds", "agent", "/"), plat, "/");
  YString versionFolder = "/";
  if (Qel::Application::HasOption(options, "folder")) {
    versionFolder += Qel::Application::GetOptionValue(options, "folder", "");
  } else {
    versionFolder += Qel::Util::NumberToString(1) + "." + Qel::Util::NumberToString(34) + ".x";
  }
  const YString cloudFolder = platformFolder + versionFolder;

  module_->UploadAt(localPath, cloudFolder, false, false);

  const YString cloudFile = Qel::File::AppendPaths(cloudFolder, Qel::File::GetFileFromPath(localPath), "/");
  const CloudSync::YCloudApi::PublicLink link =
      module_->GetApi().CreatePublicLink(std::list<YString>{cloudFile});
  out << "token=" << link.token << Ctl::EndLine;
  out << "url=" << link.link << Ctl::EndLine;

  if (Qel::Application::HasOption(options, "todisk")) {
    Qel::File::PutContents(Qel::File::GetPathName(3, plat + "_url"), link.link);
  }

  if (Qel::Application::HasOption(options, "json")) {
    const YString version = Qel::Application::GetOptionValue(options, "version", kDefaultVersion);
    UpdateCloudSlots(MakeSlotRequest(plat, GetArgument("build_slots"), link.token, version),
                     Qel::Application::HasOption(options, "debug"));
    out << "Successfully updated cloud build slots." << Ctl::EndLine;
  }
}

Qel::JSON::YObject YBuildVerb::MakeSlotRequest(const YString& plat, const YString& slots, const YString& token,
                                               const YString& version) {
  const bool nebra = plat == "nebra";
  Qel::JSON::YObject platform;
  for (const YString& slot : Qel::Util::SplitString(slots, ',')) {
    const YString normalised = NormaliseSlot(slot);
    if (normalised == "ga" || normalised.empty()) continue;
    Qel::JSON::YObject entry;
    entry.Set("download_token", Qel::JSON::YValue(token));
    entry.Set("version", Qel::JSON::YValue(version));
    platform.Set(nebra ? YString("nebra-" + slot) : slot, Qel::JSON::YValue(std::move(entry)));
  }
  Qel::JSON::YObject platforms;
  platforms.Set(nebra ? YString("lin") : plat, Qel::JSON::YValue(std::move(platform)));
  Qel::JSON::YObject request;
  request.Set("platforms", Qel::JSON::YValue(std::move(platforms)));
  return request;
}

void YBuildVerb::UpdateCloudSlots(const Qel::JSON::YObject& request, bool debug) {
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  CloudSync::YCurlObj curl(nullptr, BuildSlotAddress(module_->GetApi().GetCloudAddress()),
                           CloudSync::YCurlObj::kKeepAlive);
  // Trust what the cloud client trusts: the CA file of the data folder.
  const YString caFile = Qel::File::GetPathName(9, "ca.pem");
  if (Qel::File::DoesFileExist(caFile)) curl.SetTrust(caFile, true);

  if (debug) out << "Request: \n" << request.Stringify(true) << Ctl::EndLine;
  const CloudSync::YCurlObj::Response response =
      curl.Post("slots/",
                {{"Content-Type", "application/json"}, {"Authorization", "Bearer " + module_->GetApi().GetToken()}},
                request.Stringify(false), kPostTimeoutSeconds);

  const YString failure = "Cloud error with JSON update: ";
  Qel::JSON::YObject answer;
  try {
    answer = Qel::JSON::ParseObject(response.body);
  } catch (const Qel::Exception::YError&) {
    QEL_RAISE(198, 150,
              failure + "HTTP " + Qel::Util::NumberToString(response.status) + " with an answer that is not JSON",
              kFile, "UpdateCloudSlots");
  }
  if (debug) out << "Response: \n" << answer.Stringify(true) << Ctl::EndLine;

  const auto text = [&answer](const char* name) {
    auto it = answer.GetMembers().find(name);
    return it == answer.GetMembers().end() || !it->second ? YString() : it->second->AsString();
  };
  const YString result = text("result");
  const YString error = text("error");
  if (response.status < 200 || response.status >= 300 || result != "ok" || !error.empty()) {
    YString reason = error;
    if (reason.empty()) reason = "HTTP " + Qel::Util::NumberToString(response.status) + ", result '" + result + "'";
    QEL_RAISE(198, 150, failure + reason, kFile, "UpdateCloudSlots");
  }
}

}  // namespace Cloud
