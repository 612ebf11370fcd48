// Log message types and error codes of the overlay client.
#pragma once

namespace OverlayClient {

inline constexpr unsigned int kLogShell = 15;    // the client's own set-up errors
inline constexpr unsigned int kLogModel = 198;   // reading menu items and images
inline constexpr unsigned int kLogExc = 206;     // "CSM_EXC": failed submissions
inline constexpr unsigned int kLogOva = 207;     // "CSM_OVA": connection and requests

inline constexpr unsigned int kGeneralFailure = 1;
inline constexpr unsigned int kNoAgent = 55;     // ConnectToAgent found no agent
inline constexpr unsigned int kNoSession = 88;   // a request found no session

// The port remote agents listen on.
inline constexpr const char* kRemotePort = "8446";
inline constexpr const char* kClientVersion = "1.34.0508";

}  // namespace OverlayClient
