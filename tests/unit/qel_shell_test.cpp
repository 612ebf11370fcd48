// The verb framework: option lookups, the command-line grammar, usage texts and
// name suggestions, driven through YConsoleMain::Main with a small test module.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Qel/Application/YConsoleMain.h"
#include "Qel/Exception/YError.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using qel_test::Raised;
using Qel::Application::GetOptionValue;
using Qel::Application::GetOptionValueNumber;
using Qel::Application::OptionMap;
using Qel::Application::YConsoleMain;
using Qel::Exception::YError;
using testing::HasSubstr;
using testing::Not;

class TestVerb : public YConsoleMain::YVerbBase {
 public:
  using YVerbBase::YVerbBase;
  void Execute(unsigned int& exitCode) override {
    ParseParams(exitCode);
    ran = true;
    exitCode = 7;
  }
  bool ran = false;
};

// Keeps the argument vector alive; a base listed before YConsoleMain so that
// it exists when YConsoleMain's constructor takes the pointers.
struct ArgvHolder {
  explicit ArgvHolder(std::vector<std::string> words) : words_(std::move(words)) {
    for (std::string& w : words_) ptrs_.push_back(w.data());
  }
  std::vector<std::string> words_;
  std::vector<char*> ptrs_;
};

class TestApp : private ArgvHolder, public YConsoleMain {
 public:
  explicit TestApp(std::vector<std::string> words)
      : ArgvHolder(Prepend(std::move(words))), YConsoleMain(static_cast<int>(ptrs_.size()), ptrs_.data()) {
    module = std::make_shared<YVerbModuleBase>(
        this, "Cloud", "Test cloud module",
        OptionMap{{"username=", "Login name"}, {"debugOutput,debug", "Debug masks"}}, Qel::Application::ArgumentList{},
        false);
    put = Add("put", "Uploads a file", {{"r", "Recursive"}, {"w,watch", "Watch"}, {"m=", "Message"}},
              {"local path", "cloud path"}, false);
    ls = Add("ls,dir,list", "Lists a folder", {}, {"path..."}, false);
    link1 = Add("link", "Gets a public link", {{"t", "Token only"}}, {"path..."}, false);
    link2 = Add("link", "Gets a public link", {{"t", "Token only"}}, {"path..."}, false);
    secret = Add("secret", "Hidden helper", {}, {}, true);
    RegisterModule(module);
    RegisterModule(std::make_shared<YVerbModuleBase>(this, "Config", "Test config module", OptionMap{},
                                                     Qel::Application::ArgumentList{}, false));
  }
  void Run() override { Main(); }

  std::shared_ptr<YVerbModuleBase> module;
  std::shared_ptr<TestVerb> put, ls, link1, link2, secret;

 private:
  static std::vector<std::string> Prepend(std::vector<std::string> words) {
    words.insert(words.begin(), "/opt/zarnu/bin/tool");
    return words;
  }
  std::shared_ptr<TestVerb> Add(const char* name, const char* description, OptionMap options,
                                Qel::Application::ArgumentList arguments, bool hidden) {
    auto verb = std::make_shared<TestVerb>(this, module.get(), name, description, options, arguments, hidden);
    module->RegisterVerb(verb);
    return verb;
  }
};

// Runs Main and returns its result together with what it printed.
struct Outcome {
  unsigned int code;
  std::string out;
};
Outcome RunMain(TestApp& app) {
  testing::internal::CaptureStdout();
  unsigned int code = 0;
  try {
    code = app.Main();
  } catch (...) {
    app.GetLogger().Finish();
    testing::internal::GetCapturedStdout();
    throw;
  }
  app.GetLogger().Finish();
  return {code, testing::internal::GetCapturedStdout()};
}

TEST(QelShellLookups, OptionValueAndNumber) {
  const OptionMap options{{"empty", ""}, {"hex", "0x10"}, {"n", "12"}};
  YError e = Raised([&] { GetOptionValue(options, "username", "NOTSET"); });
  EXPECT_EQ(e.GetCcode(), 46u);
  EXPECT_EQ(e.GetLogType(), 15u);
  EXPECT_EQ(e.GetFunction(), "GetOptionValue");
  EXPECT_EQ(e.GetInfo(), "username");
  EXPECT_EQ(GetOptionValue(options, "username", ""), "");
  EXPECT_EQ(GetOptionValue(options, "empty", "NOTSET"), "");
  EXPECT_EQ(GetOptionValue(options, "n", "NOTSET"), "12");

  EXPECT_EQ(GetOptionValueNumber(options, "empty", 5), 5u);
  e = Raised([&] { GetOptionValueNumber(options, "empty"); });
  EXPECT_EQ(e.GetCcode(), 46u);
  EXPECT_EQ(e.GetFunction(), "GetOptionValueNumber");
  EXPECT_EQ(e.GetInfo(), "empty");
  EXPECT_EQ(GetOptionValueNumber(options, "hex"), 16u);
  EXPECT_EQ(GetOptionValueNumber(options, "n", 5), 12u);
  EXPECT_EQ(GetOptionValueNumber(options, "absent", 0), 0u);
}

TEST(QelShellLookups, ArgumentsAndMultiArguments) {
  TestApp app({"Cloud", "put", "only-local"});
  RunMain(app);
  EXPECT_EQ(app.put->GetArgument("local path"), "only-local");
  YError e = Raised([&] { app.put->GetArgument("cloud path"); });
  EXPECT_EQ(e.GetCcode(), 47u);
  EXPECT_EQ(e.GetLogType(), 15u);
  EXPECT_EQ(e.GetFunction(), "GetArgument");
  EXPECT_EQ(e.GetFile(), "libqel/Qel/Application/YConsoleMain");
  EXPECT_EQ(e.GetInfo(), "cloud path");

  TestApp bare({"Cloud", "ls"});
  RunMain(bare);
  EXPECT_EQ(bare.ls->GetMultiArgument("path...", "/"), std::vector<YString>{"/"});
  e = Raised([&] { bare.ls->GetMultiArgument("path...", nullptr); });
  EXPECT_EQ(e.GetCcode(), 47u);
  EXPECT_EQ(e.GetFunction(), "GetMultiArgument");
  EXPECT_EQ(e.GetInfo(), "path...");

  TestApp words({"Cloud", "dir", "a", "b", "--", "-c"});
  RunMain(words);
  EXPECT_EQ(words.ls->GetMultiArgument("path...", nullptr), (std::vector<YString>{"a", "b", "-c"}));
  EXPECT_TRUE(words.ls->HasArgument("path..."));
}

TEST(QelShellGrammar, NamesOptionsAndValues) {
  TestApp app({"cLOUD", "PUT", "-r", "--m=hello world", "src", "-username", "bob", "dst", "-DEBUG"});
  Outcome o = RunMain(app);
  ASSERT_TRUE(app.put->ran);
  EXPECT_EQ(o.code, 7u);  // what the verb stored
  EXPECT_EQ(app.put->GetArgument("local path"), "src");
  EXPECT_EQ(app.put->GetArgument("cloud path"), "dst");
  EXPECT_EQ(app.put->GetOptions(), (OptionMap{{"r", ""}, {"m", "hello world"}}));
  // Module-wide options land in the module's map, under the first name.
  EXPECT_EQ(app.module->GetOptions(), (OptionMap{{"username", "bob"}, {"debugOutput", ""}}));
  EXPECT_EQ(app.module->GetCurrentVerb(), app.put.get());

  for (const char* typed : {"-w", "--watch", "-watch", "-Watch"}) {
    TestApp w({"Cloud", "put", "a", "b", typed});
    RunMain(w);
    EXPECT_EQ(w.put->GetOptions(), (OptionMap{{"w", ""}})) << typed;
  }

  TestApp value({"Cloud", "put", "-m", "-r", "a", "-5"});  // a value taken whole; "-5" is a word
  RunMain(value);
  EXPECT_EQ(value.put->GetOptions(), (OptionMap{{"m", "-r"}}));
  EXPECT_EQ(value.put->GetArgument("cloud path"), "-5");

  TestApp dashes({"Cloud", "put", "--", "-x", "--"});
  RunMain(dashes);
  EXPECT_EQ(dashes.put->GetArgument("local path"), "-x");
  EXPECT_EQ(dashes.put->GetArgument("cloud path"), "--");
  EXPECT_TRUE(dashes.put->GetOptions().empty());

  TestApp alias({"cloud", "LIST", "x"});
  RunMain(alias);
  EXPECT_TRUE(alias.ls->ran);

  TestApp twice({"Cloud", "link", "p"});
  RunMain(twice);
  EXPECT_TRUE(twice.link1->ran);
  EXPECT_FALSE(twice.link2->ran);

  TestApp hidden({"Cloud", "Secret"});
  RunMain(hidden);
  EXPECT_TRUE(hidden.secret->ran);
}

TEST(QelShellGrammar, BadCommandLinesNameTheWord) {
  struct Case {
    std::vector<std::string> words;
    unsigned int code;
    const char* info;
  };
  const Case cases[] = {
      {{"Cloud", "put", "a", "b", "-bogus"}, 55, "Unknown option '-bogus'; see 'tool Cloud put -help'"},
      {{"Cloud", "put", "a", "b", "--watc"}, 55, "Unknown option '--watc' (did you mean '-watch'?)"},
      {{"Cloud", "put", "a", "b", "c"}, 55, "Unexpected argument 'c'; see 'tool Cloud put -help'"},
      {{"Cloud", "put", "a", "b", "-m"}, 46, "-m needs a value"},
      {{"Cloud", "pit"}, 55, "Unknown verb 'pit' for module Cloud (did you mean 'put'?); see 'tool Cloud -help'"},
      {{"Clud", "put"}, 55, "Unknown module 'Clud' (did you mean 'Cloud'?); see 'tool -help'"},
      {{"-verbose"}, 55, "Unknown option '-verbose'"},
      {{"Cloud", "zzzzzz"}, 55, "Unknown verb 'zzzzzz' for module Cloud; see"},
  };
  for (const Case& c : cases) {
    TestApp app(c.words);
    YError e = Raised([&] { RunMain(app); });
    EXPECT_EQ(e.GetCcode(), c.code) << c.info;
    EXPECT_EQ(e.GetLogType(), 15u) << c.info;
    EXPECT_THAT(e.GetInfo(), HasSubstr(c.info));
    EXPECT_FALSE(app.put->ran) << c.info;
  }
}

TEST(QelShellGrammar, HiddenVerbsAreNeverSuggested) {
  TestApp app({"Cloud", "secre"});
  YError e = Raised([&] { RunMain(app); });
  EXPECT_EQ(e.GetCcode(), 55u);
  EXPECT_THAT(e.GetInfo(), Not(HasSubstr("secret")));
}

TEST(QelShellUsage, VerbHelpWinsOverTheRestOfTheLine) {
  // Help at the program and module levels is checked through zarnucmd itself.
  TestApp verb({"cloud", "put", "a", "--help", "-bogus"});
  Outcome o = RunMain(verb);
  EXPECT_EQ(o.code, 0u);
  EXPECT_FALSE(verb.put->ran);
  EXPECT_THAT(o.out, HasSubstr("Usage: tool Cloud put <local path> <cloud path> [options]"));
  EXPECT_THAT(o.out, HasSubstr("-w, -watch"));
  EXPECT_THAT(o.out, HasSubstr("-m=<value>"));

  TestApp list({"Cloud", "dir", "-help"});
  o = RunMain(list);
  EXPECT_THAT(o.out, HasSubstr("Usage: tool Cloud ls <path>..."));
  EXPECT_THAT(o.out, HasSubstr("Also known as: ls, dir, list"));

  TestApp after_dashes({"Cloud", "put", "a", "--", "-help"});  // a word, not a request for help
  o = RunMain(after_dashes);
  EXPECT_TRUE(after_dashes.put->ran);
  EXPECT_EQ(after_dashes.put->GetArgument("cloud path"), "-help");
}

TEST(QelShellUsage, SuggestName) {
  const std::vector<YString> names{"put", "get", "mkdir", "undelete"};
  EXPECT_EQ(Qel::Application::SuggestName("pt", names), "put");
  EXPECT_EQ(Qel::Application::SuggestName("MKDR", names), "mkdir");
  EXPECT_EQ(Qel::Application::SuggestName("undelte", names), "undelete");
  EXPECT_EQ(Qel::Application::SuggestName("xyz", names), "");
  EXPECT_EQ(Qel::Application::SuggestName("put", {}), "");
}

TEST(QelShellUsage, CommandLineOptionScansOnlyFilledSlots) {
  std::string self = "/bin/tool", version = "-version", other = "x";
  std::vector<char*> slots(64, other.data());
  slots[0] = self.data();
  slots[63] = version.data();
  class Probe : public Qel::Application::YMain {
   public:
    using YMain::YMain;
    void Run() override {}
  } app(100, slots.data());  // more words than slots
  EXPECT_EQ(app.GetFilledArgC(), 64);
  EXPECT_TRUE(app.CheckCommandLineOption("-version"));
  EXPECT_FALSE(app.CheckCommandLineOption("/bin/tool"));  // slot 0 is the program
}

}  // namespace
