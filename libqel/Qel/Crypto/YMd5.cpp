#include "Qel/Crypto/YMd5.h"

namespace Qel::Crypto {

YMd5::YMd5() : YDigest("MD5") {}

}  // namespace Qel::Crypto
