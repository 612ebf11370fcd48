// Qel::Types::YVariant: a typed blob, a type code and its bytes. The meaning
// of the type code belongs to whoever made the value; the runtime carries it.
// Move-only (the bytes are owned). Thread-safety: a value.
#pragma once

#include <cstdint>

#include "Qel/Memory/YHeapPtr.h"

namespace Qel::Types {

struct YVariant {
  uint32_t type = 0;
  Memory::YHeapPtr<unsigned char> data{"Variant"};
};

}  // namespace Qel::Types
