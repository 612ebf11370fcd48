// Agent::YAgentSettings: the options the agent acts on, as it last read or
// was told them. Load reads them from config.db; Apply takes one change at
// once (the overlay's configdb_put). Values that are not numbers where a
// number is expected keep the previous value and are reported by Apply.
// Thread-safety: every operation takes the object's mutex.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "CloudSync/YConfigDb.h"
#include "Qel/YString.h"

namespace Agent {

class YAgentSettings {
 public:
  YAgentSettings();

  void Load(const CloudSync::YConfigDb& db);
  // Takes `value` for `name`. Returns false (and keeps the old value) when a
  // numeric option gets a text that is not a number. Names the agent does not
  // act on are not kept here (config.db holds them), so that clients cannot
  // grow the agent's memory with made-up names.
  bool Apply(const Qel::YString& name, const Qel::YString& value);

  // The value as text (the default when never set); "" for unknown names.
  Qel::YString GetText(const Qel::YString& name) const;
  int64_t GetNumber(const Qel::YString& name) const;

  // "csmOverlay" is not 0: clients of the overlay get path statuses. When it
  // is 0 every status is "none" and none is pushed.
  bool IsOverlayEnabled() const;

 private:
  mutable std::mutex mutex_;
  std::map<Qel::YString, Qel::YString> values_;
};

}  // namespace Agent
