#include "YAgentSettings.h"

#include "CloudSync/Paths.h"
#include "Qel/Exception/YError.h"
#include "Qel/Util/Util.h"

namespace Agent {

namespace {

// The options the agent acts on, with their defaults; the numeric ones are
// checked when they change.
struct Known {
  const char* name;
  const char* defaultValue;
  bool numeric;
};

const Known kKnown[] = {
    {"csmCurlTimeout", "300", true},        {"csmCurlConnectTimeout", "300", true},
    {"csmSslVerify", "1", true},            {"csmOverlay", "1", true},
    {"csmPartSenders", "2", true},          {"csmPartReceivers", "2", true},
    {"csmBandwithUpLimitSet", "0", true},   {"csmBandwithUpLimit", "0", true},
    {"csmBandwithDownLimitSet", "0", true}, {"csmBandwithDownLimit", "0", true},
    {"csmMoveToTrash2", "0", true},         {"csmCloudAddress", "", false},
};

constexpr const char* kOverlayOption = "csmOverlay";

const Known* FindKnown(const Qel::YString& name) {
  for (const Known& k : kKnown) {
    if (name == k.name) return &k;
  }
  return nullptr;
}

bool IsNumber(const Qel::YString& text) {
  try {
    Qel::Util::StringToNumber<uint64_t>(text);
    return true;
  } catch (const Qel::Exception::YError&) {
    return false;
  }
}

}  // namespace

YAgentSettings::YAgentSettings() {
  for (const Known& k : kKnown) values_[k.name] = k.defaultValue;
  values_["csmCloudAddress"] = CloudSync::GetDefaultCloudAddress();
}

void YAgentSettings::Load(const CloudSync::YConfigDb& db) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Known& k : kKnown) {
    const Qel::YString value = db.GetOption(k.name, values_[k.name]);
    if (!k.numeric || IsNumber(value)) values_[k.name] = value;
  }
}

bool YAgentSettings::Apply(const Qel::YString& name, const Qel::YString& value) {
  const Known* known = FindKnown(name);
  if (!known) return true;
  if (known->numeric && !IsNumber(value)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  values_[name] = value;
  return true;
}

Qel::YString YAgentSettings::GetText(const Qel::YString& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(name);
  return it == values_.end() ? Qel::YString() : it->second;
}

bool YAgentSettings::IsOverlayEnabled() const { return GetNumber(kOverlayOption) != 0; }

int64_t YAgentSettings::GetNumber(const Qel::YString& name) const {
  const Qel::YString text = GetText(name);
  return IsNumber(text) ? static_cast<int64_t>(Qel::Util::StringToNumber<uint64_t>(text)) : 0;
}

}  // namespace Agent
