#include "CommandLine.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace zarnu::cloud {

namespace {

bool isIpv4(const std::string& s) {
    in_addr a{};
    return inet_pton(AF_INET, s.c_str(), &a) == 1;
}

bool isIpv6(const std::string& s) {
    in6_addr a{};
    return inet_pton(AF_INET6, s.c_str(), &a) == 1;
}

void parseListen(std::string_view value, CommandLine& out) {
    auto bad = [&](const std::string& why) {
        return UsageError("invalid --listen \"" + std::string(value) + "\": " + why);
    };
    std::string host;
    std::string_view port;
    if (!value.empty() && value.front() == '[') {
        auto close = value.find(']');
        if (close == std::string_view::npos || close + 1 >= value.size() || value[close + 1] != ':')
            throw bad("expected [IPv6]:PORT");
        host = std::string(value.substr(1, close - 1));
        port = value.substr(close + 2);
    } else {
        auto colon = value.rfind(':');
        if (colon == std::string_view::npos) throw bad("expected HOST:PORT");
        host = std::string(value.substr(0, colon));
        port = value.substr(colon + 1);
    }
    if (host == "localhost") host = "127.0.0.1";
    if (!isIpv4(host) && !isIpv6(host)) throw bad("the host must be an IP address or localhost");
    unsigned p = 0;
    auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), p);
    if (port.empty() || ec != std::errc() || end != port.data() + port.size() || p > 65535)
        throw bad("the port must be a number from 0 to 65535");
    out.host = host;
    out.port = static_cast<unsigned short>(p);
}

}  // namespace

bool isLoopbackHost(std::string_view hostView) {
    std::string host(hostView);
    if (host == "localhost") return true;
    in_addr a4{};
    if (inet_pton(AF_INET, host.c_str(), &a4) == 1) return (ntohl(a4.s_addr) >> 24) == 127;
    in6_addr a6{};
    if (inet_pton(AF_INET6, host.c_str(), &a6) == 1) {
        if (IN6_IS_ADDR_LOOPBACK(&a6)) return true;
        if (IN6_IS_ADDR_V4MAPPED(&a6)) return a6.s6_addr[12] == 127;
    }
    return false;
}

const std::vector<CommandLine::CommandSpec>& CommandLine::commands() {
    static const std::vector<CommandSpec> kCommands = {
        {"serve [--data DIR] [--listen HOST:PORT] [--tls-cert FILE --tls-key FILE | --self-signed | --http]\n"
         "                  [--max-connections N]",
         "Runs the service in the foreground; prints \"listening on <url>\" once it accepts connections.\n"
         "SIGINT and SIGTERM stop it. The operator token (service-wide statistics) is in the file\n"
         "operator.token of the data folder, made on the first start."},
        {"user add NAME [--build] [--data DIR]", "Adds an account; the password is one line on standard input."},
        {"user set NAME (--build | --no-build) [--data DIR]",
         "Gives the account the build role (it may read and post its build slots), or takes it away."},
        {"user list [--data DIR]", "Lists the accounts, build accounts followed by \"build\"."},
        {"user quota NAME BYTES|none [--data DIR]", "Sets (or with none lifts) the bytes of parts the user may hold."},
        {"-h | --help", "Prints this help."},
    };
    return kCommands;
}

const std::vector<CommandLine::OptionSpec>& CommandLine::options() {
    static const std::vector<OptionSpec> kOptions = {
        {"--data", "DIR", "data folder (default $HOME/.zarnu-cloud)"},
        {"--listen", "HOST:PORT",
         "address to listen on (default 127.0.0.1:8443; port 0 picks a free port; IPv6 as [::1]:8443)"},
        {"--self-signed", "",
         "HTTPS with a certificate made on first start and kept in the data folder as cert.pem/key.pem (the default)"},
        {"--tls-cert", "FILE", "HTTPS with this PEM certificate chain (needs --tls-key)"},
        {"--tls-key", "FILE", "PEM private key for --tls-cert"},
        {"--http", "", "plain HTTP; only on loopback addresses"},
        {"--max-connections", "N",
         "serve at most N connections at once (default 4096, or fewer when the descriptor limit is low)"},
        {"--build", "", "user add/set: give the account the build role"},
        {"--no-build", "", "user set: take the build role away"},
    };
    return kOptions;
}

std::string CommandLine::usage() {
    constexpr std::size_t kColumn = 23;  // where option descriptions start
    std::string text = "zarnu-cloud: the Zarnu cloud service\n\nUsage:\n";
    for (const CommandSpec& c : commands()) {
        text += std::string("  zarnu-cloud ") + c.synopsis + "\n";
        std::string_view description = c.description;
        while (!description.empty()) {
            const std::size_t end = std::min(description.find('\n'), description.size());
            text += "      " + std::string(description.substr(0, end)) + "\n";
            description.remove_prefix(std::min(end + 1, description.size()));
        }
    }
    text += "\nOptions:\n";
    for (const OptionSpec& o : options()) {
        std::string head = std::string("  ") + o.name + (*o.value ? std::string(" ") + o.value : std::string());
        head.resize(std::max(head.size() + 1, kColumn), ' ');
        text += head + o.description + "\n";
    }
    text += "\nThe API is described in docs/cloud-api.md.\n";
    return text;
}

CommandLine CommandLine::parse(const std::vector<std::string>& args, const char* home) {
    CommandLine cl;
    std::size_t i = 0;
    auto next = [&](const std::string& option) -> std::string {
        if (i + 1 >= args.size()) throw UsageError("option " + option + " needs a value");
        return args[++i];
    };
    if (args.empty()) throw UsageError("no command given (try --help)");
    if (args[0] == "-h" || args[0] == "--help" || args[0] == "help") return cl;
    if (args[0] == "serve") {
        cl.command = Command::Serve;
        i = 1;
    } else if (args[0] == "user") {
        if (args.size() < 2) throw UsageError("\"user\" needs a subcommand: add, set or list");
        if (args[1] == "add" || args[1] == "set") {
            if (args.size() < 3 || args[2].rfind("-", 0) == 0)
                throw UsageError("\"user " + args[1] + "\" needs a user NAME");
            cl.command = args[1] == "add" ? Command::UserAdd : Command::UserSet;
            cl.userName = args[2];
            i = 3;
        } else if (args[1] == "list") {
            cl.command = Command::UserList;
            i = 2;
        } else if (args[1] == "quota") {
            if (args.size() < 4 || args[2].rfind("-", 0) == 0)
                throw UsageError("\"user quota\" needs a user NAME and BYTES (or none)");
            cl.command = Command::UserQuota;
            cl.userName = args[2];
            const std::string& value = args[3];
            if (value != "none") {
                std::uint64_t bytes = 0;
                auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), bytes);
                if (value.empty() || ec != std::errc() || end != value.data() + value.size())
                    throw UsageError("invalid quota \"" + value + "\": give a number of bytes or none");
                cl.quotaBytes = bytes;
            }
            i = 4;
        } else {
            throw UsageError("unknown user subcommand \"" + args[1] + "\" (use add, set, list or quota)");
        }
    } else {
        throw UsageError("unknown command \"" + args[0] + "\" (try --help)");
    }

    bool selfSigned = false, http = false;
    for (; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "-h" || a == "--help") return CommandLine{};
        if (a == "--data") {
            cl.dataDir = next(a);
            if (cl.dataDir.empty()) throw UsageError("--data needs a folder");
        } else if (cl.command == Command::Serve && a == "--listen") {
            parseListen(next(a), cl);
        } else if (cl.command == Command::Serve && a == "--tls-cert") {
            cl.certFile = next(a);
        } else if (cl.command == Command::Serve && a == "--tls-key") {
            cl.keyFile = next(a);
        } else if (cl.command == Command::Serve && a == "--self-signed") {
            selfSigned = true;
        } else if (cl.command == Command::Serve && a == "--http") {
            http = true;
        } else if (cl.command == Command::Serve && a == "--max-connections") {
            const std::string value = next(a);
            std::size_t n = 0;
            auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), n);
            if (value.empty() || ec != std::errc() || end != value.data() + value.size() || n < 1 || n > 1000000)
                throw UsageError("invalid --max-connections \"" + value + "\": use a number from 1 to 1000000");
            cl.maxConnections = n;
        } else if ((cl.command == Command::UserAdd || cl.command == Command::UserSet) && a == "--build") {
            cl.buildRole = true;
        } else if (cl.command == Command::UserSet && a == "--no-build") {
            cl.buildRole = false;
        } else {
            throw UsageError("unknown option \"" + a + "\" (try --help)");
        }
    }
    if (cl.command == Command::UserSet && !cl.buildRole)
        throw UsageError("\"user set " + cl.userName + "\" needs --build or --no-build");
    const bool files = !cl.certFile.empty() || !cl.keyFile.empty();
    if (int(selfSigned) + int(http) + int(files) > 1)
        throw UsageError("choose one of --tls-cert/--tls-key, --self-signed and --http");
    if (files && (cl.certFile.empty() || cl.keyFile.empty()))
        throw UsageError("--tls-cert and --tls-key must be given together");
    if (http) cl.transport = Transport::PlainHttp;
    if (files) cl.transport = Transport::CertificateFiles;
    if (http && !isLoopbackHost(cl.host))
        throw UsageError("--http is refused on the non-loopback address " + cl.host +
                         ": plain HTTP would expose passwords and tokens; use HTTPS");
    if (cl.dataDir.empty()) {
        if (!home || !*home) throw UsageError("$HOME is not set: give --data DIR");
        cl.dataDir = std::string(home) + "/.zarnu-cloud";
    }
    return cl;
}

}  // namespace zarnu::cloud
