// Qel::IO frames: the wire form of a YCommand (docs/overlay-protocol.md).
//
//   offset  size  field
//   0       4     magic "ZOV1"
//   4       4     body length B: the bytes after this field (JSON length,
//                 JSON, attachments), unsigned big-endian, B <= kMaxFrameBody
//   8       4     JSON length J, unsigned big-endian (J <= B - 4)
//   12      J     the command's JSON text (UTF-8, one object)
//   12+J    ...   attachments until the body ends, each a 4-byte big-endian
//                 length L and L bytes; the n-th is what "BinaryIndex-<n>"
//                 names anywhere in the JSON
//
// EncodeFrame gathers the attachments of every object in the command (nested
// objects included) into one list and renumbers their "BinaryIndex-<n>"
// texts; DecodeFrame gives every object of the decoded tree that list, so
// Get<Bytes> works at any depth. Thread-safety: the functions keep no state;
// a YFrameDecoder belongs to one reader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Qel/IO/YCommand.h"

namespace Qel::IO {

inline constexpr char kFrameMagic[4] = {'Z', 'O', 'V', '1'};
inline constexpr size_t kFrameHeaderSize = 12;
// The largest body a peer may send: 16 MiB.
inline constexpr uint32_t kMaxFrameBody = 16u * 1024 * 1024;
// Error code of a malformed or oversized frame.
inline constexpr unsigned int kBadFrame = 55;

// The frame of `command`. Raises kBadFrame when the body would exceed
// `maxBody`.
std::string EncodeFrame(const YCommand& command, uint32_t maxBody = kMaxFrameBody);

// Incremental decoder: Feed bytes as they arrive, then call Next until it
// returns nothing. Next raises kBadFrame (log type kLogIo) naming what is wrong
// (bad magic, a body above the limit, a JSON length past the body, an
// attachment past the body, JSON that is not an object); after a raise the
// decoder is unusable and the session must close.
class YFrameDecoder {
 public:
  explicit YFrameDecoder(uint32_t maxBody = kMaxFrameBody) : max_body_(maxBody) {}
  void Feed(const char* data, size_t size) { buffer_.append(data, size); }
  std::optional<YCommand> Next();
  // Bytes received but not yet decoded.
  size_t GetBuffered() const { return buffer_.size() - consumed_; }

 private:
  uint32_t max_body_;
  std::string buffer_;
  size_t consumed_ = 0;
};

// Decodes exactly one whole frame (for tests and tools). Raises kBadFrame
// when `frame` is not exactly one valid frame.
YCommand DecodeFrame(std::string_view frame, uint32_t maxBody = kMaxFrameBody);

}  // namespace Qel::IO
