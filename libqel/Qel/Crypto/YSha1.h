// Qel::Crypto::YSha1: incremental SHA-1 (see YDigest); Finalize gives 40
// lower-case hex characters.
#pragma once

#include "Qel/Crypto/YDigest.h"

namespace Qel::Crypto {

class YSha1 : public YDigest {
 public:
  YSha1();
};

}  // namespace Qel::Crypto
