// Qel::Crypto::YMd5: incremental MD5 (see YDigest); Finalize gives 32
// lower-case hex characters.
#pragma once

#include "Qel/Crypto/YDigest.h"

namespace Qel::Crypto {

class YMd5 : public YDigest {
 public:
  YMd5();
};

}  // namespace Qel::Crypto
