#include "Qel/Crypto/YSha1.h"

namespace Qel::Crypto {

YSha1::YSha1() : YDigest("SHA1") {}

}  // namespace Qel::Crypto
