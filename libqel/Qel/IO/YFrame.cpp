// Frame encoding and decoding. Invariants of YFrameDecoder: buffer_[0,
// consumed_) has been decoded; a frame is taken only when its whole body is
// buffered; the header is checked (magic, limit) as soon as its 12 bytes are
// in, so an oversized frame is refused before its body is read.
#include "Qel/IO/YFrame.h"

#include <cstring>

#include "Qel/Exception/YError.h"
#include "Qel/JSON/YValue.h"

namespace Qel::IO {

namespace {

constexpr const char* kFile = "libqel/Qel/IO/YFrame";
constexpr std::string_view kBinaryPrefix = "BinaryIndex-";

[[noreturn]] void BadFrame(const YString& what, const char* function) {
  QEL_RAISE(kLogIo, kBadFrame, "overlay frame: " + what, kFile, function);
}

void PutU32(std::string& out, uint32_t v) {
  const char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                     static_cast<char>(v)};
  out.append(b, 4);
}

uint32_t GetU32(const char* p) {
  const auto* u = reinterpret_cast<const unsigned char*>(p);
  return (uint32_t(u[0]) << 24) | (uint32_t(u[1]) << 16) | (uint32_t(u[2]) << 8) | uint32_t(u[3]);
}

// Index n of a "BinaryIndex-<n>" text that names an attachment of a list of
// `count`, or -1.
long long AttachmentIndex(const JSON::YValue& v, size_t count) {
  if (!v.IsString()) return -1;
  const YString text = v.AsString();
  if (!text.StartsWith(kBinaryPrefix) || text.size() == kBinaryPrefix.size() || text.size() > 32) return -1;
  unsigned long long n = 0;
  for (size_t i = kBinaryPrefix.size(); i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    n = n * 10 + static_cast<unsigned>(text[i] - '0');
  }
  return n < count ? static_cast<long long>(n) : -1;
}

bool HasAttachments(const JSON::YValue& v) {
  if (v.IsObject()) {
    const JSON::YObject& o = v.AsObject();
    if (o.GetAttachments() && !o.GetAttachments()->empty()) return true;
    for (const auto& [name, member] : o.GetMembers()) {
      if (member && HasAttachments(*member)) return true;
    }
  } else if (v.IsArray()) {
    for (const auto& item : v.AsArray()) {
      if (item && HasAttachments(*item)) return true;
    }
  }
  return false;
}

// A copy of `v` whose binary references are renumbered into `out`. Objects
// own their attachment lists, so a reference is resolved against the list of
// the object that holds it.
JSON::YValue Renumber(const JSON::YValue& v, std::vector<const JSON::YObject::Bytes*>& out) {
  if (v.IsArray()) {
    JSON::YArray copy;
    copy.reserve(v.AsArray().size());
    for (const auto& item : v.AsArray()) {
      copy.push_back(std::make_shared<JSON::YValue>(item ? Renumber(*item, out) : JSON::YValue()));
    }
    return JSON::YValue(std::move(copy));
  }
  if (!v.IsObject()) return v;
  const JSON::YObject& o = v.AsObject();
  const auto& list = o.GetAttachments();
  const size_t count = list ? list->size() : 0;
  JSON::YObject copy;
  for (const auto& [name, member] : o.GetMembers()) {
    if (!member) {
      copy.Set(name, JSON::YValue());
      continue;
    }
    const long long index = AttachmentIndex(*member, count);
    if (index >= 0) {
      copy.Set(name, JSON::YValue(YString(std::string(kBinaryPrefix) + std::to_string(out.size()))));
      out.push_back(&(*list)[static_cast<size_t>(index)].second);
    } else {
      copy.Set(name, Renumber(*member, out));
    }
  }
  return JSON::YValue(std::move(copy));
}

// Gives every object of the tree the frame's attachment list.
void ShareAttachments(JSON::YValue& v, const std::shared_ptr<JSON::YObject::AttachmentList>& list) {
  if (v.IsObject()) {
    JSON::YObject& o = v.AsObject();
    o.SetAttachments(list);
    for (auto& [name, member] : o.GetMembers()) {
      if (member) ShareAttachments(*member, list);
    }
  } else if (v.IsArray()) {
    for (auto& item : v.AsArray()) {
      if (item) ShareAttachments(*item, list);
    }
  }
}

YCommand DecodeBody(const char* body, uint32_t bodySize, const char* function) {
  if (bodySize < 4) BadFrame("body of " + std::to_string(bodySize) + " bytes is shorter than its JSON length", function);
  const uint32_t jsonSize = GetU32(body);
  if (jsonSize > bodySize - 4) {
    BadFrame("JSON length " + std::to_string(jsonSize) + " runs past the body of " + std::to_string(bodySize) +
                 " bytes",
             function);
  }
  auto list = std::make_shared<JSON::YObject::AttachmentList>();
  size_t at = 4 + size_t(jsonSize);
  while (at < bodySize) {
    if (bodySize - at < 4) BadFrame("attachment length cut off at byte " + std::to_string(at), function);
    const uint32_t n = GetU32(body + at);
    at += 4;
    if (n > bodySize - at) {
      BadFrame("attachment " + std::to_string(list->size()) + " of " + std::to_string(n) +
                   " bytes runs past the body",
               function);
    }
    list->emplace_back(YString(), JSON::YObject::Bytes("Attachment", reinterpret_cast<const unsigned char*>(body + at), n));
    at += n;
  }
  JSON::YValuePtr value;
  try {
    value = JSON::Parse(YString(body + 4, jsonSize));
  } catch (const Exception::YError& e) {
    BadFrame("JSON text unreadable: " + e.GetInfo(), function);
  }
  if (!value || !value->IsObject()) BadFrame("JSON text is not an object", function);
  ShareAttachments(*value, list);
  return YCommand(std::move(value->AsObject()));
}

}  // namespace

std::string EncodeFrame(const YCommand& command, uint32_t maxBody) {
  std::vector<const JSON::YObject::Bytes*> attachments;
  YString json;
  const JSON::YValue whole(command.GetObject());
  if (HasAttachments(whole)) {
    json = Renumber(whole, attachments).Stringify();
  } else {
    json = command.GetObject().Stringify();
  }
  uint64_t body = 4 + uint64_t(json.size());
  for (const auto* a : attachments) body += 4 + uint64_t(a->GetSize());
  if (body > maxBody) {
    BadFrame("command of " + std::to_string(body) + " bytes is above the limit of " + std::to_string(maxBody),
             "EncodeFrame");
  }
  std::string out;
  out.reserve(kFrameHeaderSize - 4 + body);
  out.append(kFrameMagic, sizeof kFrameMagic);
  PutU32(out, static_cast<uint32_t>(body));
  PutU32(out, static_cast<uint32_t>(json.size()));
  out.append(json);
  for (const auto* a : attachments) {
    PutU32(out, static_cast<uint32_t>(a->GetSize()));
    if (a->GetSize()) out.append(reinterpret_cast<const char*>(a->Get()), a->GetSize());
  }
  return out;
}

std::optional<YCommand> YFrameDecoder::Next() {
  const size_t available = buffer_.size() - consumed_;
  if (available < 8) return std::nullopt;
  const char* p = buffer_.data() + consumed_;
  if (std::memcmp(p, kFrameMagic, sizeof kFrameMagic) != 0) BadFrame("bad magic (not an overlay frame)", "Next");
  const uint32_t body = GetU32(p + 4);
  if (body > max_body_) {
    BadFrame("body of " + std::to_string(body) + " bytes is above the limit of " + std::to_string(max_body_), "Next");
  }
  if (available - 8 < body) return std::nullopt;
  YCommand command = DecodeBody(p + 8, body, "Next");
  consumed_ += 8 + size_t(body);
  // Drop decoded bytes once they dominate the buffer, so it never grows
  // beyond about two frames.
  if (consumed_ > 65536 && consumed_ * 2 > buffer_.size()) {
    buffer_.erase(0, consumed_);
    consumed_ = 0;
  }
  return command;
}

YCommand DecodeFrame(std::string_view frame, uint32_t maxBody) {
  YFrameDecoder decoder(maxBody);
  decoder.Feed(frame.data(), frame.size());
  std::optional<YCommand> command = decoder.Next();
  if (!command) BadFrame("frame of " + std::to_string(frame.size()) + " bytes is incomplete", "DecodeFrame");
  if (decoder.GetBuffered() != 0) BadFrame(std::to_string(decoder.GetBuffered()) + " bytes after the frame", "DecodeFrame");
  return std::move(*command);
}

}  // namespace Qel::IO
