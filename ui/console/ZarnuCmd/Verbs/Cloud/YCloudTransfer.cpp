// The Cloud module's transfer operations: UploadAt, PutFileParts, DownloadAt.
//
// Upload walks the local tree and hands each file to CloudSync's part
// uploader (cut into parts of 1 MiB, only the parts the cloud lacks are sent),
// then creates the cloud file from the ordered part list.
//
// Download lists the cloud path page by page with the parts of every file and
// hands each file to CloudSync's part downloader, which writes it into a new
// local file. Nothing local is ever overwritten, and a cloud name that would
// land outside the target folder is refused.
#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#include "CloudSync/PartInfo.h"
#include "CloudSync/Transfer/YPartDownloader.h"
#include "CloudSync/Transfer/YPartUploader.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/File/YFile.h"
#include "Qel/File/YFileEnum.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/Util/Util.h"
#include "Qel/Util/YThroughputTimer.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Cloud/YCloudVerbModule";
constexpr unsigned int kLogType = 198;

constexpr uint32_t kListAllParts = 0x40000000;
// Requests on their way at once. A download keeps five: each 1 MiB batch
// waits on the cloud's disk read, so five keep that disk busy while earlier
// batches are checked and written (two buffers each, ten in all). An upload
// keeps four: the cloud stores their batches side by side, so its disk waits
// overlap, while the memory stays at three batch buffers (the uploader's own
// bound). Either way the whole transfer stays under 32 MiB.
constexpr size_t kDownloadConnections = 5;
constexpr size_t kUploadConnections = 4;

using CloudSync::PartList;
using Qel::YString;
using Qel::Log::Ctl;

YString DirectoryText(const YString& path) { return path + " is a directory.  Must specify '-r' to recurse"; }

// The local path an upload names the cloud item after: a trailing "." or ".."
// is resolved, so that "put -r ." uploads the current folder under its name.
YString ResolveDotNames(const YString& localPath) {
  const YString last = Qel::File::GetFileFromPath(localPath);
  if (last != "." && last != "..") return localPath;
  char resolved[PATH_MAX];
  if (::realpath(localPath.c_str(), resolved) == nullptr) return localPath;
  return YString(resolved);
}

// The name under which a listed entry lands inside the local folder made for
// `head`; refuses anything that could land elsewhere.
YString ChildName(const CloudSync::MetadataInfo& head, const CloudSync::MetadataInfo& entry,
                  const YString& localFolder) {
  const YString prefix = head.path == "/" ? YString("/") : head.path + "/";
  YString name;
  bool safe = head.IsFolder() && entry.path.StartsWith(prefix);
  if (safe) {
    name = YString(entry.path.substr(prefix.size()));
    safe = !name.empty() && name != "." && name != ".." && name.find('/') == YString::npos &&
           name.find('\\') == YString::npos && name.find('\0') == YString::npos;
  }
  if (!safe) {
    QEL_RAISE(kLogType, 55,
              "Refusing cloud entry " + Qel::Util::QuotifyEx(entry.path, "'") + ": it is not a plain name inside " +
                  Qel::Util::QuotifyEx(head.path, "'") + " and could land outside " +
                  Qel::Util::QuotifyEx(localFolder, "'"),
              kFile, "DownloadAt");
  }
  return name;
}

// The local folder name of a listed folder (its last path component). The
// root's name is empty: its contents go straight into the local path.
YString HeadFolderName(const CloudSync::MetadataInfo& head, const YString& localPath) {
  const YString name = Qel::File::GetFileFromPath(head.path);
  const bool safe = head.path == "/" || (!name.empty() && name != "." && name != ".." &&
                                         name.find('\\') == YString::npos && name.find('\0') == YString::npos);
  if (!safe) {
    QEL_RAISE(kLogType, 55,
              "Refusing cloud folder " + Qel::Util::QuotifyEx(head.path, "'") + ": its name could land outside " +
                  Qel::Util::QuotifyEx(localPath, "'"),
              kFile, "DownloadAt");
  }
  return name;
}

}  // namespace

std::vector<CloudSync::YCloudApi*> YCloudVerbModule::TransferConnections(size_t count) {
  while (extra_connections_.size() + 1 < count) extra_connections_.push_back(GetApi().Clone());
  std::vector<CloudSync::YCloudApi*> all{&GetApi()};
  for (size_t i = 0; i + 1 < count; ++i) all.push_back(extra_connections_[i].get());
  return all;
}

void YCloudVerbModule::UploadAt(const YString& localPathGiven, const YString& cloudFolder, bool recurse,
                                bool quiet) {
  const YString localPath = ResolveDotNames(localPathGiven);
  Qel::File::YFileInfo info;
  if (!Qel::File::GetFileInfo(localPath, info)) QEL_RAISE(kLogType, 25, localPathGiven, kFile, "UploadAt");

  const YString cloudItem = Qel::File::AppendPaths(cloudFolder, Qel::File::GetFileFromPath(localPath), "/");
  if (!info.IsFolder()) {
    PutFileParts(localPath, cloudItem, quiet);
    return;
  }
  if (!recurse) QEL_RAISE(kLogType, 55, DirectoryText(localPathGiven), kFile, "UploadAt");

  GetApi().CreateDirectory(cloudItem);
  // Entry paths start with the folder's parent; what follows it (the folder's
  // own name and below) is the path inside `cloudFolder`.
  const YString parent = Qel::File::RemoveFileFromPath(localPath);
  const int rc = qel_file_enum(localPath, ".*", Qel::File::kEnumRecursive,
                               [&](const Qel::File::YFileEnumEntry& entry) {
                                 YString relative = entry.path;
                                 if (!parent.empty() && relative.StartsWith(parent)) {
                                   relative.erase(0, parent.size());
                                 }
                                 const YString cloudPath = Qel::File::AppendPaths(
                                     cloudFolder, Qel::File::ConvertToOsPathSep(relative), "/");
                                 if (entry.info.IsFolder()) GetApi().CreateDirectory(cloudPath);
                                 else PutFileParts(entry.path, cloudPath, quiet);
                                 return Qel::File::EnumResult::kContinue;
                               });
  if (rc != 0) QEL_RAISE_OS(15, rc, localPath, kFile, "Enumerate");
}

void YCloudVerbModule::PutFileParts(const YString& localFile, const YString& cloudFile, bool quiet) {
  Qel::Util::YThroughputTimer meter("zarnucmd put parts", 500, 20);
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  if (!quiet) out << localFile << " -> " << cloudFile << Ctl::EndLine;
  meter.Start();
  CloudSync::YPartUploader uploader(TransferConnections(kUploadConnections));
  const PartList parts = uploader.Upload(localFile, [&](const CloudSync::TransferProgress& p) {
    meter.ReportData(p.bytes);
    if (!quiet) {
      out << " (" << Ctl::SizeNumbers << p.done << " / " << p.total << ") ["
          << meter.GetThroughputSizeDisplayString(true) << "]" << YString(13, ' ') << "\r" << Ctl::EndLine;
    }
  });
  GetApi().CreateFile(cloudFile, parts);
}

void YCloudVerbModule::DownloadAt(const YString& cloudPath, const YString& localPath, bool recurse, bool quiet) {
  CloudSync::YCloudApi::ListParam param;
  param.path = cloudPath;
  param.recurse = false;  // the tree is walked here, folder by folder
  param.partLimit = kListAllParts;
  param.pageSize = recurse ? 100 : 1;
  param.includeExcludes = true;
  param.includeParts = true;
  param.includeDeleted = false;
  param.flag5 = true;
  param.flag6 = true;

  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  CloudSync::MetadataPtr head;  // the listed path itself: the first entry of the first page
  YString localFolder;
  bool intoFolder = false;
  while (true) {
    CloudSync::YCloudApi::ListResult page = GetApi().ListPath(param);
    size_t first = 0;
    if (!head) {
      if (page.entries.empty()) QEL_RAISE(kLogType, 25, "File does not exist in the cloud", kFile, "DownloadAt");
      head = page.entries.front();
      if (head->IsFolder()) {
        if (!recurse) QEL_RAISE(kLogType, 1, DirectoryText(cloudPath), kFile, "DownloadAt");
        localFolder = Qel::File::AppendPaths(localPath, HeadFolderName(*head, localPath), "/");
        Qel::File::CreatePath(localFolder, true);
        intoFolder = true;
        first = 1;
      }
    } else if (!page.entries.empty() && head->IsFolder() && page.entries.front()->path == head->path) {
      first = 1;  // the service repeats the listed folder at the head of later pages
    }

    for (size_t i = first; i < page.entries.size(); ++i) {
      const CloudSync::MetadataInfo& entry = *page.entries[i];
      if (entry.IsFolder()) {
        if (!recurse) QEL_RAISE(kLogType, 1, DirectoryText(entry.path), kFile, "DownloadAt");
        const YString name = ChildName(*head, entry, localFolder);
        if (entry.contained == 0) Qel::File::CreatePath(Qel::File::AppendPaths(localFolder, name, "/"), true);
        else DownloadAt(entry.path, localFolder, true, false);
        continue;
      }

      YString target = localPath;
      if (intoFolder) target = Qel::File::AppendPaths(localFolder, ChildName(*head, entry, localFolder), "/");
      else if (&entry != head.get()) ChildName(*head, entry, localPath);  // refuses: no place for a second file
      if (Qel::File::DoesFileExist(target)) QEL_RAISE(kLogType, 33, target, kFile, "DownloadAt");
      Qel::File::YFile file;
      file.Open(target, Qel::File::YFile::kWrite | Qel::File::YFile::kCreateNew);
      Qel::Util::YThroughputTimer meter("zarnucmd get parts", 50, 20);
      meter.Start();
      CloudSync::YPartDownloader downloader(TransferConnections(kDownloadConnections));
      downloader.Download(entry, file.GetDescriptor(), [&](const CloudSync::TransferProgress& p) {
        meter.ReportData(p.bytes);
        if (!quiet) {
          out << "Downloading " << Qel::Util::QuotifyEx(entry.path, "'") << " to " << Qel::Util::QuotifyEx(target, "'")
              << " - " << Ctl::SizeNumbers << p.done << " / " << p.total << ") ["
              << meter.GetThroughputSizeDisplayString(false) << "]" << YString(32, ' ') << Ctl::ReturnLine;
        }
      });
    }

    if (!page.more) break;
    param.cursor = page.cursor;
  }
}

}  // namespace Cloud
