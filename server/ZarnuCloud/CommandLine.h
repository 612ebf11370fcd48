#pragma once
// The zarnu-cloud command line:
//   zarnu-cloud serve [--data DIR] [--listen HOST:PORT] [--tls-cert FILE --tls-key FILE | --self-signed | --http]
//                     [--max-connections N]
//   zarnu-cloud user add NAME [--build] [--data DIR]
//   zarnu-cloud user set NAME (--build | --no-build) [--data DIR]
//   zarnu-cloud user list [--data DIR]
//   zarnu-cloud user quota NAME BYTES|none [--data DIR]
//   zarnu-cloud -h | --help
// Parsing is pure; errors throw UsageError with a message naming the bad input.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct CommandLine {
    enum class Command { Help, Serve, UserAdd, UserSet, UserList, UserQuota };
    enum class Transport { SelfSigned, CertificateFiles, PlainHttp };

    Command command = Command::Help;
    std::string dataDir;
    std::string host = "127.0.0.1";  ///< IP literal ("localhost" is turned into 127.0.0.1)
    unsigned short port = 8443;
    Transport transport = Transport::SelfSigned;
    std::string certFile;
    std::string keyFile;
    std::string userName;
    /// serve: the connection cap; 0 derives it from the descriptor limit.
    std::size_t maxConnections = 0;
    /// user add / user set: the build role (may post and read build slots). For `user
    /// set`, unset means the switch was not given.
    std::optional<bool> buildRole;
    std::optional<std::uint64_t> quotaBytes;  ///< user quota: nothing for "none"

    /// home: value of $HOME (may be null) for the default data folder.
    static CommandLine parse(const std::vector<std::string>& args, const char* home);
    /// The help text, made from the two tables below.
    static std::string usage();

    /// One form of the command line and what it does.
    struct CommandSpec {
        const char* synopsis;     ///< after the program name: "user add NAME [--data DIR]"
        const char* description;
    };
    /// One option: "--listen" with the value placeholder "HOST:PORT" (empty for a switch).
    struct OptionSpec {
        const char* name;
        const char* value;
        const char* description;
    };
    /// The declarations that usage() prints and the manual page is made from
    /// (static storage; parse() accepts exactly these commands and options).
    static const std::vector<CommandSpec>& commands();
    static const std::vector<OptionSpec>& options();
};

/// Whether an IP literal (or "localhost") is a loopback address.
bool isLoopbackHost(std::string_view host);

}  // namespace zarnu::cloud
