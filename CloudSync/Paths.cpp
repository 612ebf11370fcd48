#include "CloudSync/Paths.h"

#include <pwd.h>
#include <unistd.h>

#include "Qel/Environment/Environment.h"
#include "Qel/File/File.h"

namespace CloudSync {

Qel::YString GetDefaultZarnuDataPath() {
  Qel::YString data = Qel::Environment::GetVariable("ZARNU_DATA");
  if (!data.empty()) return data;
  Qel::YString home = Qel::Environment::GetVariable("HOME");
  if (home.empty()) {
    if (const passwd* pw = getpwuid(getuid())) home = pw->pw_dir;
  }
  return Qel::File::AppendPaths(home, ".zarnu");
}

Qel::YString GetDefaultCloudAddress() {
  Qel::YString address = Qel::Environment::GetVariable("ZARNU_CLOUD_ADDRESS");
  return address.empty() ? Qel::YString("https://localhost:8443/") : address;
}

Qel::YString GetDefaultLinkUrl() { return "https://localhost:8443/"; }

}  // namespace CloudSync
