// The agent's menu icons: 16x16 RGBA PNG files from this folder, embedded at
// build time (embed.cmake; scripts/make-icons.py draws them).
#pragma once

#include <cstddef>

namespace Agent::Icons {

inline constexpr unsigned kIconSide = 16;  // width and height in pixels
extern const unsigned char kCopyLink[];
extern const std::size_t kCopyLinkSize;
extern const unsigned char kShowInCloud[];
extern const std::size_t kShowInCloudSize;

}  // namespace Agent::Icons
