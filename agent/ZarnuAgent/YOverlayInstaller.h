// Agent::YOverlayInstaller: puts the file-manager overlay in place for the
// user running it, and takes it away again ("-installOverlay",
// "-removeOverlay").
//
// The overlay is a Python extension (desktop/filemanager/ in the sources)
// that GNOME Files, Nemo and Caja load through their Python bindings
// (python3-nautilus, python3-nemo, python3-caja). Install copies its files
// into the extension folder of every file manager whose binding is installed
// ($XDG_DATA_HOME/nautilus-python/extensions, .../nemo-python/extensions,
// .../caja-python/extensions) and its emblems into the user's icon theme
// ($XDG_DATA_HOME/icons/hicolor/scalable/emblems); $XDG_DATA_HOME defaults
// to ~/.local/share. Every file written and every folder made is listed in
// the install record ($XDG_DATA_HOME/zarnu/overlay-installed.txt), so that
// Remove takes away exactly those: files listed, then folders listed once
// they are empty (folders that were there before stay).
//
// Both are idempotent: an install over an install rewrites only files that
// differ, a removal without a record does nothing. Each returns the lines
// that say what it did.
//
// The overlay's files are found in the source folder, by default
// ../share/zarnu/filemanager from the folder of the running executable (the
// build tree and an installed tree alike). Bindings are found by their
// libraries (<dir>/[<multiarch>/]nautilus/extensions-*/libnautilus-python.so
// and the like) under the library folders: $ZARNU_EXTENSION_LIBDIRS
// (colon-separated) when set, else /usr/lib, /usr/lib64 and /usr/local/lib.
//
// Errors: no binding at all is ENOPKG naming the packages to install
// (nothing is written then); a missing overlay file is ENOENT naming it; any
// other file system failure is its error number naming the path.
//
// Thread-safety: none needed; one call at a time.
#pragma once

#include <vector>

#include "Qel/YString.h"

namespace Agent {

class YOverlayInstaller {
 public:
  struct FileManager {
    const char* name;             // what users call it
    const char* bindingLibrary;   // below a library folder, after "<multiarch>/" or not; may hold wild cards
    const char* extensionFolder;  // below $XDG_DATA_HOME
    const char* package;          // the Debian package of its Python binding
  };

  struct Locations {
    Qel::YString sourceFolder;                // the overlay's files
    Qel::YString dataHome;                    // $XDG_DATA_HOME or ~/.local/share
    std::vector<Qel::YString> libraryFolders; // where bindings are looked for
  };

  // The locations this process uses (see above).
  static Locations DefaultLocations();
  static const std::vector<FileManager>& GetFileManagers();

  explicit YOverlayInstaller(Locations locations);

  // The file managers whose Python binding is installed.
  std::vector<FileManager> FindInstalledBindings() const;

  std::vector<Qel::YString> Install();
  std::vector<Qel::YString> Remove();

 private:
  struct Record {
    std::vector<Qel::YString> files;
    std::vector<Qel::YString> folders;  // in the order they were made, parents first
  };

  Qel::YString RecordPath() const;
  Record ReadRecord() const;
  void WriteRecord(const Record& record) const;
  // Makes `folder` (below the data home) and its missing parents, noting
  // each one made below the data home.
  void MakeFolder(const Qel::YString& folder, Record& record) const;
  // Copies `source` to `target`; returns what it did ("Installed", "Updated", "Up to date:").
  Qel::YString CopyFile(const Qel::YString& source, const Qel::YString& target) const;

  Locations locations_;
};

}  // namespace Agent
