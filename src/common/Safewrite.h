// The one way the system replaces a file: write a temporary file beside the target, flush it to disk,
// rename it over the target, flush the folder. At every moment the target is either the old file or the
// complete new one; a failed, cancelled or interrupted save leaves the old file and removes its temporary.
#pragma once

#include "common/Saveandload.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What a save needs of the target besides its name.
struct TSafeWriteOptions {
  /// Flush the new file and its folder to disk before and after the rename (off only for throw-away files).
  bool SyncToDisk = true;
};

/// One save of one target. Open creates the temporary, the caller writes through Handle(), Commit puts the
/// new file in place; anything else (a failure, an exception, the destructor without Commit) removes the
/// temporary and leaves the target as it was.
class TSafeFileWriter {
public:
  TSafeFileWriter() = default;
  ~TSafeFileWriter();
  TSafeFileWriter(const TSafeFileWriter&) = delete;
  TSafeFileWriter& operator=(const TSafeFileWriter&) = delete;

  /// Creates the temporary beside target (beside the file a symbolic link points to). Refuses a target that
  /// is a folder or read-only, and a folder where no file can be made. Stale temporaries of the same target
  /// (left by a killed process) are removed first.
  TTagError Open(const std::string& target, const TSafeWriteOptions& options = {});
  TFileHandle Handle() const { return FFile; }
  /// Flushes, renames over the target with the old file's permission bits, flushes the folder. Without
  /// flushing, an existing target is swapped with the temporary instead, and the old file removed.
  TTagError Commit();
  /// Removes the temporary; the target stays as it was. Safe to call more than once.
  void Abandon();

  const std::string& Target() const { return FTarget; }
  const std::string& TemporaryName() const { return FTempName; }
  /// One line naming the file and the reason of the last failure, e.g.
  /// "no space left on device while writing 'x.oxp'"; empty after success.
  const std::string& ErrorText() const { return FErrorText; }

private:
  TTagError Fail(TTagError error, const std::string& text);
  /// Without flushing: swaps the complete temporary with an existing target and removes the old file
  /// (under the temporary's name now). False (nothing changed) when there is no target or the file system
  /// can't swap names.
  bool ExchangeWithTarget();

  std::string FTarget;   ///< the file that is replaced (a link's destination)
  std::string FTempName; ///< empty when no temporary exists
  TFileHandle FFile = kInvalidFileHandle;
  TSafeWriteOptions FOptions;
  int FSlot = -1; ///< place in the list of pending temporaries that signal handlers remove
  std::string FErrorText;
};

/// Saves fileName through TSafeFileWriter: writer fills the open file; a result below 1 or an exception
/// leaves the old file. errorText (may be null) receives the one-line reason of a failure.
TTagError WriteFileSafely(const std::string& fileName, const std::function<TTagError(TFileHandle)>& writer,
                          std::string* errorText = nullptr, const TSafeWriteOptions& options = {});

/// True for a name the safe write routine gives its temporaries: target + ".yyyymmdd_hhnnss[_n].temp".
bool IsSafeWriteTemporaryName(const std::string& fileName);
/// Removes the temporaries in folder that no living process is writing (those of a killed save); with
/// target non-empty only those of that target. Returns the names removed.
std::vector<std::string> RemoveStaleTemporaries(const std::string& folder, const std::string& target = {});

/// Async-signal-safe: removes every temporary this process is writing and makes every further write of
/// the process fail, so that a save under way stops and leaves its old file. For SIGINT/SIGTERM/SIGHUP.
void AbortPendingSafeWrites();
/// True after AbortPendingSafeWrites.
bool SafeWritesAborted();
/// Lets writes succeed again after an abort (tests, a new command).
void ResetSafeWriteAbort();
