// The agent family's log message types (200..221) and error codes (161..229),
// and the two routines that install them into the runtime.
#pragma once

struct _tagQEL_CCODE_MAP;

namespace CloudSync {

// Installs the error-code table with qel_err_register. Runs once per process;
// later calls return at once.
void RegisterErrorCodes();

// Registers the 22 log message types on the global logger. Runs once per
// process; if registration throws, a later call repeats it.
void RegisterLogTypes();

// The error-code table: 69 rows and the all-zero terminator.
const _tagQEL_CCODE_MAP* GetErrorCodeTable();

}  // namespace CloudSync
