// Replacing files: what the target holds after success and after every kind of failure, what the
// folder holds afterwards, and the targets that are links, private, read-only or folders.
#include "common/Safewrite.h"

#include "support/TestSupport.h"

#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

std::function<TTagError(TFileHandle)> Writes(const std::string& bytes) {
  return [bytes](TFileHandle file) {
    return WriteAllBytes(file, bytes.data(), static_cast<int64_t>(bytes.size())) ? teNoError
                                                                                 : teWriteFileError;
  };
}

// Names in the folder other than the given ones.
std::vector<std::string> OtherFiles(const oxtest::TempDir& dir, const std::vector<std::string>& known) {
  std::vector<std::string> others;
  for (const auto& entry : fs::directory_iterator(dir.Path())) {
    const std::string name = entry.path().filename().string();
    if (std::find(known.begin(), known.end(), name) == known.end()) others.push_back(name);
  }
  return others;
}

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

bool RunningAsRoot() {
  return ::geteuid() == 0;
}

} // namespace

TEST(SafeWrite, NewAndExistingTargetsGetTheWholeContentAndNothingElseStays) {
  oxtest::TempDir dir;
  const std::string target = dir.File("out.oxp");
  std::string error;
  ASSERT_EQ(WriteFileSafely(target, Writes("first"), &error), teNoError);
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(oxtest::ReadFileBytes(target), "first");
  ASSERT_EQ(WriteFileSafely(target, Writes("second, longer"), &error), teNoError);
  EXPECT_EQ(oxtest::ReadFileBytes(target), "second, longer");
  ASSERT_EQ(WriteFileSafely(target, Writes(""), &error), teNoError);
  EXPECT_EQ(oxtest::ReadFileBytes(target), "");
  EXPECT_TRUE(OtherFiles(dir, {"out.oxp"}).empty());
}

TEST(SafeWrite, AFailureOrAnExceptionKeepsTheOldFileAndRemovesTheTemporary) {
  oxtest::TempDir dir;
  const std::string target = dir.File("keep.oxd");
  oxtest::WriteFileBytes(target, "old contents");
  std::string error;
  const TTagError failed = WriteFileSafely(
      target,
      [](TFileHandle file) {
        WriteAllBytes(file, "half", 4);
        return teWriteFileError;
      },
      &error);
  EXPECT_EQ(failed, teWriteFileError);
  EXPECT_NE(error.find("'" + target + "'"), std::string::npos) << error;
  EXPECT_EQ(oxtest::ReadFileBytes(target), "old contents");
  EXPECT_THROW(WriteFileSafely(target,
                               [](TFileHandle file) -> TTagError {
                                 WriteAllBytes(file, "half", 4);
                                 throw std::runtime_error("broken writer");
                               }),
               std::runtime_error);
  EXPECT_EQ(oxtest::ReadFileBytes(target), "old contents");
  EXPECT_TRUE(OtherFiles(dir, {"keep.oxd"}).empty());

  // A new target that fails is not made at all: no empty or partial file under the final name.
  const std::string fresh = dir.File("fresh.oxp");
  EXPECT_LT(WriteFileSafely(fresh, [](TFileHandle) { return teWriteFileError; }), 1);
  EXPECT_FALSE(fs::exists(fresh));
  EXPECT_TRUE(OtherFiles(dir, {"keep.oxd"}).empty());
}

TEST(SafeWrite, TheTemporaryLivesBesideTheTargetUnderARecognisableName) {
  oxtest::TempDir dir;
  const std::string target = dir.File("map.oxp");
  oxtest::WriteFileBytes(target, "old");
  std::string seenTemporary;
  ASSERT_EQ(WriteFileSafely(target,
                            [&](TFileHandle file) {
                              const auto others = OtherFiles(dir, {"map.oxp"});
                              if (others.size() == 1) seenTemporary = others[0];
                              // While it is written, the target is still the old file.
                              EXPECT_EQ(oxtest::ReadFileBytes(target), "old");
                              return WriteAllBytes(file, "new", 3) ? teNoError : teWriteFileError;
                            }),
            teNoError);
  ASSERT_FALSE(seenTemporary.empty());
  EXPECT_EQ(seenTemporary.rfind("map.oxp.", 0), 0u) << seenTemporary;
  EXPECT_TRUE(IsSafeWriteTemporaryName(seenTemporary)) << seenTemporary;
}

TEST(SafeWrite, TemporaryNamesAreRecognisedExactly) {
  EXPECT_TRUE(IsSafeWriteTemporaryName("a.oxp.20261123_045300.temp"));
  EXPECT_TRUE(IsSafeWriteTemporaryName("/x/y/a.oxp.20261123_045300_12.temp"));
  EXPECT_TRUE(IsSafeWriteTemporaryName("noext.20261123_045300.temp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName("a.oxp.temp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName("a.oxp.20261123_0453.temp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName("a.oxp.2026112x_045300.temp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName("a.oxp.20261123_045300.tmp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName(".20261123_045300.temp"));
  EXPECT_FALSE(IsSafeWriteTemporaryName("a.oxp.20261123_045300_.temp"));
}

TEST(SafeWrite, StaleTemporariesGoButThoseOfALivingWriterStay) {
  oxtest::TempDir dir;
  const std::string target = dir.File("t.oxp");
  const std::string stale = target + ".20200101_000000.temp";
  const std::string staleOther = dir.File("other.oxp.20200101_000000_3.temp");
  const std::string living = target + ".20200101_000001.temp";
  const std::string unrelated = dir.File("t.oxp.notes.txt");
  for (const auto& name : {stale, staleOther, living, unrelated}) oxtest::WriteFileBytes(name, "x");
  // A writer that is alive holds its temporary locked.
  const int held = ::open(living.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX | LOCK_NB), 0);

  // The next save of the target removes its own stale temporaries only.
  ASSERT_EQ(WriteFileSafely(target, Writes("new")), teNoError);
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_TRUE(fs::exists(staleOther));
  EXPECT_TRUE(fs::exists(living));
  EXPECT_TRUE(fs::exists(unrelated));

  // Cleaning the folder takes every stale one, still not the living one.
  const auto removed = RemoveStaleTemporaries(dir.Path().string());
  ASSERT_EQ(removed.size(), 1u);
  EXPECT_EQ(fs::path(removed[0]).filename(), fs::path(staleOther).filename());
  EXPECT_TRUE(fs::exists(living));
  ::close(held);
  EXPECT_EQ(RemoveStaleTemporaries(dir.Path().string()).size(), 1u);
  EXPECT_FALSE(fs::exists(living));
  EXPECT_TRUE(fs::exists(unrelated));
  EXPECT_EQ(oxtest::ReadFileBytes(target), "new");
}

TEST(SafeWrite, PermissionBitsOfTheOldFileAreKept) {
  oxtest::TempDir dir;
  const std::string target = dir.File("private.oxp");
  oxtest::WriteFileBytes(target, "old");
  ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
  ASSERT_EQ(WriteFileSafely(target, Writes("new")), teNoError);
  EXPECT_EQ(ModeOf(target), 0600u);
  ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
  ASSERT_EQ(WriteFileSafely(target, Writes("newer")), teNoError);
  EXPECT_EQ(ModeOf(target), 0640u);
  EXPECT_EQ(oxtest::ReadFileBytes(target), "newer");
}

TEST(SafeWrite, ALinkIsWrittenThroughAndStaysALink) {
  oxtest::TempDir dir;
  fs::create_directories(dir.Path() / "real");
  const std::string destination = dir.File("real/data.oxp");
  oxtest::WriteFileBytes(destination, "old");
  const std::string link = dir.File("link.oxp");
  fs::create_symlink("real/data.oxp", link);
  ASSERT_EQ(WriteFileSafely(link, Writes("through the link")), teNoError);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(oxtest::ReadFileBytes(destination), "through the link");
  // A link whose destination doesn't exist yet creates the destination.
  const std::string dangling = dir.File("dangling.oxp");
  fs::create_symlink("real/new.oxp", dangling);
  ASSERT_EQ(WriteFileSafely(dangling, Writes("made")), teNoError);
  EXPECT_TRUE(fs::is_symlink(dangling));
  EXPECT_EQ(oxtest::ReadFileBytes(dir.File("real/new.oxp")), "made");
  EXPECT_TRUE(OtherFiles(dir, {"real", "link.oxp", "dangling.oxp"}).empty());
}

TEST(SafeWrite, WithoutFlushingTheOldFileIsSwappedOutWithItsBitsAndLinksKept) {
  // Without flushing an existing target is exchanged with the temporary rather than renamed over.
  oxtest::TempDir dir;
  const TSafeWriteOptions quick{false};
  const std::string target = dir.File("quick.oxp");
  ASSERT_EQ(WriteFileSafely(target, Writes("first"), nullptr, quick), teNoError); // no target yet
  ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
  const int reader = ::open(target.c_str(), O_RDONLY);
  ASSERT_GE(reader, 0);
  std::string error;
  ASSERT_EQ(WriteFileSafely(target, Writes("second, longer"), &error, quick), teNoError);
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(oxtest::ReadFileBytes(target), "second, longer");
  EXPECT_EQ(ModeOf(target), 0640u);
  // The old file was replaced, not written into: who had it open still reads it whole.
  char old[16] = {};
  EXPECT_EQ(::pread(reader, old, sizeof old, 0), 5);
  EXPECT_STREQ(old, "first");
  ::close(reader);
  EXPECT_TRUE(OtherFiles(dir, {"quick.oxp"}).empty());

  fs::create_directories(dir.Path() / "real");
  oxtest::WriteFileBytes(dir.File("real/data.oxp"), "old");
  const std::string link = dir.File("link.oxp");
  fs::create_symlink("real/data.oxp", link);
  ASSERT_EQ(WriteFileSafely(link, Writes("through the link"), nullptr, quick), teNoError);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(oxtest::ReadFileBytes(dir.File("real/data.oxp")), "through the link");
  EXPECT_TRUE(OtherFiles(dir, {"quick.oxp", "real", "link.oxp"}).empty());
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path() / "real"), fs::directory_iterator()), 1);
}

TEST(SafeWrite, ReadOnlyTargetsFoldersAndMissingFoldersAreRefusedWithTheReason) {
  oxtest::TempDir dir;
  const std::string readOnly = dir.File("ro.oxp");
  oxtest::WriteFileBytes(readOnly, "keep");
  ASSERT_EQ(::chmod(readOnly.c_str(), 0444), 0);
  std::string error;
  EXPECT_EQ(WriteFileSafely(readOnly, Writes("no"), &error), teCreateFileForWriteError);
  EXPECT_EQ(error, "cannot write '" + readOnly + "': the file is read-only");
  EXPECT_EQ(oxtest::ReadFileBytes(readOnly), "keep");

  fs::create_directories(dir.Path() / "folder");
  EXPECT_EQ(WriteFileSafely(dir.File("folder"), Writes("no"), &error), teCreateFileForWriteError);
  EXPECT_EQ(error, "cannot write '" + dir.File("folder") + "': is a folder");

  const std::string missing = dir.File("nowhere/x.oxp");
  EXPECT_EQ(WriteFileSafely(missing, Writes("no"), &error), teCreateFileForWriteError);
  EXPECT_EQ(error, "cannot write '" + missing + "': no such folder");

  if (!RunningAsRoot()) {
    // A folder that may not be written: the system's reason.
    fs::create_directories(dir.Path() / "locked");
    ASSERT_EQ(::chmod(dir.File("locked").c_str(), 0555), 0);
    EXPECT_EQ(WriteFileSafely(dir.File("locked/x.oxp"), Writes("no"), &error), teCreateFileForWriteError);
    EXPECT_EQ(error, "cannot write '" + dir.File("locked/x.oxp") + "': permission denied");
    ::chmod(dir.File("locked").c_str(), 0755);
  }
  EXPECT_TRUE(OtherFiles(dir, {"ro.oxp", "folder", "locked"}).empty());
}

TEST(SafeWrite, AbortedWritesStopTheSaveAndLeaveTheOldFile) {
  oxtest::TempDir dir;
  const std::string target = dir.File("a.oxp");
  oxtest::WriteFileBytes(target, "old");
  std::string error;
  // The abort comes while the save runs, as a signal handler would bring it.
  const TTagError result = WriteFileSafely(
      target,
      [](TFileHandle file) {
        if (!WriteAllBytes(file, "part", 4)) return teWriteFileError;
        AbortPendingSafeWrites();
        return WriteAllBytes(file, "rest", 4) ? teNoError : teWriteFileError;
      },
      &error);
  EXPECT_TRUE(SafeWritesAborted());
  ResetSafeWriteAbort();
  EXPECT_LT(result, 1);
  EXPECT_EQ(error, "saving '" + target + "' cancelled");
  EXPECT_EQ(oxtest::ReadFileBytes(target), "old");
  EXPECT_TRUE(OtherFiles(dir, {"a.oxp"}).empty());

  // An abort between writing and renaming still keeps the old file: the temporary is gone already.
  EXPECT_LT(WriteFileSafely(target,
                            [](TFileHandle file) {
                              const bool ok = WriteAllBytes(file, "complete", 8);
                              AbortPendingSafeWrites();
                              return ok ? teNoError : teWriteFileError;
                            }),
            1);
  ResetSafeWriteAbort();
  EXPECT_EQ(oxtest::ReadFileBytes(target), "old");
  EXPECT_TRUE(OtherFiles(dir, {"a.oxp"}).empty());
  ASSERT_EQ(WriteFileSafely(target, Writes("after")), teNoError);
  EXPECT_EQ(oxtest::ReadFileBytes(target), "after");
}

TEST(SafeWrite, FileErrorReasonsReadAsWords) {
  EXPECT_EQ(FileErrorReason(ENOENT), "no such file");
  EXPECT_EQ(FileErrorReason(EISDIR), "is a folder");
  EXPECT_EQ(FileErrorReason(EACCES), "permission denied");
  EXPECT_EQ(FileErrorReason(ENOSPC), "no space left on device");
  const std::string other = FileErrorReason(EBADF);
  ASSERT_FALSE(other.empty());
  EXPECT_TRUE(std::islower(static_cast<unsigned char>(other[0]))) << other;
}
