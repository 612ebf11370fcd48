// Commands: requests carry "id", "method" and "params"; replies carry "id"
// and "result" or "error" {"code", "sub_code", "log_type", "info"}.
#include "Qel/IO/YCommand.h"

#include <atomic>

namespace Qel::IO {

namespace {

constexpr const char* kFile = "libqel/Qel/IO/YCommand";
// Log type under which missing reply fields are reported.
constexpr unsigned int kLogReply = 198;

}  // namespace

YCommandPtr YCommand::CreateRequest(const YString& method) {
  auto command = std::make_shared<YCommand>();
  command->object_.Set("method", JSON::YValue(method));
  return command;
}

YCommandPtr YCommand::CreateReply(const YCommand& request) {
  auto reply = std::make_shared<YCommand>();
  reply->SetId(request.GetId());
  reply->SetResult(JSON::YObject());
  return reply;
}

YCommandPtr YCommand::CreateErrorReply(const YCommand& request, const Exception::YError& error) {
  auto reply = std::make_shared<YCommand>();
  reply->SetId(request.GetId());
  JSON::YObject e;
  e.Set("code", JSON::YValue(error.GetCcode()));
  e.Set("sub_code", JSON::YValue(error.GetSubCode()));
  e.Set("log_type", JSON::YValue(error.GetLogType()));
  e.Set("info", JSON::YValue(error.GetInfo()));
  e.Set("function", JSON::YValue(error.GetFunction()));
  reply->object_.Set("error", JSON::YValue(std::move(e)));
  return reply;
}

YString YCommand::GetMethod() const {
  if (!object_.Has("method")) return YString();
  return object_.Get<YString>("method", kLogIo);
}

uint64_t YCommand::GetId() const {
  auto it = object_.GetMembers().find("id");
  if (it == object_.GetMembers().end() || !it->second) return 0;
  return it->second->AsNumber();
}

void YCommand::SetId(uint64_t id) { object_.Set("id", JSON::YValue(static_cast<unsigned long long>(id))); }

JSON::YObject YCommand::GetParams() const {
  auto it = object_.GetMembers().find("params");
  if (it == object_.GetMembers().end() || !it->second || !it->second->IsObject()) {
    JSON::YObject empty;
    empty.SetAttachments(object_.GetAttachments());
    return empty;
  }
  return it->second->AsObject();
}

void YCommand::SetParams(const JSON::YObject& params) { object_.Set("params", JSON::YValue(params)); }

void YCommand::SetParam(const YString& name, const JSON::YValue& value) {
  JSON::YObject params = GetParams();
  params.Set(name, value);
  SetParams(params);
}

JSON::YObject YCommand::GetResult() const { return object_.Get<JSON::YObject>("result", kLogReply); }

void YCommand::SetResult(const JSON::YObject& result) { object_.Set("result", JSON::YValue(result)); }

bool YCommand::GetError(Exception::YError& error) const {
  auto it = object_.GetMembers().find("error");
  if (it == object_.GetMembers().end() || !it->second) return false;
  const JSON::YValue& v = *it->second;
  if (!v.IsObject()) {
    error = Exception::YError(kLogIo, 1, 0, __LINE__, kFile, "GetError");
    error.SetInfo(v.AsString());
    return true;
  }
  const JSON::YObject& e = v.AsObject();
  const auto number = [&e](const char* name, unsigned long long fallback) {
    auto m = e.GetMembers().find(name);
    return (m == e.GetMembers().end() || !m->second) ? fallback : m->second->AsNumber();
  };
  const auto text = [&e](const char* name) {
    auto m = e.GetMembers().find(name);
    return (m == e.GetMembers().end() || !m->second) ? YString() : m->second->AsString();
  };
  unsigned int code = static_cast<unsigned int>(number("code", 1));
  if (code == 0) code = 1;  // an error reply always fails
  const YString function = text("function");
  error = Exception::YError(static_cast<unsigned int>(number("log_type", kLogIo)), code,
                            static_cast<unsigned int>(number("sub_code", 0)), __LINE__, kFile,
                            function.empty() ? "GetError" : function.c_str());
  error.SetInfo(text("info"));
  return true;
}

}  // namespace Qel::IO
