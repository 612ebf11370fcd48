#include "SelfSignedCert.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/stat.h>

namespace zarnu::cloud {

namespace {

[[noreturn]] void fail(const std::string& step) {
    char buf[256] = {0};
    ERR_error_string_n(ERR_get_error(), buf, sizeof buf);
    throw std::runtime_error("cannot make the TLS certificate (" + step + "): " + buf);
}

struct PkeyFree {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};
struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};

void addExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext) fail(std::string("extension ") + OBJ_nid2sn(nid));
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

// Writes through a temporary file and renames, so a crash never leaves half a file.
template <typename Writer>
void writePem(const std::filesystem::path& file, mode_t mode, Writer&& write) {
    const std::filesystem::path temp = file.string() + ".tmp";
    {
        std::unique_ptr<FILE, FileClose> f(std::fopen(temp.c_str(), "wb"));
        if (!f) throw std::runtime_error("cannot write " + temp.string());
        ::chmod(temp.c_str(), mode);
        if (!write(f.get())) fail("writing " + file.string());
        if (std::fflush(f.get()) != 0) throw std::runtime_error("cannot write " + temp.string());
    }
    std::error_code ec;
    std::filesystem::rename(temp, file, ec);
    if (ec) throw std::runtime_error("cannot write " + file.string() + ": " + ec.message());
}

}  // namespace

void SelfSignedCert::ensure(const std::filesystem::path& certFile, const std::filesystem::path& keyFile) {
    if (std::filesystem::exists(certFile) && std::filesystem::exists(keyFile)) return;

    std::unique_ptr<EVP_PKEY, PkeyFree> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!key) fail("key generation");
    std::unique_ptr<X509, X509Free> cert(X509_new());
    if (!cert) fail("X509_new");
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) fail("serial number");
    serial[0] &= 0x7F;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * 3650);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Zarnu cloud"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    addExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
    addExtension(cert.get(), NID_ext_key_usage, "serverAuth");
    addExtension(cert.get(), NID_subject_key_identifier, "hash");
    addExtension(cert.get(), NID_authority_key_identifier, "keyid:always");
    addExtension(cert.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
    if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) fail("signing");

    writePem(keyFile, 0600, [&](FILE* f) {
        return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
    });
    writePem(certFile, 0644, [&](FILE* f) { return PEM_write_X509(f, cert.get()) == 1; });
}

}  // namespace zarnu::cloud
