// Names, numbers and file names the agent uses in more than one place.
#pragma once

namespace Agent {

inline constexpr const char* kVersion = "1.34.0508";
inline constexpr const char* kAgentName = "ZarnuAgent";  // the User-Agent of its cloud requests

// Log message types (registered by CloudSync::RegisterLogTypes).
inline constexpr unsigned int kLogCsm = 200;
inline constexpr unsigned int kLogCsmDetail = 201;
inline constexpr unsigned int kLogTree = 202;
inline constexpr unsigned int kLogExc = 206;
inline constexpr unsigned int kLogOva = 207;
inline constexpr unsigned int kLogOvaMessages = 208;
inline constexpr unsigned int kLogApp = 215;
inline constexpr unsigned int kLogWatchdog = 218;
inline constexpr unsigned int kLogSession = 219;

// Error codes.
inline constexpr unsigned int kGeneralFailure = 1;
inline constexpr unsigned int kBadValue = 55;
inline constexpr unsigned int kFieldMissing = 56;
inline constexpr unsigned int kNotLoggedIn = 177;
inline constexpr unsigned int kAgentAlreadyRunning = 197;
inline constexpr unsigned int kUnknownMethod = 228;
inline constexpr unsigned int kTerminated = 65;
inline constexpr unsigned int kPartsMissing = 162;
inline constexpr unsigned int kBadAnswer = 161;  // the service answered something unreadable
inline constexpr unsigned int kNoAnswer = 163;
inline constexpr unsigned int kFileNotFound = 174;
inline constexpr unsigned int kFileChanged = 184;
inline constexpr unsigned int kConflict = 202;
inline constexpr unsigned int kLostRoot = 215;

// Files in the data folder.
inline constexpr const char* kConfigDbFile = "config.db";
inline constexpr const char* kSocketFile = "zarnuagent-overlay.socket";
inline constexpr const char* kLogFile = "agent.log";
inline constexpr const char* kLockFile = "agent.lock";
inline constexpr const char* kCrashFolder = "crashes";
inline constexpr const char* kDeviceIdFile = "device.id";

// The configuration option that keeps the enabled log types across restarts
// (comma-separated names).
inline constexpr const char* kLogTypesOption = "agentEnabledLogTypes";
// The types a fresh agent logs until a user changes them.
inline constexpr const char* kDefaultLogTypes = "CSM,CSM_EXC,CSM_APP,CSM_WDOG";

// Threads of the agent's IO service.
inline constexpr unsigned int kIoThreads = 4;

}  // namespace Agent
