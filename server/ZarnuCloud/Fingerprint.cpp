#include "Fingerprint.h"

#include "Qel/Crypto/Md5Lanes.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace zarnu::cloud {

namespace {

void appendHex(std::string& out, const unsigned char* data, unsigned len) {
    static const char* digits = "0123456789abcdef";
    for (unsigned i = 0; i < len; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 0x0F];
    }
}

void appendDigest(std::string& out, const EVP_MD* md, std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &len, md, nullptr) != 1)
        throw std::runtime_error("digest computation failed");
    appendHex(out, digest, len);
}

}  // namespace

bool Fingerprint::isWellFormed(std::string_view fingerprint) {
    if (fingerprint.size() != kLength) return false;
    for (char c : fingerprint)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

std::string Fingerprint::of(std::string_view bytes) {
    std::string out;
    out.reserve(kLength);
    appendDigest(out, EVP_md5(), bytes);
    appendDigest(out, EVP_sha1(), bytes);
    return out;
}

std::vector<std::string> Fingerprint::ofMany(const std::vector<std::string_view>& parts) {
    std::vector<const unsigned char*> data;
    std::vector<std::size_t> sizes;
    for (std::string_view p : parts) {
        data.push_back(reinterpret_cast<const unsigned char*>(p.data()));
        sizes.push_back(p.size());
    }
    std::vector<Qel::Crypto::Md5Digest> md5(parts.size());
    Qel::Crypto::Md5Many(data.data(), sizes.data(), parts.size(), md5.data());
    std::vector<std::string> out;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        std::string fingerprint = Qel::Crypto::Md5Hex(md5[i]);
        appendDigest(fingerprint, EVP_sha1(), parts[i]);
        out.push_back(std::move(fingerprint));
    }
    return out;
}

bool Fingerprint::matches(std::string_view fingerprint, std::string_view bytes) {
    return isWellFormed(fingerprint) && of(bytes) == fingerprint;
}

}  // namespace zarnu::cloud
