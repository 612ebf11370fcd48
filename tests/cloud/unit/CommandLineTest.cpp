#include "CommandLine.h"

#include <gtest/gtest.h>

using namespace zarnu::cloud;

namespace {

CommandLine parse(std::vector<std::string> args) { return CommandLine::parse(args, "/home/u"); }

std::string usageError(std::vector<std::string> args) {
    try {
        parse(std::move(args));
    } catch (const UsageError& e) {
        return e.what();
    }
    return {};
}

}  // namespace

TEST(CommandLine, ServeDefaultsAndListenForms) {
    auto cl = parse({"serve"});
    EXPECT_EQ(cl.command, CommandLine::Command::Serve);
    EXPECT_EQ(cl.dataDir, "/home/u/.zarnu-cloud");
    EXPECT_EQ(cl.host, "127.0.0.1");
    EXPECT_EQ(cl.port, 8443);
    EXPECT_EQ(cl.transport, CommandLine::Transport::SelfSigned);

    cl = parse({"serve", "--data", "/d", "--listen", "[::1]:0", "--http"});
    EXPECT_EQ(cl.host, "::1");
    EXPECT_EQ(cl.port, 0);
    EXPECT_EQ(cl.transport, CommandLine::Transport::PlainHttp);

    cl = parse({"serve", "--listen", "localhost:9000", "--tls-cert", "c.pem", "--tls-key", "k.pem"});
    EXPECT_EQ(cl.host, "127.0.0.1");
    EXPECT_EQ(cl.transport, CommandLine::Transport::CertificateFiles);
}

TEST(CommandLine, PlainHttpOnlyOnLoopback) {
    EXPECT_NE(usageError({"serve", "--listen", "0.0.0.0:80", "--http"}).find("0.0.0.0"), std::string::npos);
    EXPECT_FALSE(usageError({"serve", "--listen", "192.168.1.5:80", "--http"}).empty());
    EXPECT_TRUE(usageError({"serve", "--listen", "127.5.5.5:80", "--http"}).empty());
    EXPECT_TRUE(isLoopbackHost("::ffff:127.0.0.1"));
    EXPECT_FALSE(isLoopbackHost("::"));
}

TEST(CommandLine, ErrorsNameTheBadInput) {
    EXPECT_NE(usageError({"serve", "--listen", "nohost"}).find("nohost"), std::string::npos);
    EXPECT_NE(usageError({"serve", "--listen", "127.0.0.1:99999"}).find("port"), std::string::npos);
    EXPECT_NE(usageError({"serve", "--bogus"}).find("--bogus"), std::string::npos);
    EXPECT_NE(usageError({"frobnicate"}).find("frobnicate"), std::string::npos);
    EXPECT_FALSE(usageError({"serve", "--tls-cert", "c.pem"}).empty());
    EXPECT_FALSE(usageError({"serve", "--http", "--self-signed"}).empty());
    EXPECT_FALSE(usageError({"user", "add"}).empty());
    EXPECT_EQ(parse({"user", "add", "bob", "--data", "/x"}).userName, "bob");
    EXPECT_EQ(parse({"--help"}).command, CommandLine::Command::Help);
}

TEST(CommandLine, BuildRoleSwitchAndConnectionCap) {
    EXPECT_FALSE(parse({"user", "add", "bob"}).buildRole.value_or(false));
    EXPECT_TRUE(*parse({"user", "add", "bob", "--build"}).buildRole);
    auto cl = parse({"user", "set", "bob", "--no-build", "--data", "/x"});
    EXPECT_EQ(cl.command, CommandLine::Command::UserSet);
    EXPECT_FALSE(*cl.buildRole);
    EXPECT_NE(usageError({"user", "set", "bob"}).find("--build"), std::string::npos);
    EXPECT_NE(usageError({"user", "add", "bob", "--no-build"}).find("--no-build"), std::string::npos);
    EXPECT_NE(usageError({"serve", "--build"}).find("--build"), std::string::npos);

    EXPECT_EQ(parse({"serve", "--max-connections", "12"}).maxConnections, 12u);
    EXPECT_EQ(parse({"serve"}).maxConnections, 0u);
    for (const char* bad : {"0", "-3", "many", "12x"})
        EXPECT_NE(usageError({"serve", "--max-connections", bad}).find(bad), std::string::npos) << bad;
}
