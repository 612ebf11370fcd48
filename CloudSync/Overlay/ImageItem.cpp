#include "CloudSync/Overlay/ImageItem.h"

#include "CloudSync/Overlay/OverlayLog.h"
#include "Qel/JSON/YValue.h"

namespace OverlayClient {

Qel::JSON::YObject ImageItem::Write() const {
  Qel::JSON::YObject object;
  object.SetBinary("data", data);
  object.Set("mime_type", Qel::JSON::YValue(mimeType));
  object.Set("width", Qel::JSON::YValue(static_cast<unsigned long long>(width)));
  object.Set("height", Qel::JSON::YValue(static_cast<unsigned long long>(height)));
  return object;
}

void ImageItem::Read(const Qel::JSON::YObject& object) {
  data = object.Get<Qel::Memory::YHeapPtr<unsigned char>>("data", kLogModel);
  mimeType = object.Get<Qel::YString>("mime_type", kLogModel);
  width = object.Get<unsigned long long>("width", kLogModel);
  height = object.Get<unsigned long long>("height", kLogModel);
}

}  // namespace OverlayClient
