// Crash-safe replacement of files: temporary beside the target, flush, rename, flush the folder.
#include "common/Safewrite.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Temporaries being written by this process, for the signal handlers: a slot is claimed (1), its name
// filled, then published (2); the handler unlinks every published name.
constexpr int kPendingSlots = 32;
struct TPendingSlot {
  std::atomic<int> State{0};
  char Name[PATH_MAX]{};
};
TPendingSlot gPending[kPendingSlots];

int ClaimPendingSlot(const std::string& name) {
  if (name.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kPendingSlots; ++i) {
    int expected = 0;
    if (!gPending[i].State.compare_exchange_strong(expected, 1)) continue;
    std::memcpy(gPending[i].Name, name.c_str(), name.size() + 1);
    gPending[i].State.store(2);
    return i;
  }
  return -1; // more saves at once than slots: this one is not removed by a signal, only by the next save
}

void ReleasePendingSlot(int slot) {
  if (slot < 0) return;
  gPending[slot].State.store(1);
  gPending[slot].Name[0] = '\0';
  gPending[slot].State.store(0);
}

std::string FolderOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseNameOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string TimeStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d_%H%M%S", &local);
  return buffer;
}

// The file a name stands for: a symbolic link is followed (also one that points nowhere yet), so that the
// link stays a link and its destination gets the new contents.
std::string ResolveLinks(const std::string& fileName) {
  std::string current = fileName;
  for (int depth = 0; depth < 40; ++depth) {
    struct stat st {};
    if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return current;
    char buffer[PATH_MAX];
    const ssize_t n = ::readlink(current.c_str(), buffer, sizeof buffer - 1);
    if (n <= 0) return current;
    std::string destination(buffer, static_cast<size_t>(n));
    if (destination.front() != '/') destination = FolderOf(current) + "/" + destination;
    current = destination;
  }
  return current;
}

void SyncFolder(const std::string& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

// A temporary that no process holds locked: its writer is gone.
bool RemoveIfStale(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat st {};
  bool removed = false;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ::flock(fd, LOCK_EX | LOCK_NB) == 0)
    removed = ::unlink(path.c_str()) == 0;
  ::close(fd);
  return removed;
}

bool AllDigits(const std::string& text, size_t from, size_t count) {
  if (from + count > text.size()) return false;
  for (size_t i = from; i < from + count; ++i)
    if (text[i] < '0' || text[i] > '9') return false;
  return true;
}

} // namespace

bool IsSafeWriteTemporaryName(const std::string& fileName) {
  // name + "." + 8 digits + "_" + 6 digits + optional "_" digits + ".temp"
  const std::string base = BaseNameOf(fileName);
  static const std::string kSuffix = ".temp";
  if (base.size() < kSuffix.size() + 17 ||
      base.compare(base.size() - kSuffix.size(), kSuffix.size(), kSuffix))
    return false;
  const std::string stem = base.substr(0, base.size() - kSuffix.size());
  size_t end = stem.size();
  const size_t lastUnderscore = stem.find_last_of('_');
  // An attempt counter "_n" after the time stamp.
  if (lastUnderscore != std::string::npos && lastUnderscore + 1 < end &&
      AllDigits(stem, lastUnderscore + 1, end - lastUnderscore - 1) && end - lastUnderscore - 1 != 6)
    end = lastUnderscore;
  if (end < 17) return false;
  const size_t stamp = end - 15; // 8 digits, "_", 6 digits
  return stem[stamp - 1] == '.' && stamp >= 2 && AllDigits(stem, stamp, 8) && stem[stamp + 8] == '_' &&
         AllDigits(stem, stamp + 9, 6);
}

std::vector<std::string> RemoveStaleTemporaries(const std::string& folder, const std::string& target) {
  std::vector<std::string> removed;
  DIR* dir = ::opendir(folder.empty() ? "." : folder.c_str());
  if (!dir) return removed;
  const std::string prefix = target.empty() ? std::string() : BaseNameOf(target) + ".";
  std::vector<std::string> candidates;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (!prefix.empty() && name.compare(0, prefix.size(), prefix) != 0) continue;
    if (!IsSafeWriteTemporaryName(name)) continue;
    // For one target, the temporary must be exactly target + time stamp, not a longer name's.
    if (!prefix.empty() && name.find('.', prefix.size()) != name.size() - 5) continue;
    candidates.push_back(name);
  }
  ::closedir(dir);
  const std::string base = folder.empty() ? std::string(".") : folder;
  for (const auto& name : candidates) {
    const std::string path = base.back() == '/' ? base + name : base + "/" + name;
    if (RemoveIfStale(path)) removed.push_back(path);
  }
  return removed;
}

void AbortPendingSafeWrites() {
  SetFileWritesAborted(true);
  for (auto& slot : gPending)
    if (slot.State.load() == 2) ::unlink(slot.Name);
}

bool SafeWritesAborted() {
  return FileWritesAborted();
}

void ResetSafeWriteAbort() {
  SetFileWritesAborted(false);
}

// ---------------------------------------------------------------------------------------------

TSafeFileWriter::~TSafeFileWriter() {
  Abandon();
}

TTagError TSafeFileWriter::Fail(TTagError error, const std::string& text) {
  Abandon();
  FErrorText = text;
  return error;
}

TTagError TSafeFileWriter::Open(const std::string& target, const TSafeWriteOptions& options) {
  Abandon();
  FErrorText.clear();
  FOptions = options;
  ClearLastFileError();
  if (target.empty()) return Fail(teCreateFileForWriteError, "cannot write a file without a name");
  FTarget = ResolveLinks(target);
  const std::string shown = "'" + target + "'";

  struct stat old {};
  const bool exists = ::stat(FTarget.c_str(), &old) == 0;
  mode_t mode = 0666; // a new file: what the umask leaves
  if (exists) {
    if (S_ISDIR(old.st_mode))
      return Fail(teCreateFileForWriteError, "cannot write " + shown + ": is a folder");
    if (!S_ISREG(old.st_mode))
      return Fail(teCreateFileForWriteError, "cannot write " + shown + ": not a regular file");
    if ((old.st_mode & 0222) == 0 || ::access(FTarget.c_str(), W_OK) != 0)
      return Fail(teCreateFileForWriteError, "cannot write " + shown + ": the file is read-only");
    mode = old.st_mode & 07777;
  }

  const std::string folder = FolderOf(FTarget);
  RemoveStaleTemporaries(folder, FTarget);

  if (FileWritesAborted()) return Fail(teCreateFileForWriteError, "saving " + shown + " cancelled");
  const std::string stem = FTarget + "." + TimeStamp();
  for (int attempt = -1; attempt < 1000; ++attempt) {
    const std::string name = attempt < 0 ? stem + ".temp" : stem + "_" + std::to_string(attempt) + ".temp";
    // Private until it is complete; the old file's permission bits are set below.
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, exists ? 0600 : mode);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      const int error = errno;
      return Fail(teCreateFileForWriteError,
                  "cannot write " + shown + ": " +
                      (error == ENOENT ? std::string("no such folder") : FileErrorReason(error)));
    }
    // The lock tells other processes that this temporary is alive. A cleaner may have removed the name
    // between open and lock; then the next name is taken.
    struct stat st {};
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &st) != 0 || st.st_nlink == 0) {
      ::close(fd);
      continue;
    }
    if (exists) {
      [[maybe_unused]] const int owner = ::fchown(fd, old.st_uid, old.st_gid);
      ::fchmod(fd, mode);
    }
    FFile = fd;
    FTempName = name;
    FSlot = ClaimPendingSlot(name);
    // A signal may have come between the check above and the claim.
    if (FileWritesAborted()) return Fail(teCreateFileForWriteError, "saving " + shown + " cancelled");
    return teNoError;
  }
  return Fail(teCreateFileForWriteError, "cannot write " + shown + ": no free temporary name beside it");
}

TTagError TSafeFileWriter::Commit() {
  if (FFile == kInvalidFileHandle) return teCreateFileForWriteError;
  const std::string shown = "'" + FTarget + "'";
  if (FOptions.SyncToDisk && ::fdatasync(FFile) != 0) {
    const int error = errno;
    return Fail(teWriteFileError, error == ENOSPC ? "no space left on device while writing " + shown
                                                  : "cannot write " + shown + ": " + FileErrorReason(error));
  }
  if (FileWritesAborted()) return Fail(teWriteFileError, "saving " + shown + " cancelled");
  // rename() replaces the target atomically: at no moment is there no file of that name.
  const bool swapped = !FOptions.SyncToDisk && ExchangeWithTarget();
  if (!swapped && ::rename(FTempName.c_str(), FTarget.c_str()) != 0) {
    const int error = errno;
    return Fail(teWriteFileError, FileWritesAborted()
                                      ? "saving " + shown + " cancelled"
                                      : "cannot write " + shown + ": " + FileErrorReason(error));
  }
  ReleasePendingSlot(FSlot);
  FSlot = -1;
  FTempName.clear();
  ::close(FFile);
  FFile = kInvalidFileHandle;
  if (FOptions.SyncToDisk) SyncFolder(FolderOf(FTarget));
  FErrorText.clear();
  return teNoError;
}

bool TSafeFileWriter::ExchangeWithTarget() {
  // Swapping the two names is as atomic as a rename, but the file system does not push the new file's
  // unwritten data to disk first, as ext4 does when a rename replaces a file (a 256 MiB file: 0.17 s
  // instead of 0.01 s). That flush is what a save without flushing chose not to wait for.
  struct stat st {};
  if (::lstat(FTarget.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false; // nothing to swap with
  if (::renameat2(AT_FDCWD, FTempName.c_str(), AT_FDCWD, FTarget.c_str(), RENAME_EXCHANGE) != 0)
    return false; // not offered by this file system: a rename does it
  // The temporary's name now holds the old file. Its slot stays claimed until it is gone, so that a signal
  // in between removes it as well; after a kill it is a stale temporary, which the next save removes.
  ::unlink(FTempName.c_str());
  return true;
}

void TSafeFileWriter::Abandon() {
  if (FFile != kInvalidFileHandle) {
    ::close(FFile);
    FFile = kInvalidFileHandle;
  }
  if (!FTempName.empty()) {
    ::unlink(FTempName.c_str());
    FTempName.clear();
  }
  ReleasePendingSlot(FSlot);
  FSlot = -1;
}

TTagError WriteFileSafely(const std::string& fileName, const std::function<TTagError(TFileHandle)>& writer,
                          std::string* errorText, const TSafeWriteOptions& options) {
  TSafeFileWriter file;
  TTagError result = file.Open(fileName, options);
  if (result >= 1) {
    result = writer(file.Handle()); // an exception abandons the temporary in the destructor
    if (result >= 1) {
      result = file.Commit();
    } else {
      const int error = LastFileError();
      const std::string shown = "'" + fileName + "'";
      file.Abandon();
      if (errorText) {
        if (FileWritesAborted() || error == ECANCELED)
          *errorText = "saving " + shown + " cancelled";
        else if (error == ENOSPC)
          *errorText = "no space left on device while writing " + shown;
        else if (error != 0)
          *errorText = "cannot write " + shown + ": " + FileErrorReason(error);
        else
          *errorText = "cannot write " + shown + ": " + GetTagErrorName(result);
      }
      return result;
    }
  }
  if (errorText) *errorText = file.ErrorText();
  return result;
}
