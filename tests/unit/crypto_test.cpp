// Digests, part fingerprints and the throughput meter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Qel/Crypto/YBbsHash.h"
#include "Qel/Crypto/YMd5.h"
#include "Qel/Crypto/YSha1.h"
#include "Qel/Util/YThroughputTimer.h"

namespace {

using Qel::Crypto::YBbsHash;
using Qel::Crypto::YMd5;
using Qel::Crypto::YSha1;

TEST(CryptoTest, PartFingerprints) {
  // Two equal 1 MiB parts and a different third one, through one hash object
  // as an upload feeds them (in uneven pieces, across the internal slices),
  // with both digests on the caller's thread and with SHA-1 on the helper.
  std::vector<unsigned char> part(1 << 20);
  for (size_t i = 0; i < part.size(); ++i) part[i] = static_cast<unsigned char>((i * 131) ^ (i >> 9));
  std::vector<std::string> prints[2];
  for (bool parallel : {false, true}) {
    std::vector<unsigned char> bytes = part;
    YBbsHash hash(parallel);
    for (int n = 0; n < 3; ++n) {
      if (n == 2) bytes[777] ^= 1;
      hash.Update(bytes.data(), 1000);
      hash.Update(bytes.data() + 1000, bytes.size() - 1000);
      prints[parallel].push_back(hash.Finalize());
    }
  }
  EXPECT_EQ(prints[0], prints[1]);
  EXPECT_EQ(prints[0][0], prints[0][1]);
  EXPECT_NE(prints[0][1], prints[0][2]);
  ASSERT_EQ(prints[0][2].size(), YBbsHash::kFingerprintLength);

  part[777] ^= 1;
  YMd5 md5;
  YSha1 sha1;
  md5.Update(part.data(), part.size());
  sha1.Update(part.data(), part.size());
  EXPECT_EQ(prints[0][2], md5.Finalize() + sha1.Finalize());
  EXPECT_EQ(YBbsHash::Fingerprint("abc", 3),
            "900150983cd24fb0d6963f7d28e17f72a9993e364706816aba3e25717850c26c9cd0d89d");
}

std::chrono::steady_clock::time_point g_now;
std::chrono::steady_clock::time_point FakeNow() { return g_now; }

TEST(ThroughputTimerTest, AverageAndRecentWindow) {
  using namespace std::chrono;
  Qel::Util::YThroughputTimer meter("test", 100, 5);  // a window of 5 x 100 ms
  meter.SetClockForTest(&FakeNow);
  g_now = steady_clock::time_point(seconds(1000));
  meter.Start();
  g_now += seconds(1);
  meter.ReportData(10 << 20);  // 10 MiB after one second
  EXPECT_EQ(meter.GetThroughputSizeDisplayString(true), "10.00 MB/s");
  g_now += seconds(9);  // quiet for nine seconds
  meter.ReportData(1 << 20);
  // Average: 11 MiB over 10 s; recent: only the 1 MiB inside the last 500 ms (400 ms + this period).
  EXPECT_EQ(meter.GetThroughputSizeDisplayString(true), "1.10 MB/s");
  EXPECT_NEAR(meter.GetThroughput(false), (1 << 20) / 0.4, 1.0);
  EXPECT_EQ(meter.GetTotalBytes(), 11u << 20);
}

}  // namespace
