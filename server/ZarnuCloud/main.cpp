// zarnu-cloud: entry point. Parses the command line, opens the stores in the data
// folder and either serves or manages users.

#include "ApiError.h"
#include "ApiRouter.h"
#include "CloudService.h"
#include "CommandLine.h"
#include "FolderPartStore.h"
#include "HttpServer.h"
#include "OperatorCredential.h"
#include "PartCollector.h"
#include "Secrets.h"
#include "SelfSignedCert.h"
#include "SqliteMetadataStore.h"

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <thread>

using namespace zarnu::cloud;

namespace {

void prepareDataDir(const std::filesystem::path& dir) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_directory(dir))
        throw std::runtime_error("cannot create the data folder " + dir.string() +
                                 (ec ? ": " + ec.message() : std::string(": not a folder")));
    ::chmod(dir.c_str(), 0700);
}

// Collects unused parts once now and then every PartCollector::kIntervalSeconds until
// destroyed.
class CollectorThread {
public:
    explicit CollectorThread(PartCollector& collector) : collector_(collector) {
        runOnce();
        thread_ = std::thread([this] {
            std::unique_lock lock(mutex_);
            while (!stopping_) {
                if (wake_.wait_for(lock, std::chrono::seconds(PartCollector::kIntervalSeconds), [this] { return stopping_; }))
                    break;
                lock.unlock();
                runOnce();
                lock.lock();
            }
        });
    }
    ~CollectorThread() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

private:
    void runOnce() {
        try {
            const PartCollector::Result r = collector_.collect(unixNow());
            if (r.partsRemoved || r.holdsReleased)
                std::cerr << "zarnu-cloud: collected " << r.partsRemoved << " unused parts (" << r.holdsReleased
                          << " lapsed holds)" << std::endl;
        } catch (const std::exception& e) {
            std::cerr << "zarnu-cloud: collecting unused parts failed: " << e.what() << std::endl;
        }
    }

    PartCollector& collector_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

int serve(const CommandLine& cl) {
    const std::filesystem::path data = cl.dataDir;
    prepareDataDir(data);
    SqliteMetadataStore meta(data / "meta.sqlite");
    FolderPartStore parts(data / "parts");
    Stats stats;
    CloudService service(meta, parts, stats);
    PartCollector collector(meta, parts, service.pins());
    CollectorThread collecting(collector);
    Secrets::burnPasswordCheck("");  // makes the stand-in hash now, not during the first failed login

    HttpServer::Options options;
    options.host = cl.host;
    options.port = cl.port;
    if (cl.transport == CommandLine::Transport::SelfSigned) {
        options.certFile = (data / "cert.pem").string();
        options.keyFile = (data / "key.pem").string();
        SelfSignedCert::ensure(options.certFile, options.keyFile);
        options.tls = true;
    } else if (cl.transport == CommandLine::Transport::CertificateFiles) {
        options.certFile = cl.certFile;
        options.keyFile = cl.keyFile;
        options.tls = true;
    }
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    options.ioThreads = std::min(cores, 4u);
    options.workerThreads = std::max(4u, cores * 2);
    options.maxConnections = cl.maxConnections;
    options.onStop = [&service] { service.shutdown(); };

    const OperatorCredential operatorCredential =
        OperatorCredential::loadOrCreate(data / OperatorCredential::kFileName);
    const std::string authority = (cl.host.find(':') != std::string::npos ? "[" + cl.host + "]" : cl.host);
    auto router = std::make_shared<ApiRouter>(service, operatorCredential, authority + ":" + std::to_string(cl.port));
    HttpServer server(
        options, [router](const HttpRequest& r) { return router->handle(r); },
        [router](std::string_view m, std::string_view p) { return router->limits(m, p); },
        [router](const HttpRequest& head) { return router->refuseCredential(head); },
        [router](const HttpRequest& head) { return router->credentialRecentlyAccepted(head); },
        [](std::string_view p) { return ApiRouter::loggablePath(p); });
    const std::string url = server.listen();
    std::cout << "listening on " << url << std::endl;
    server.run();
    std::cerr << "zarnu-cloud: stopped" << std::endl;
    return 0;
}

int userAdd(const CommandLine& cl) {
    prepareDataDir(cl.dataDir);
    std::string password;
    if (!std::getline(std::cin, password)) throw std::runtime_error("no password on standard input");
    if (!password.empty() && password.back() == '\r') password.pop_back();
    SqliteMetadataStore meta(std::filesystem::path(cl.dataDir) / "meta.sqlite", 1);
    FolderPartStore parts(std::filesystem::path(cl.dataDir) / "parts");
    Stats stats;
    CloudService service(meta, parts, stats);
    const AccountId id = service.addUser(cl.userName, password);
    if (cl.buildRole.value_or(false)) meta.setRole(id, CloudService::kBuildRole, true);
    std::cout << "user " << cl.userName << " added" << (cl.buildRole.value_or(false) ? " with the build role" : "")
              << std::endl;
    return 0;
}

int userSet(const CommandLine& cl) {
    SqliteMetadataStore meta(std::filesystem::path(cl.dataDir) / "meta.sqlite", 1);
    const auto account = meta.accountByName(cl.userName);
    if (!account) throw std::runtime_error("there is no user \"" + cl.userName + "\"");
    const bool build = cl.buildRole.value_or(false);
    meta.setRole(account->id, CloudService::kBuildRole, build);
    std::cout << "user " << cl.userName << (build ? " has" : " does not have") << " the build role" << std::endl;
    return 0;
}

int userQuota(const CommandLine& cl) {
    SqliteMetadataStore meta(std::filesystem::path(cl.dataDir) / "meta.sqlite", 1);
    const auto account = meta.accountByName(cl.userName);
    if (!account) throw std::runtime_error("no user named " + cl.userName);
    meta.setQuota(account->id, cl.quotaBytes);
    if (cl.quotaBytes)
        std::cout << "user " << cl.userName << " quota " << *cl.quotaBytes << " bytes" << std::endl;
    else
        std::cout << "user " << cl.userName << " has no quota" << std::endl;
    return 0;
}

int userList(const CommandLine& cl) {
    SqliteMetadataStore meta(std::filesystem::path(cl.dataDir) / "meta.sqlite", 1);
    for (const auto& a : meta.accounts())
        std::cout << a.name << (meta.hasRole(a.id, CloudService::kBuildRole) ? " build" : "") << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    CommandLine cl;
    try {
        cl = CommandLine::parse(std::vector<std::string>(argv + 1, argv + argc), std::getenv("HOME"));
    } catch (const UsageError& e) {
        std::cerr << "zarnu-cloud: " << e.what() << std::endl;
        return 2;
    }
    try {
        Secrets::initialize();
        switch (cl.command) {
        case CommandLine::Command::Help: std::cout << CommandLine::usage(); return 0;
        case CommandLine::Command::Serve: return serve(cl);
        case CommandLine::Command::UserAdd: return userAdd(cl);
        case CommandLine::Command::UserSet: return userSet(cl);
        case CommandLine::Command::UserList: return userList(cl);
        case CommandLine::Command::UserQuota: return userQuota(cl);
        }
    } catch (const std::exception& e) {
        std::cerr << "zarnu-cloud: " << e.what() << std::endl;
        return 1;
    }
    return 1;
}
