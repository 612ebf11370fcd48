// A real zarnu-cloud for unit tests that talk to the service.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace zarnu_test {

// One `zarnu-cloud serve --http` on 127.0.0.1 port 0 in a temporary folder,
// with the account "parts", stopped by process id.
class CloudService {
 public:
  CloudService() {
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zarnu-cloud";
    if (!std::filesystem::exists(program)) return;
    char folder[] = "/tmp/cloud_api_test.XXXXXX";
    if (::mkdtemp(folder) == nullptr) return;
    folder_ = folder;
    const std::string data = folder_ + "/data";

    const std::string add = "'" + program.string() + "' user add parts --data '" + data + "' >/dev/null 2>&1";
    FILE *in = ::popen(add.c_str(), "w");
    if (in == nullptr) return;
    std::fputs("part pass\n", in);
    if (::pclose(in) != 0) return;

    int out[2];
    if (::pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addopen(&actions, 2, (folder_ + "/serve.log").c_str(), O_WRONLY | O_CREAT, 0644);
    const std::string program_text = program.string();
    std::vector<std::string> words{program_text, "serve", "--data", data, "--listen", "127.0.0.1:0", "--http"};
    std::vector<char *> argv;
    for (std::string &w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, program_text.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    if (rc != 0) {
      pid_ = -1;
      ::close(out[0]);
      return;
    }
    // The service prints "listening on <url>" once it accepts connections.
    std::string line;
    pollfd p{out[0], POLLIN, 0};
    char c = 0;
    while (::poll(&p, 1, 30000) == 1 && ::read(out[0], &c, 1) == 1 && c != '\n') line += c;
    ::close(out[0]);
    const std::string prefix = "listening on ";
    if (line.rfind(prefix, 0) == 0) url_ = line.substr(prefix.size());
  }

  ~CloudService() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    if (!folder_.empty()) std::filesystem::remove_all(folder_);
  }

  CloudService(const CloudService &) = delete;
  CloudService &operator=(const CloudService &) = delete;

  const std::string &Url() const { return url_; }
  // How many request lines of the service's log hold `text`. The service
  // logs a request after its answer is sent, so the count is read again
  // (for up to five seconds) until it reaches `expected`; a count above it
  // shows at once.
  size_t CountLogLines(const std::string &text, size_t expected) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    for (;;) {
      std::ifstream log(folder_ + "/serve.log");
      size_t count = 0;
      for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
      if (count >= expected || std::chrono::steady_clock::now() > deadline) return count;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

 private:
  pid_t pid_ = -1;
  std::string folder_;
  std::string url_;
};

}  // namespace zarnu_test
