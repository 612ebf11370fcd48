#include "Qel/File/PageCache.h"

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace Qel::File {

bool PageCacheHoldsWhole(int fd, std::uint64_t offset, std::size_t size) {
  if (size == 0) return true;
  // A mapping that is never touched: mincore reports the cache without faulting pages in.
  void *map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset));
  if (map == MAP_FAILED) return false;
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> resident((size + page - 1) / page);
  const bool whole = ::mincore(map, size, resident.data()) == 0 &&
                     std::all_of(resident.begin(), resident.end(), [](unsigned char r) { return (r & 1) != 0; });
  ::munmap(map, size);
  return whole;
}

}  // namespace Qel::File
