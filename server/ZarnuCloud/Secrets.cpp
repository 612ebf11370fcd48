#include "Secrets.h"

#include <sodium.h>

#include <stdexcept>

namespace zarnu::cloud {

void Secrets::initialize() {
    if (sodium_init() < 0) throw std::runtime_error("libsodium could not be initialised");
}

std::string Secrets::hashPassword(std::string_view password) {
    char out[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str(out, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                          crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0)
        throw std::runtime_error("password hashing ran out of memory");
    return out;
}

bool Secrets::verifyPassword(std::string_view hash, std::string_view password) {
    std::string h(hash);  // needs a NUL-terminated string
    return crypto_pwhash_str_verify(h.c_str(), password.data(), password.size()) == 0;
}

void Secrets::burnPasswordCheck(std::string_view password) {
    static const std::string dummy = hashPassword("zarnu-cloud-unknown-user");
    (void)verifyPassword(dummy, password);
}

std::string Secrets::randomHex(std::size_t bytes) {
    std::string raw(bytes, '\0');
    randombytes_buf(raw.data(), raw.size());
    std::string hex(bytes * 2 + 1, '\0');
    sodium_bin2hex(hex.data(), hex.size(), reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
    hex.pop_back();
    sodium_memzero(raw.data(), raw.size());
    return hex;
}

std::string Secrets::sha256(std::string_view data) {
    std::string out(crypto_hash_sha256_BYTES, '\0');
    crypto_hash_sha256(reinterpret_cast<unsigned char*>(out.data()),
                       reinterpret_cast<const unsigned char*>(data.data()), data.size());
    return out;
}

bool Secrets::constantTimeEqual(std::string_view a, std::string_view b) {
    return a.size() == b.size() && sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace zarnu::cloud
