#include "PartBuffers.h"

#include <cstdlib>

namespace zarnu::cloud {

// Invariant: every block ever made is either in `free` or held by exactly one
// shared_ptr family handed out by take(); made <= count.
struct PartBuffers::Shared {
    struct Free {
        void operator()(unsigned char* p) const { std::free(p); }
    };
    std::mutex mutex;
    std::vector<std::unique_ptr<unsigned char, Free>> free;
    std::size_t made = 0;
    std::size_t count = 0;
};

PartBuffers::PartBuffers(std::size_t count, std::size_t blockSize)
    : shared_(std::make_shared<Shared>()), blockSize_((blockSize + kAlignment - 1) / kAlignment * kAlignment) {
    shared_->count = count;
}

std::shared_ptr<unsigned char> PartBuffers::take() {
    std::unique_ptr<unsigned char, Shared::Free> block;
    {
        std::lock_guard lock(shared_->mutex);
        if (!shared_->free.empty()) {
            block = std::move(shared_->free.back());
            shared_->free.pop_back();
        } else if (shared_->made < shared_->count) {
            void* fresh = nullptr;
            if (::posix_memalign(&fresh, kAlignment, blockSize_) != 0) return nullptr;
            block.reset(static_cast<unsigned char*>(fresh));
            shared_->made++;
        } else {
            return nullptr;
        }
    }
    // The deleter holds the pool's state, so a block given back after the pool is gone
    // is simply freed with it.
    return std::shared_ptr<unsigned char>(block.release(), [shared = shared_](unsigned char* p) {
        std::lock_guard lock(shared->mutex);
        shared->free.emplace_back(p);
    });
}

}  // namespace zarnu::cloud
