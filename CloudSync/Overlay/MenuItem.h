// OverlayClient::MenuItem: one entry of the context menu the agent offers for
// a selection, with its JSON form: "title", "description", "description2",
// "flags", "command_id", "command_arg" {"type", "data": binary},
// "sub_menus" (array, in order) and the optional "avatar" and "preview"
// images. Read requires every key but the two images (code 56, log type
// 198). "flags" and the command ids are the agent's; the client passes them
// through. Held by shared pointer. Thread-safety: a value.
#pragma once

#include <memory>
#include <vector>

#include "CloudSync/Overlay/ImageItem.h"
#include "Qel/JSON/YObject.h"
#include "Qel/Types/YVariant.h"
#include "Qel/YString.h"

namespace OverlayClient {

class MenuItem;
using MenuItemPtr = std::shared_ptr<MenuItem>;

class MenuItem {
 public:
  virtual ~MenuItem() = default;
  virtual Qel::JSON::YObject Write() const;
  virtual void Read(const Qel::JSON::YObject& object);

  Qel::YString title;
  Qel::YString description;
  Qel::YString description2;
  uint64_t flags = 0;
  uint64_t commandId = 0;
  Qel::Types::YVariant commandArg;
  ImageItemPtr avatar;
  ImageItemPtr preview;
  std::vector<MenuItemPtr> subMenus;
};

}  // namespace OverlayClient
