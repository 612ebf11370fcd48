#include "CloudSync/Overlay/MenuItem.h"

#include "CloudSync/Overlay/OverlayLog.h"
#include "Qel/JSON/YValue.h"

namespace OverlayClient {

Qel::JSON::YObject MenuItem::Write() const {
  Qel::JSON::YObject object;
  object.Set("title", Qel::JSON::YValue(title));
  object.Set("description", Qel::JSON::YValue(description));
  object.Set("description2", Qel::JSON::YValue(description2));
  object.Set("flags", Qel::JSON::YValue(static_cast<unsigned long long>(flags)));
  Qel::JSON::YObject arg;
  arg.Set("type", Qel::JSON::YValue(commandArg.type));
  arg.SetBinary("data", commandArg.data);
  object.Set("command_arg", Qel::JSON::YValue(std::move(arg)));
  object.Set("command_id", Qel::JSON::YValue(static_cast<unsigned long long>(commandId)));
  Qel::JSON::YArray subs;
  for (const MenuItemPtr& sub : subMenus) subs.push_back(std::make_shared<Qel::JSON::YValue>(sub->Write()));
  object.Set("sub_menus", Qel::JSON::YValue(std::move(subs)));
  if (avatar) object.Set("avatar", Qel::JSON::YValue(avatar->Write()));
  if (preview) object.Set("preview", Qel::JSON::YValue(preview->Write()));
  return object;
}

void MenuItem::Read(const Qel::JSON::YObject& object) {
  title = object.Get<Qel::YString>("title", kLogModel);
  description = object.Get<Qel::YString>("description", kLogModel);
  description2 = object.Get<Qel::YString>("description2", kLogModel);
  flags = object.Get<unsigned long long>("flags", kLogModel);
  commandId = object.Get<unsigned long long>("command_id", kLogModel);
  const Qel::JSON::YObject arg = object.Get<Qel::JSON::YObject>("command_arg", kLogModel);
  commandArg.data = arg.Get<Qel::Memory::YHeapPtr<unsigned char>>("data", kLogModel);
  commandArg.type = static_cast<uint32_t>(arg.Get<unsigned long long>("type", kLogModel));
  for (const char* key : {"avatar", "preview"}) {
    if (!object.Has(key)) continue;
    auto image = std::make_shared<ImageItem>();
    image->Read(object.Get<Qel::JSON::YObject>(key, kLogModel));
    (std::string_view(key) == "avatar" ? avatar : preview) = image;
  }
  subMenus.clear();
  for (const Qel::JSON::YValuePtr& v : object.Get<Qel::JSON::YArray>("sub_menus", kLogModel)) {
    auto sub = std::make_shared<MenuItem>();
    sub->Read(v ? v->AsObject() : Qel::JSON::YObject());
    subMenus.push_back(sub);
  }
}

}  // namespace OverlayClient
