#pragma once
// A SQLite file layer (VFS) that sends every change SQLite makes to its files through an
// Env: creating and opening, writes, truncations, syncs (and the folder sync after a
// journal or WAL file is created) and deletions. Reads, locks and the WAL's shared
// memory stay with SQLite's own unix layer, on the same files. Lets a test fail the
// database's writes and syncs, or forget what it never synced, like the part store's.
//
// Meant for Envs other than Env::posix(): the stores open SQLite on its own unix layer
// then. Closing a database file through this layer drops the process's POSIX locks on
// it (a second descriptor is closed), so it is not for databases that other processes
// use at the same time.

#include "Env.h"

#include <string>

namespace zarnu::cloud {

/// Registers (once per Env; thread-safe) the layer for `env` and returns the name to
/// pass to sqlite3_open_v2. `env` must outlive every connection opened with it.
std::string sqliteVfsFor(Env& env);

}  // namespace zarnu::cloud
