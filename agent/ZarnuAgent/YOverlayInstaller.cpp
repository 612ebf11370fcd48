#include "YOverlayInstaller.h"

#include <glob.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "AgentConstants.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Util/Util.h"

namespace Agent {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFile = "agent/ZarnuAgent/YOverlayInstaller";

// The overlay's files in the source folder: the extension (its glue and the
// agent's client beside it) and the emblems its badges show.
constexpr const char* kExtensionFiles[] = {"zarnu_overlay.py", "zarnu_overlay_extension.py"};
constexpr const char* kEmblemFolder = "emblems";
constexpr const char* kEmblemFiles[] = {"emblem-zarnu-synced.svg", "emblem-zarnu-syncing.svg",
                                        "emblem-zarnu-error.svg"};

// Below $XDG_DATA_HOME.
constexpr const char* kIconFolder = "icons/hicolor/scalable/emblems";
constexpr const char* kRecordFile = "zarnu/overlay-installed.txt";

// From the folder of the executable (bin/) to the overlay's files.
constexpr const char* kSourceFromExecutable = "../share/zarnu/filemanager";
constexpr const char* kLibraryFoldersVariable = "ZARNU_EXTENSION_LIBDIRS";
constexpr const char* kDefaultLibraryFolders[] = {"/usr/lib", "/usr/lib64", "/usr/local/lib"};

// Words of the install record.
constexpr const char* kRecordFileWord = "file";
constexpr const char* kRecordFolderWord = "folder";
constexpr unsigned int kFileMode = 0644;

[[noreturn]] void RaiseFileError(const std::error_code& error, const Qel::YString& path, const char* function) {
  QEL_RAISE_OS(kLogApp, error.value(), path, kFile, function);
}

bool Matches(const Qel::YString& pattern) {
  glob_t found{};
  const bool any = ::glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0 && found.gl_pathc > 0;
  ::globfree(&found);
  return any;
}

std::string ReadWhole(const Qel::YString& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) QEL_RAISE_OS(kLogApp, errno ? errno : ENOENT, path, kFile, "ReadWhole");
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

template <typename T>
void AddOnce(std::vector<T>& list, const T& value) {
  if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
}

}  // namespace

const std::vector<YOverlayInstaller::FileManager>& YOverlayInstaller::GetFileManagers() {
  static const std::vector<FileManager> kFileManagers = {
      {"GNOME Files", "nautilus/extensions-*/libnautilus-python.so", "nautilus-python/extensions", "python3-nautilus"},
      {"Nemo", "nemo/extensions-*/libnemo-python.so", "nemo-python/extensions", "python3-nemo"},
      {"Caja", "caja/extensions-*/libcaja-python.so", "caja-python/extensions", "python3-caja"},
  };
  return kFileManagers;
}

YOverlayInstaller::Locations YOverlayInstaller::DefaultLocations() {
  Locations where;
  where.sourceFolder =
      (fs::path(std::string(Qel::File::GetPathMap(Qel::File::kMapExecutable))) / kSourceFromExecutable)
          .lexically_normal()
          .string();
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome && dataHome[0] == '/') {
    where.dataHome = dataHome;
  } else {
    const char* home = std::getenv("HOME");
    where.dataHome = Qel::File::AppendPaths(home && home[0] ? home : "/", ".local/share");
  }
  const char* folders = std::getenv(kLibraryFoldersVariable);
  if (folders) {
    for (const Qel::YString& folder : Qel::Util::SplitString(folders, ':')) {
      if (!folder.empty()) where.libraryFolders.push_back(folder);
    }
  } else {
    for (const char* folder : kDefaultLibraryFolders) where.libraryFolders.push_back(folder);
  }
  return where;
}

YOverlayInstaller::YOverlayInstaller(Locations locations) : locations_(std::move(locations)) {}

std::vector<YOverlayInstaller::FileManager> YOverlayInstaller::FindInstalledBindings() const {
  std::vector<FileManager> found;
  for (const FileManager& manager : GetFileManagers()) {
    for (const Qel::YString& folder : locations_.libraryFolders) {
      // Debian keeps libraries in a multiarch folder (/usr/lib/x86_64-linux-gnu); others do not.
      if (Matches(Qel::File::AppendPaths(folder, manager.bindingLibrary)) ||
          Matches(Qel::File::AppendPaths(Qel::File::AppendPaths(folder, "*"), manager.bindingLibrary))) {
        found.push_back(manager);
        break;
      }
    }
  }
  return found;
}

Qel::YString YOverlayInstaller::RecordPath() const { return Qel::File::AppendPaths(locations_.dataHome, kRecordFile); }

YOverlayInstaller::Record YOverlayInstaller::ReadRecord() const {
  Record record;
  std::error_code error;
  if (!fs::exists(std::string(RecordPath()), error)) return record;
  std::istringstream lines(ReadWhole(RecordPath()));
  std::string line;
  while (std::getline(lines, line)) {
    const size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    const Qel::YString word = line.substr(0, tab);
    const Qel::YString path = line.substr(tab + 1);
    if (word == kRecordFileWord) AddOnce(record.files, path);
    else if (word == kRecordFolderWord) AddOnce(record.folders, path);
  }
  return record;
}

void YOverlayInstaller::WriteRecord(const Record& record) const {
  std::string text;
  for (const Qel::YString& folder : record.folders) text += std::string(kRecordFolderWord) + "\t" + folder + "\n";
  for (const Qel::YString& file : record.files) text += std::string(kRecordFileWord) + "\t" + file + "\n";
  Qel::File::PutContents(RecordPath(), text);
}

void YOverlayInstaller::MakeFolder(const Qel::YString& folder, Record& record) const {
  // The data home itself is the user's, made when missing but never noted.
  std::error_code error;
  fs::create_directories(std::string(locations_.dataHome), error);
  if (error) RaiseFileError(error, locations_.dataHome, "MakeFolder");
  std::vector<fs::path> missing;
  for (fs::path p = std::string(folder); p.string().size() > locations_.dataHome.size() && !fs::exists(p, error);
       p = p.parent_path()) {
    missing.push_back(p);
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (!fs::create_directory(*it, error) && error) RaiseFileError(error, it->string(), "MakeFolder");
    AddOnce(record.folders, Qel::YString(it->string()));
  }
}

Qel::YString YOverlayInstaller::CopyFile(const Qel::YString& source, const Qel::YString& target) const {
  const std::string bytes = ReadWhole(source);
  std::error_code error;
  const bool existed = fs::exists(std::string(target), error);
  if (existed && fs::is_regular_file(std::string(target), error) && ReadWhole(target) == bytes) {
    return "Up to date: " + target;
  }
  // Written beside the target and renamed over it: a file manager that
  // starts meanwhile reads the old file or the new one, never half of one.
  const Qel::YString partial = target + ".zarnu-partial";
  Qel::File::PutContents(partial, bytes);
  fs::permissions(std::string(partial), static_cast<fs::perms>(kFileMode), error);
  if (error) RaiseFileError(error, partial, "CopyFile");
  fs::rename(std::string(partial), std::string(target), error);
  if (error) RaiseFileError(error, target, "CopyFile");
  return (existed ? "Updated " : "Installed ") + target;
}

std::vector<Qel::YString> YOverlayInstaller::Install() {
  const std::vector<FileManager> managers = FindInstalledBindings();
  if (managers.empty()) {
    Qel::YString packages;
    for (const FileManager& m : GetFileManagers()) {
      packages += (packages.empty() ? "" : ", ") + Qel::YString(m.package) + " (" + m.name + ")";
    }
    QEL_RAISE_OS(kLogApp, ENOPKG,
                 "no file manager has its Python binding installed: install one of " + packages +
                     ", then run ZarnuAgent -installOverlay again",
                 kFile, "Install");
  }
  // Every file must be there before anything is written.
  std::vector<std::pair<Qel::YString, Qel::YString>> copies;  // source, folder below the data home
  for (const FileManager& m : managers) {
    for (const char* name : kExtensionFiles) {
      copies.emplace_back(Qel::File::AppendPaths(locations_.sourceFolder, name), m.extensionFolder);
    }
  }
  for (const char* name : kEmblemFiles) {
    copies.emplace_back(
        Qel::File::AppendPaths(Qel::File::AppendPaths(locations_.sourceFolder, kEmblemFolder), name), kIconFolder);
  }
  for (const auto& [source, folder] : copies) {
    std::error_code error;
    if (!fs::is_regular_file(std::string(source), error)) {
      QEL_RAISE_OS(kLogApp, ENOENT, "the overlay's file " + source + " is missing", kFile, "Install");
    }
  }

  Record record = ReadRecord();
  std::vector<Qel::YString> lines;
  for (const auto& [source, below] : copies) {
    const Qel::YString folder = Qel::File::AppendPaths(locations_.dataHome, below);
    MakeFolder(folder, record);
    const Qel::YString target = Qel::File::AppendPaths(folder, Qel::File::GetFileFromPath(source));
    lines.push_back(CopyFile(source, target));
    AddOnce(record.files, target);
  }
  MakeFolder(Qel::File::RemoveFileFromPath(RecordPath()), record);
  WriteRecord(record);

  Qel::YString names;
  for (const FileManager& m : managers) names += (names.empty() ? "" : ", ") + Qel::YString(m.name);
  lines.push_back("The Zarnu overlay is installed for " + names +
                  "; a file manager that runs now shows it once it starts again");
  return lines;
}

std::vector<Qel::YString> YOverlayInstaller::Remove() {
  std::error_code error;
  if (!fs::exists(std::string(RecordPath()), error)) {
    return {"The Zarnu overlay is not installed for this user (no " + RecordPath() + ")"};
  }
  const Record record = ReadRecord();
  std::vector<Qel::YString> lines;
  for (const Qel::YString& file : record.files) {
    if (fs::remove(std::string(file), error)) lines.push_back("Removed " + file);
    else if (error) RaiseFileError(error, file, "Remove");
  }
  if (!fs::remove(std::string(RecordPath()), error) && error) RaiseFileError(error, RecordPath(), "Remove");
  // Children before parents; a folder that holds something else stays.
  for (auto it = record.folders.rbegin(); it != record.folders.rend(); ++it) {
    if (fs::is_directory(std::string(*it), error) && fs::is_empty(std::string(*it), error) &&
        fs::remove(std::string(*it), error)) {
      lines.push_back("Removed folder " + *it);
    }
  }
  lines.push_back("The Zarnu overlay is removed; a file manager that runs now drops it once it starts again");
  return lines;
}

}  // namespace Agent
