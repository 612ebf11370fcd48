#include "CloudSync/Codes.h"

#include <utility>

#include "Qel/Exception/YError.h"
#include "Qel/Log/YLog.h"

namespace CloudSync {

namespace {

// Rows in the agent's order, which is not sorted: 167 precedes 166, 168 stands
// near the end, and 161 appears twice (the registry keeps the first text).
// Every row's flag is -1 except the last real one (229), which is 0.
const _tagQEL_CCODE_MAP kErrorCodes[] = {
    {161, "Failed to parse cloud response", -1},
    {162, "The parts for the file could not be located", -1},
    {163, "General failure syncing from cloud", -1},
    {164, "Share no longer exists", -1},
    {165, "The path does not exist within a root path", -1},
    {167, "Sync event has not parts associated with file of non zero length", -1},
    {166, "No menu should be shown", -1},
    {169, "A part failed to be validated", -1},
    {170, "Account email already registered", -1},
    {171, "The account email has not been verified", -1},
    {172, "The share specified does not exist", -1},
    {173, "The share join request was denied", -1},
    {174, "The file specified does not exist", -1},
    {175, "The path specified is not a child of any share", -1},
    {176, "The share path no longere exists", -1},
    {177, "The user is not logged in", -1},
    {178, "The user is logged in", -1},
    {179, "Another application is logged in as this user on this machine", -1},
    {180, "The required option was not found in the config db", -1},
    {181, "The target path is a folder", -1},
    {161, "A general cloud error occurred", -1},
    {182, "No more peers can register with this client", -1},
    {183, "Peer cannot register as it is not validated", -1},
    {184, "File changed while processing it", -1},
    {185, "The path cannot be mapped by the path mapper", -1},
    {186, "The metadata size does not match the part size", -1},
    {187, "Validation of a restored file failed", -1},
    {188, "Cannot apply change, watermark behind cloud", -1},
    {189, "Path is filtered and cannot be accessed", -1},
    {190, "Path is a parent of another share", -1},
    {191, "Incorrect username or password", -1},
    {193, "Failed to establish shared memory linkage with agent", -1},
    {194, "The version of the overlay is too old and needs to be updated", -1},
    {195, "The overlay is not currently enabled", -1},
    {196, "The share cannot be created as it already exists", -1},
    {197, "The zarnu agent is already running and cannot be run twice", -1},
    {198, "The zarnu agent cannot run from a read-only volume", -1},
    {199, "There are no more links available", -1},
    {200, "This node has not changed", -1},
    {201, "You must truncate the database as it is too old", -1},
    {202, "Conflict detected", -1},
    {203, "File is in use by finder", -1},
    {204, "Cannot apply metadata to cloud watermark", -1},
    {205, "The email provided has not been registered with zarnu", -1},
    {206, "Parent object not found in filedb", -1},
    {207, "File object not found in filedb", -1},
    {208, "Can't rename the root object", -1},
    {209, "Invalid file name on db insertion", -1},
    {210, "Peer no longer available", -1},
    {211, "The peer has declined to accept the file transfer", -1},
    {212, "The peer json object info is invalid", -1},
    {213, "Could not load avatar", -1},
    {214, "Peer sync token could not be validated", -1},
    {215, "Zarnu has lost the root folder", -1},
    {216, "The pending item cannot be added as its parent cannot be found", -1},
    {217, "The pending item cannot be added as its parent is marked for removal", -1},
    {218, "The pending item cannot be added as an item by the same path already exists", -1},
    {219, "The pending item cannot be updated as it is not in the database", -1},
    {220, "The event cannot be executed because a dependent is pending", -1},
    {221, "The file system link cannot be created as it already exists", -1},
    {222, "The path has been modified", -1},
    {223, "The metadata is incompatible with this version of the agent", -1},
    {168, "Malformed response from cloud in binary parts api", -1},
    {224, "The list table has expired, start over", -1},
    {225, "Installation of a new version of Zarnu has failed", -1},
    {226, "The packet received does not conform to cloud packet format", -1},
    {227, "The cloud request is not supported by the agent", -1},
    {228, "Unrecognized command id", -1},
    {229, "The hunt timed out", 0},
    {0, nullptr, 0},
};

const char* const kLogTypeNames[] = {
    "CSM",       "CSMD",      "CSM_TREE",   "CSM_PEER",   "CSM_PEERD", "CSM_PEERPAK", "CSM_EXC",    "CSM_OVA",
    "CSM_OVAM",  "CSM_OVAD",  "CSM_PSCK",   "CSM_PERF",   "CSM_FLT",   "CSM_CLOUD",   "CSM_TRAY",   "CSM_APP",
    "CSM_VOLUME", "CSM_PATH", "CSM_WDOG",   "CSM_SESSION", "CSM_JSON", "CSM_CMOUNT",
};
constexpr unsigned int kFirstLogType = 200;

bool g_error_codes_registered = false;
bool g_log_types_registered = false;

}  // namespace

const _tagQEL_CCODE_MAP* GetErrorCodeTable() { return kErrorCodes; }

void RegisterErrorCodes() {
  if (g_error_codes_registered) return;
  qel_err_register(kErrorCodes);
  g_error_codes_registered = true;
}

void RegisterLogTypes() {
  if (g_log_types_registered) return;
  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  unsigned int number = kFirstLogType;
  for (const char* name : kLogTypeNames) log.RegisterLogType(std::make_pair(Qel::YString(name), number++));
  g_log_types_registered = true;
}

}  // namespace CloudSync
