// The "Config" verb module of zarnucmd: reads and writes the agent's settings
// in the configuration database ("config.db" in the data folder).
//
// The database knows no names and no defaults, so the module carries the
// table of every option the command line may touch: name (sorted byte-wise)
// to default, an int or a YString held in a boost::any. Prepare opens the
// database and builds the table; the verbs then read and write through
// GetOption, GetOptionDefault and PutOption. Unknown names fail with code 55
// before the database is touched.
#pragma once

#include <boost/any.hpp>
#include <map>

#include "CloudSync/YConfigDb.h"
#include "Qel/YString.h"
#include "YZarnuCmdVerbModule.h"

namespace Config {

class YConfigVerbModule : public YZarnuCmdVerbModule {
 public:
  // One row of the option table: the default and its type label ("int" or
  // "YString").
  struct YOptionEntry {
    boost::any default_value;
    Qel::YString type;
  };
  using OptionTable = std::map<Qel::YString, YOptionEntry>;

  explicit YConfigVerbModule(Qel::Application::YConsoleMain* app);
  // Initialises the database and (re)builds the option table.
  void Prepare(unsigned int& exitCode) override;

  // Adds `name` with its default (an int or a Qel::YString); a name added
  // again takes the later default. Raises code 55 for any other type.
  void AddOption(const Qel::YString& name, const boost::any& defaultValue);
  // The default as text (an int in decimal). Unknown names raise code 55.
  Qel::YString GetOptionDefault(const Qel::YString& name) const;
  // The stored value, or the default as text when none is stored. Unknown
  // names raise code 55.
  Qel::YString GetOption(const Qel::YString& name) const;
  // Stores `value` as given (no type check): through the running agent when
  // one answers (it then applies the value at once), else in the database.
  // Unknown names raise code 55 and nothing is sent or written.
  void PutOption(const Qel::YString& name, const Qel::YString& value);

  const OptionTable& GetOptionTable() const { return options_; }
  CloudSync::YConfigDb& GetConfigDb() { return config_db_; }

 private:
  void BuildOptionTable();
  // The table row of `name`; raises code 55 from `function` when unknown.
  const YOptionEntry& Find(const Qel::YString& name, const char* function) const;

  CloudSync::YConfigDb config_db_;
  OptionTable options_;
};

// The default of an option table row written as text.
Qel::YString DefaultText(const YConfigVerbModule::YOptionEntry& entry);

}  // namespace Config
