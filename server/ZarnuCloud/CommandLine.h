#pragma once
// The zarnu-cloud command line:
//   zarnu-cloud serve [--data DIR] [--listen HOST:PORT] [--tls-cert FILE --tls-key FILE | --self-signed | --http]
//                     [--max-connections N]
//   zarnu-cloud user add NAME [--build] [--data DIR]
//   zarnu-cloud user set NAME (--build | --no-build) [--data DIR]
//   zarnu-cloud user list [--data DIR]
//   zarnu-cloud -h | --help
// Parsing is pure; errors throw UsageError with a message naming the bad input.

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
    enum class Command { Help, Serve, UserAdd, UserSet, UserList };
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

    /// home: value of $HOME (may be null) for the default data folder.
    static CommandLine parse(const std::vector<std::string>& args, const char* home);
    static std::string usage();
};

/// Whether an IP literal (or "localhost") is a loopback address.
bool isLoopbackHost(std::string_view host);

}  // namespace zarnu::cloud
