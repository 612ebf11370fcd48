#pragma once
// A fixed set of page-aligned blocks, each large enough for one part, lent out to hold
// parts read past the page cache until their bytes are sent. The blocks are made once
// and reused, so reading a part never touches fresh memory; when all are lent out,
// take() says so and the caller reads through the page cache instead. Thread-safe; a
// lent block may outlive the pool (it is freed when the last holder lets go).

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace zarnu::cloud {

class PartBuffers {
public:
    static constexpr std::size_t kAlignment = 4096;

    /// `count` blocks of `blockSize` bytes (rounded up to whole pages), made on demand.
    PartBuffers(std::size_t count, std::size_t blockSize);

    std::size_t blockSize() const { return blockSize_; }

    /// A free block, given back when the last copy of the pointer goes; null when every
    /// block is lent out.
    std::shared_ptr<unsigned char> take();

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
    std::size_t blockSize_;
};

}  // namespace zarnu::cloud
