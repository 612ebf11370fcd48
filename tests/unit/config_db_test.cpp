// The configuration database over its SQLite connection: values round-trip,
// a missing file reads as defaults until the first write creates it, a damaged
// file is an error naming it, and two processes writing at once lose nothing.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "CloudSync/YConfigDb.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/SQLite/YSqliteDb.h"
#include "Qel/Util/Util.h"
#include "qel_test_support.h"

namespace {

class ConfigDbTest : public ::testing::Test {
 protected:
  Qel::YString PathIn(const char* relative) const { return dir_.Path(relative); }

  qel_test::TempFolder dir_{"config_db"};
};

TEST_F(ConfigDbTest, ValuesRoundTripAndSurviveReopening) {
  const Qel::YString path = PathIn("config.db");
  {
    CloudSync::YConfigDb db(path);
    db.Initialize();
    db.PutOption("csmProxyType", "Http");
    db.PutOption("csmProxyType", "Socks5");  // overwrites
    db.PutOption("text", "two words, 'quoted' and \xC3\xA9");
    db.SetOptionEnabled("csmOverlay", false);
    EXPECT_EQ(db.GetOption("csmProxyType", "None"), "Socks5");
    EXPECT_EQ(db.GetOption("csmOverlay", "1"), "0");
    db.SetOptionEnabled("csmOverlay", true);
    EXPECT_EQ(db.GetOption("csmOverlay", "0"), "1");
    EXPECT_EQ(db.GetOption("never written", "fallback"), "fallback");
  }
  CloudSync::YConfigDb again(path);
  again.Initialize();
  EXPECT_EQ(again.GetOption("csmProxyType", "None"), "Socks5");
  EXPECT_EQ(again.GetOption("text", ""), "two words, 'quoted' and \xC3\xA9");
}

TEST_F(ConfigDbTest, UseBeforeInitializeIsAnError) {
  CloudSync::YConfigDb uninitialised(PathIn("config.db"));
  EXPECT_THROW(uninitialised.GetOption("x", ""), Qel::Exception::YError);
}

TEST_F(ConfigDbTest, WriteTransactionRollsBackWhenTheWorkFails) {
  CloudSync::YConfigDb db(PathIn("config.db"));
  db.Initialize();
  db.PutOption("kept", "1");
  EXPECT_THROW(db.RunInTransaction([&] {
    db.Execute("UPDATE options SET value = 'changed' WHERE name = 'kept'");
    QEL_RAISE(15, 55, "abandon", "tests/unit/config_db_test", "Work");
  }),
               Qel::Exception::YError);
  EXPECT_FALSE(db.IsInTransaction());
  EXPECT_EQ(db.GetOption("kept", ""), "1");
}

// Both processes start together on a database that does not exist yet; each
// writes its own options and increments one shared counter in read-then-write
// transactions. Every write must be there at the end.
TEST_F(ConfigDbTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kRounds = 150;
  const Qel::YString path = PathIn("shared/config.db");
  int go[2];
  ASSERT_EQ(::pipe(go), 0);

  const auto work = [&](const char* who) {
    CloudSync::YConfigDb db(path);
    db.Initialize();
    for (int i = 0; i < kRounds; ++i) {
      db.PutOption(Qel::YString(who) + "." + Qel::Util::NumberToString(i), Qel::Util::NumberToString(i * 7));
      db.PutOption(Qel::YString(who) + ".last", Qel::Util::NumberToString(i));
      db.RunInTransaction([&] {
        const int counter = Qel::Util::StringToNumber<int>(db.GetOption("counter", "0"));
        db.PutOption("counter", Qel::Util::NumberToString(counter + 1));
      });
    }
  };

  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(go[1]);
    char c;
    int status = ::read(go[0], &c, 1) == 1 ? 0 : 2;
    try {
      if (status == 0) work("child");
    } catch (const Qel::Exception::YError& e) {
      std::fprintf(stderr, "child: %s\n", e.GetSummary().c_str());
      status = 1;
    }
    ::_exit(status);
  }
  ::close(go[0]);
  ASSERT_EQ(::write(go[1], "x", 1), 1);
  ::close(go[1]);
  try {
    work("parent");
  } catch (const Qel::Exception::YError& e) {
    ADD_FAILURE() << "parent: " << e.GetSummary();
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;

  CloudSync::YConfigDb db(path);
  db.Initialize();
  EXPECT_EQ(db.GetOption("counter", ""), Qel::Util::NumberToString(2 * kRounds));
  for (const char* who : {"child", "parent"}) {
    EXPECT_EQ(db.GetOption(Qel::YString(who) + ".last", ""), Qel::Util::NumberToString(kRounds - 1));
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_EQ(db.GetOption(Qel::YString(who) + "." + Qel::Util::NumberToString(i), ""),
                Qel::Util::NumberToString(i * 7))
          << who << " write " << i << " lost";
    }
  }
}

}  // namespace
