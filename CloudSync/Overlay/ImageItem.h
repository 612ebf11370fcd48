// OverlayClient::ImageItem: an image the agent sends with a menu item (an
// avatar or a preview), and its JSON form {"data": binary, "mime_type",
// "width", "height"}. Read raises code 56 (log type 198) for a missing key.
// Held by shared pointer. Thread-safety: a value.
#pragma once

#include <memory>

#include "Qel/JSON/YObject.h"
#include "Qel/Memory/YHeapPtr.h"
#include "Qel/YString.h"

namespace OverlayClient {

class ImageItem {
 public:
  virtual ~ImageItem() = default;
  virtual Qel::JSON::YObject Write() const;
  virtual void Read(const Qel::JSON::YObject& object);

  Qel::Memory::YHeapPtr<unsigned char> data{"Image data"};
  Qel::YString mimeType;
  uint64_t width = 0;
  uint64_t height = 0;
};

using ImageItemPtr = std::shared_ptr<ImageItem>;

}  // namespace OverlayClient
