// Qel::IO::YCommand: one message of a session, a JSON object with binary
// attachments.
//
// A request carries "id" (set by the session), "method" and "params"; a reply
// carries the request's "id" and either "result" or "error" (an object with
// "code", "sub_code", "log_type", "info"). Either side of a session may send
// requests. The wire form is the frame of Qel/IO/YFrame.h.
//
// Thread-safety: none; a command belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include "Qel/Exception/YError.h"
#include "Qel/IO/IoLog.h"
#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"
#include "Qel/YString.h"

namespace Qel::IO {

class YCommand;
using YCommandPtr = std::shared_ptr<YCommand>;

class YCommand {
 public:
  YCommand() = default;
  explicit YCommand(JSON::YObject object) : object_(std::move(object)) {}

  static YCommandPtr CreateRequest(const YString& method);
  // A reply to `request` with an empty "result" object.
  static YCommandPtr CreateReply(const YCommand& request);
  // A reply to `request` that carries `error`.
  static YCommandPtr CreateErrorReply(const YCommand& request, const Exception::YError& error);

  bool IsRequest() const { return object_.Has("method"); }
  YString GetMethod() const;
  uint64_t GetId() const;
  void SetId(uint64_t id);

  // "params" (an empty object when absent). SetParam reads the current
  // params, adds the key and writes the object back.
  JSON::YObject GetParams() const;
  void SetParams(const JSON::YObject& params);
  void SetParam(const YString& name, const JSON::YValue& value);

  // "result": GetResult raises code 56 (log type 198) when a reply has none.
  JSON::YObject GetResult() const;
  void SetResult(const JSON::YObject& result);

  // The error a reply carries; false (and `error` untouched) when none.
  bool GetError(Exception::YError& error) const;
  bool HasError() const { return object_.Has("error"); }

  JSON::YObject& GetObject() { return object_; }
  const JSON::YObject& GetObject() const { return object_; }
  YString ToJsonText() const { return object_.Stringify(); }

 private:
  JSON::YObject object_;
};

}  // namespace Qel::IO
