#pragma once
// What the page cache holds of a file. Plain C++ and POSIX with no other
// dependency, so that the cloud service can link it without libQel.
//
// Thread-safety: the function keeps no state.

#include <cstddef>
#include <cstdint>

namespace Qel::File {

// Whether the page cache holds every page of bytes [offset, offset + size) of
// the open file `fd`. Asking brings no page in. False when the kernel does not
// say (a file that cannot be mapped, or one the caller may not write on some
// kernels), so a caller errs towards "not held".
// REQUIRES: `offset` is a multiple of the page size; the range lies inside the file.
bool PageCacheHoldsWhole(int fd, std::uint64_t offset, std::size_t size);

}  // namespace Qel::File
