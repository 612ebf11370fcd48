#include "OperatorCredential.h"

#include "Secrets.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace zarnu::cloud {

namespace {

constexpr std::size_t kTokenBytes = 32;

bool isToken(std::string_view s) {
    if (s.size() != kTokenBytes * 2) return false;
    for (char c : s)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

// Writes the new file exclusively, so that two services starting at once cannot both
// make one; the loser reads the winner's.
void create(const std::filesystem::path& file) {
    const std::string token = Secrets::randomHex(kTokenBytes) + "\n";
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (errno == EEXIST) return;
        throw std::runtime_error("cannot create " + file.string() + ": " + std::strerror(errno));
    }
    const bool ok = ::write(fd, token.data(), token.size()) == static_cast<ssize_t>(token.size()) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!ok) {
        ::unlink(file.c_str());
        throw std::runtime_error("cannot write " + file.string() + ": " + std::strerror(savedErrno));
    }
}

}  // namespace

OperatorCredential OperatorCredential::loadOrCreate(const std::filesystem::path& file) {
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) create(file);
    std::ifstream in(file);
    std::string token;
    if (!in || !std::getline(in, token)) throw std::runtime_error("cannot read the operator token " + file.string());
    if (!token.empty() && token.back() == '\r') token.pop_back();
    if (!isToken(token))
        throw std::runtime_error("the operator token file " + file.string() +
                                 " must hold 64 lower-case hex characters on its first line");
    return OperatorCredential(Secrets::sha256(token));
}

bool OperatorCredential::matches(std::string_view token) const {
    return Secrets::constantTimeEqual(Secrets::sha256(token), digest_);
}

}  // namespace zarnu::cloud
