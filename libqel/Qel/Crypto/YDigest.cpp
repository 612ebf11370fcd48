#include "Qel/Crypto/YDigest.h"

#include <openssl/evp.h>

#include "Qel/Exception/YError.h"

namespace Qel::Crypto {

namespace {

constexpr const char* kFile = "libqel/Qel/Crypto/YDigest";

EVP_MD* Md(void* p) { return static_cast<EVP_MD*>(p); }
EVP_MD_CTX* Ctx(void* p) { return static_cast<EVP_MD_CTX*>(p); }

}  // namespace

YDigest::YDigest(const char* algorithm) {
  // Fetched once per object: the implicit fetch of EVP_md5() & co. would look
  // the algorithm up again on every restart.
  md_ = EVP_MD_fetch(nullptr, algorithm, nullptr);
  ctx_ = EVP_MD_CTX_new();
  if (md_ == nullptr || ctx_ == nullptr) {
    EVP_MD_CTX_free(Ctx(ctx_));
    EVP_MD_free(Md(md_));
    QEL_RAISE(43, 1, YString("cannot set up digest ") + algorithm, kFile, "YDigest");
  }
  Restart();
}

YDigest::~YDigest() {
  EVP_MD_CTX_free(Ctx(ctx_));
  EVP_MD_free(Md(md_));
}

void YDigest::Restart() {
  if (EVP_DigestInit_ex2(Ctx(ctx_), Md(md_), nullptr) != 1) {
    QEL_RAISE(43, 1, YString("cannot start digest ") + EVP_MD_get0_name(Md(md_)), kFile, "Restart");
  }
}

void YDigest::Update(const void* bytes, size_t count) {
  if (count == 0) return;
  if (EVP_DigestUpdate(Ctx(ctx_), bytes, count) != 1) {
    QEL_RAISE(43, 1, YString("digest update failed: ") + EVP_MD_get0_name(Md(md_)), kFile, "Update");
  }
}

size_t YDigest::GetDigestSize() const { return static_cast<size_t>(EVP_MD_get_size(Md(md_))); }

YString YDigest::Finalize() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(Ctx(ctx_), digest, &length) != 1) {
    QEL_RAISE(43, 1, YString("digest final failed: ") + EVP_MD_get0_name(Md(md_)), kFile, "Finalize");
  }
  Restart();
  static const char kHex[] = "0123456789abcdef";
  YString text(length * 2, '0');
  for (unsigned int i = 0; i < length; ++i) {
    text[2 * i] = kHex[digest[i] >> 4];
    text[2 * i + 1] = kHex[digest[i] & 0x0F];
  }
  return text;
}

}  // namespace Qel::Crypto
