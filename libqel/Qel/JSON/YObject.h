// Qel::JSON::YObject: a JSON object with typed field reads and binary fields.
//
// Members are an ordered map from field name to a shared value; names compare
// byte by byte. Binary fields never enter the JSON text: SetBinary stores the
// text "BinaryIndex-<n>" under the name and appends (name, bytes) to the
// object's attachment list. Copying an object copies the member map and
// SHARES the attachment list with the source.
//
// Get<T>(name, logType) reads one field or raises Qel::Exception::YError; the
// log type is carried as the error's log type and decides whether the failure
// is also logged (types below 500 when enabled). Every accessor treats a
// missing field as an error (code 56, "Required field missing <name>").
//
// Thread-safety: none. Reading a binary field moves the bytes out of the
// shared attachment list, so duplicates of one object must not read binary
// fields concurrently.
#pragma once

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Qel/Memory/YHeapPtr.h"
#include "Qel/YString.h"

namespace Qel::JSON {

class YValue;
using YValuePtr = std::shared_ptr<YValue>;
using YArray = std::vector<YValuePtr>;

class YObject {
 public:
  using Members = std::map<YString, YValuePtr>;
  using Bytes = Memory::YHeapPtr<unsigned char>;
  using AttachmentList = std::vector<std::pair<YString, Bytes>>;

  YObject();

  // Typed reads; see the table in the file comment of YObject.cpp.
  template <class T>
  T Get(const YString& name, unsigned int logType) const;

  bool Has(const YString& name) const { return members_.count(name) != 0; }
  const Members& GetMembers() const { return members_; }
  Members& GetMembers() { return members_; }
  size_t Size() const { return members_.size(); }

  // Stores `value` under `name`, replacing an earlier value.
  YObject& Set(const YString& name, YValuePtr value);
  YObject& Set(const YString& name, const YValue& value);
  // Stores a binary field: "BinaryIndex-<n>" as the value and a duplicate of
  // `bytes` in the attachment list; the caller keeps its buffer.
  YObject& SetBinary(const YString& name, const Bytes& bytes);

  const std::shared_ptr<AttachmentList>& GetAttachments() const { return attachments_; }
  void SetAttachments(std::shared_ptr<AttachmentList> list) { attachments_ = std::move(list); }

  YString Stringify(bool pretty = false) const;

  static Bytes Base64Decode(const YString& text);
  static YString Base64Encode(const unsigned char* data, size_t size);

 private:
  Members members_;
  std::shared_ptr<AttachmentList> attachments_;
};

template <> YString YObject::Get<YString>(const YString&, unsigned int) const;
template <> bool YObject::Get<bool>(const YString&, unsigned int) const;
template <> unsigned long long YObject::Get<unsigned long long>(const YString&, unsigned int) const;
template <> YObject YObject::Get<YObject>(const YString&, unsigned int) const;
template <> YArray YObject::Get<YArray>(const YString&, unsigned int) const;
template <> YObject::Bytes YObject::Get<YObject::Bytes>(const YString&, unsigned int) const;

}  // namespace Qel::JSON
