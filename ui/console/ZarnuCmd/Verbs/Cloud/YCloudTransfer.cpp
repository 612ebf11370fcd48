// The Cloud module's transfer operations: UploadAt, PutFileParts, DownloadAt.
//
// Upload cuts a file into parts of at most 1 MiB, names each by its
// fingerprint (MD5 hex then SHA-1 hex), offers the parts to the cloud in
// batches of five (the cloud takes only those it lacks) and finally creates
// the cloud file from the ordered part list.
//
// The main thread reads and fingerprints the parts; one background sender
// sends each full batch while the main thread goes on with the next, so
// hashing here overlaps with the cloud's own checking of what it receives.
// The sender fills a batch's part data from the file just before it sends it
// and empties it right after, so only the batch in flight holds bytes (plus
// the file's read buffer), whatever the file size. The sender checks that the
// file did not change since it was fingerprinted (else 184); the cloud checks
// every part's bytes against its fingerprint. Calls to the cloud keep their
// order; progress lines, the meter and CreateFile stay on the main thread.
//
// Download lists the cloud path page by page with the parts of every file,
// fetches each file's parts in batches of about 1 MiB (the client checks every
// part against its fingerprint), and writes them in order into a new local
// file. Nothing local is ever overwritten, and a cloud name that would land
// outside the target folder is refused.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "CloudSync/PartInfo.h"
#include "Qel/Crypto/YBbsHash.h"
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

constexpr size_t kPartSize = 0x100000;       // bytes read per upload part
constexpr size_t kUploadBatchParts = 5;      // parts per upload batch
constexpr uint64_t kDownloadBatchBytes = 0x100000;  // a download batch closes at this many bytes...
constexpr size_t kDownloadBatchParts = 100;         // ...or this many parts
constexpr uint32_t kListAllParts = 0x40000000;

using CloudSync::PartList;
using Qel::YString;
using Qel::Log::Ctl;

YString DirectoryText(const YString& path) { return path + " is a directory.  Must specify '-r' to recurse"; }

// Empties the part bytes of a batch, also when the send failed.
struct BatchDataRelease {
  const PartList& batch;
  ~BatchDataRelease() {
    for (const CloudSync::PartPtr& part : batch) part->data.Resize(0);
  }
};

// The bytes of the parts of one file being uploaded, read again right before a
// batch is sent. Refuses (184) once the file changed after it was opened for
// fingerprinting (another size or modification time, or cut short).
class PartSource {
 public:
  explicit PartSource(const YString& path) : path_(path) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0 || ::fstat(fd_, &opened_) != 0) QEL_RAISE_OS(kLogType, errno, path, kFile, "UploadAt");
  }
  ~PartSource() { ::close(fd_); }
  PartSource(const PartSource&) = delete;
  PartSource& operator=(const PartSource&) = delete;

  void Fill(const PartList& batch) const {
    for (const CloudSync::PartPtr& part : batch) {
      part->data.Resize(part->size);
      size_t done = 0;
      while (done < part->size) {
        const ssize_t n = ::pread(fd_, part->data.Get() + done, part->size - done,
                                  static_cast<off_t>(part->offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) QEL_RAISE_OS(kLogType, errno, path_, kFile, "UploadAt");
        if (n == 0) Changed();
        done += static_cast<size_t>(n);
      }
    }
    struct stat now;
    if (::fstat(fd_, &now) != 0) QEL_RAISE_OS(kLogType, errno, path_, kFile, "UploadAt");
    if (now.st_size != opened_.st_size || now.st_mtim.tv_sec != opened_.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != opened_.st_mtim.tv_nsec) {
      Changed();
    }
  }

  [[noreturn]] void Changed() const { QEL_RAISE(kLogType, 184, path_, kFile, "UploadAt"); }

 private:
  YString path_;
  int fd_ = -1;
  struct stat opened_ {};
};

// Hands upload batches to one background thread, one batch at a time; the
// thread fills the batch's part data, sends it and empties it. Send first
// waits for the batch before (rethrowing its failure) and reports it through
// `onSent` on the calling thread, so batches reach the cloud in order and at
// most one is in flight while the caller prepares the next.
class BatchSender {
 public:
  using SentCallback = std::function<void(uint64_t bytes, uint64_t doneAfter, size_t partsSent)>;

  BatchSender(CloudSync::YCloudApi& api, const PartSource& source, SentCallback onSent)
      : api_(api), source_(source), on_sent_(std::move(onSent)), thread_([this] { Run(); }) {}

  // A batch still in flight ends first (its failure no longer matters: an
  // error is already on its way); nothing queued is sent any more.
  ~BatchSender() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  void Send(PartList batch, uint64_t bytes, uint64_t doneAfter) {
    Finish();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      job_ = Job{std::move(batch), bytes, doneAfter};
      busy_ = true;
    }
    wake_.notify_all();
  }

  // Waits for the batch in flight, if any, and reports it.
  void Finish() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
    if (!sent_) return;
    const Job sent = std::move(*sent_);
    sent_.reset();
    std::exception_ptr error = std::exchange(error_, nullptr);
    lock.unlock();
    if (error) std::rethrow_exception(error);
    on_sent_(sent.bytes, sent.done_after, sent.parts_sent);
  }

 private:
  struct Job {
    PartList batch;
    uint64_t bytes = 0;
    uint64_t done_after = 0;
    size_t parts_sent = 0;
  };

  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stop_ || job_.has_value(); });
      if (stop_) return;
      Job job = std::move(*job_);
      job_.reset();
      lock.unlock();
      std::exception_ptr error;
      try {
        BatchDataRelease release{job.batch};
        source_.Fill(job.batch);
        job.parts_sent = api_.SendNeededParts(job.batch, 0);
      } catch (...) {
        error = std::current_exception();
      }
      job.batch.clear();
      lock.lock();
      error_ = error;
      sent_ = std::move(job);
      busy_ = false;
      wake_.notify_all();
    }
  }

  CloudSync::YCloudApi& api_;
  const PartSource& source_;
  SentCallback on_sent_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::optional<Job> job_;   // handed over, not yet taken by the thread
  std::optional<Job> sent_;  // done, not yet reported
  std::exception_ptr error_;
  bool busy_ = false;
  bool stop_ = false;
  std::thread thread_;  // last: starts once everything above exists
};

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
  Qel::File::YFile file;
  file.Open(localFile, Qel::File::YFile::kRead);
  const PartSource source(localFile);
  const uint64_t total = file.GetSize();
  Qel::Util::YThroughputTimer meter("zarnucmd put parts", 500, 20);
  // SHA-1 runs on a helper thread while MD5 runs here whenever a second core
  // is free: with four cores or more, else while the cloud already holds the
  // parts (then it is idle; otherwise it checks what it receives, on that
  // core). Small files are not worth the thread.
  const bool manyCores = std::thread::hardware_concurrency() >= 4;
  Qel::Crypto::YBbsHash hash(total >= kPartSize);
  PartList parts;
  PartList batch;
  uint64_t done = 0;
  uint64_t batchBytes = 0;
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();

  if (!quiet) out << localFile << " -> " << cloudFile << Ctl::EndLine;
  meter.Start();

  BatchSender sender(GetApi(), source, [&](uint64_t bytes, uint64_t doneAfter, size_t partsSent) {
    hash.SetParallel(total >= kPartSize && (manyCores || partsSent == 0));
    meter.ReportData(bytes);
    if (!quiet) {
      out << " (" << Ctl::SizeNumbers << doneAfter << " / " << total << ") ["
          << meter.GetThroughputSizeDisplayString(true) << "]" << YString(13, ' ') << "\r" << Ctl::EndLine;
    }
  });

  while (true) {
    const size_t read = file.ReadEx(kPartSize);
    if (read == 0) break;
    hash.Update(file.GetBuffer().Get(), read);
    auto part = std::make_shared<CloudSync::PartInfo>();
    part->fingerprint = hash.Finalize();
    part->size = static_cast<uint32_t>(read);
    part->offset = file.GetOffset() - read;
    parts.push_back(part);
    batch.push_back(part);
    batchBytes += read;
    done += read;
    if (batch.size() == kUploadBatchParts) {
      sender.Send(std::move(batch), batchBytes, done);
      batch.clear();
      batchBytes = 0;
    }
  }
  if (!batch.empty()) sender.Send(std::move(batch), batchBytes, done);
  sender.Finish();

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
      uint64_t listedBytes = 0;
      for (const CloudSync::PartPtr& part : entry.parts) listedBytes += part->size;
      if (listedBytes != entry.size) {  // a short part list would make a short file
        QEL_RAISE(kLogType, 162,
                  entry.path + ": the listed parts hold " + Qel::Util::NumberToString(listedBytes) + " of " +
                      Qel::Util::NumberToString(entry.size) + " bytes",
                  kFile, "DownloadAt");
      }
      Qel::File::YFile file;
      file.Open(target, Qel::File::YFile::kWrite | Qel::File::YFile::kCreateNew);

      PartList remaining = entry.parts;
      Qel::Util::YThroughputTimer meter("zarnucmd get parts", 50, 20);
      meter.Start();
      uint64_t done = 0;
      auto next = remaining.begin();
      while (next != remaining.end()) {
        if (!quiet) {
          out << "Downloading " << Qel::Util::QuotifyEx(entry.path, "'") << " to " << Qel::Util::QuotifyEx(target, "'")
              << " - " << Ctl::SizeNumbers << done << " / " << entry.size << ") ["
              << meter.GetThroughputSizeDisplayString(false) << "]" << YString(32, ' ') << Ctl::ReturnLine;
        }
        PartList batch;
        uint64_t batchBytes = 0;
        while (next != remaining.end() && batchBytes < kDownloadBatchBytes && batch.size() < kDownloadBatchParts) {
          batchBytes += (*next)->size;
          batch.push_back(*next++);
        }
        const size_t got = GetApi().GetParts(batch, entry.id);
        if (got != batch.size()) {
          YString text = "Failed to get parts: ";
          for (const CloudSync::PartPtr& part : batch) {
            if (part->data.IsEmpty()) text += part->fingerprint + ", ";
          }
          QEL_RAISE(kLogType, 162, text, kFile, "DownloadAt");
        }
        for (const CloudSync::PartPtr& part : batch) {
          // The client checked the bytes against the fingerprint; a part of the
          // wrong length must not reach the file either.
          if (part->data.GetCount() != part->size) {
            QEL_RAISE(kLogType, 169,
                      part->fingerprint + ": " + Qel::Util::NumberToString(part->data.GetCount()) +
                          " bytes received, " + Qel::Util::NumberToString(part->size) + " listed",
                      kFile, "DownloadAt");
          }
          file.Write(part->data.Get(), part->size);
          meter.ReportData(part->size);
          part->data.Resize(0);
          done += part->size;
        }
      }
    }

    if (!page.more) break;
    param.cursor = page.cursor;
  }
}

}  // namespace Cloud
