// TMemoryManagement: options file, strategy creation and fall-back, left-over files, free memory.
#include "MemoryTestSupport.h"
#include "common/Standardmessage.h"
#include "common/Tagcontrol.h"
#include "common/memory/Memorymanagement.h"
#include "common/memory/Partialmemoryarraytemplate.h"
#include "support/TestSupport.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// Saves and restores every static option, and captures the start-up messages.
class MemoryManagementTest : public ::testing::Test {
protected:
  void SetUp() override {
    FSaved = {TMemoryManagement::CurrentStrategy,        TMemoryManagement::StrategyToSave,
              TMemoryManagement::MemoryMappedFileSizeGB, TMemoryManagement::MemoryMappedFileMapSizeMB,
              TMemoryManagement::AWEMemorySizeGB,        TMemoryManagement::AWEMemoryMapSizeMB};
    FSavedPath = TMemoryManagement::MemoryMappedFilePath;
    FSavedFile = TMemoryManagement::MemoryOptionsFileName;
    FSavedAllocator = TMemoryManagement::PartialMemoryAllocator;
    TMemoryManagement::PartialMemoryAllocator = nullptr;
    TMemoryManagement::MemoryOptionsFileName = Dir.File("MemoryOptions.oxh");
    TMemoryManagement::PlainMessageHandler = [this](const std::string& text, const std::string& caption) {
      Messages.push_back(caption + "|" + text);
    };
  }
  void TearDown() override {
    TMemoryManagement::DestroyMemoryStrategy();
    TMemoryManagement::ClearOptionsOverride();
    TMemoryManagement::PartialMemoryAllocator = FSavedAllocator;
    TMemoryManagement::CurrentStrategy = FSaved[0];
    TMemoryManagement::StrategyToSave = FSaved[1];
    TMemoryManagement::MemoryMappedFileSizeGB = FSaved[2];
    TMemoryManagement::MemoryMappedFileMapSizeMB = FSaved[3];
    TMemoryManagement::AWEMemorySizeGB = FSaved[4];
    TMemoryManagement::AWEMemoryMapSizeMB = FSaved[5];
    TMemoryManagement::MemoryMappedFilePath = FSavedPath;
    TMemoryManagement::MemoryOptionsFileName = FSavedFile;
    TMemoryManagement::PlainMessageHandler = nullptr;
  }

  oxtest::TempDir Dir;
  std::vector<std::string> Messages;

private:
  std::vector<int> FSaved;
  std::string FSavedPath;
  std::string FSavedFile;
  IPartialMemoryAllocator* FSavedAllocator = nullptr;
};

// Records what the user would be shown and answers with a fixed button.
class TRecordingStrategy : public IMessagingStrategy {
public:
  TRecordingStrategy(TStandardMessageAnswer answer, std::vector<std::string>& seen)
      : FAnswer(answer), FSeen(seen) {}
  TMessageAnswerFunction GetAnswerStrategyForMessage(IStandardMessage*) override {
    return [this](IStandardMessage* message) {
      FSeen.push_back(message->GetCaption() + "|" + message->GetMessageText());
      return message->GetReply(FAnswer);
    };
  }
  std::string GetName() const override { return "recording"; }

private:
  TStandardMessageAnswer FAnswer;
  std::vector<std::string>& FSeen;
};

} // namespace

TEST_F(MemoryManagementTest, OptionsFileRoundTrip) {
  TMemoryManagement::StrategyToSave = 1;
  TMemoryManagement::CurrentStrategy = 0; // running after a fall-back: the file keeps the wish
  TMemoryManagement::MemoryMappedFilePath = "/data/scratch µm/";
  TMemoryManagement::MemoryMappedFileSizeGB = 100;
  TMemoryManagement::MemoryMappedFileMapSizeMB = 64;
  TMemoryManagement::AWEMemorySizeGB = 3;
  TMemoryManagement::AWEMemoryMapSizeMB = 32;
  ASSERT_GE(TMemoryManagement::SaveOptionsToFile(), 1);

  TMemoryManagement::MemoryMappedFilePath = "";
  TMemoryManagement::MemoryMappedFileSizeGB = TMemoryManagement::MemoryMappedFileMapSizeMB = 0;
  TMemoryManagement::AWEMemorySizeGB = TMemoryManagement::AWEMemoryMapSizeMB = 0;
  TMemoryManagement::StrategyToSave = 0;
  ASSERT_GE(TMemoryManagement::LoadOptionsFromFile(), 1);
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 1);
  EXPECT_EQ(TMemoryManagement::StrategyToSave, 1);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFilePath, "/data/scratch µm/");
  EXPECT_EQ(TMemoryManagement::MemoryMappedFileSizeGB, 100);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFileMapSizeMB, 64);
  EXPECT_EQ(TMemoryManagement::AWEMemorySizeGB, 3);
  EXPECT_EQ(TMemoryManagement::AWEMemoryMapSizeMB, 32);

  // The layout: root "MemoryOptions" with the two groups.
  TTagControl root;
  ASSERT_GE(root.LoadTagListByFileName(TMemoryManagement::MemoryOptionsFileName, "ORX_HDSE"), 1);
  EXPECT_EQ(root.Name(), "MemoryOptions");
  int32_t value = 0;
  EXPECT_GE(root.GetIntTagInList("MemoryMappedFile|FileSizeInGigaBytes", value), 1);
  EXPECT_EQ(value, 100);
  EXPECT_GE(root.GetIntTagInList("AddressWindowingExtension|MapSizeInMegaBytes", value), 1);
  EXPECT_EQ(value, 32);
}

TEST_F(MemoryManagementTest, OptionsFileErrors) {
  TMemoryManagement::MemoryOptionsFileName = Dir.File("missing.oxh");
  EXPECT_EQ(TMemoryManagement::LoadOptionsFromFile(), -6);
  TMemoryManagement::MemoryOptionsFileName = Dir.File("nodir/sub/MemoryOptions.oxh");
  EXPECT_EQ(TMemoryManagement::SaveOptionsToFile(), -5);

  // A file of another kind.
  TMemoryManagement::MemoryOptionsFileName = Dir.File("other.oxh");
  {
    TTagControl root("MemoryOptions", TTagKind::TagList);
    ASSERT_GE(root.SaveTagListToFileByName(TMemoryManagement::MemoryOptionsFileName, "ORX_PRSE"), 1);
  }
  EXPECT_EQ(TMemoryManagement::LoadOptionsFromFile(), -4);

  // A file that ends after the strategy: values read so far stay, the first failing read is returned.
  TMemoryManagement::MemoryOptionsFileName = Dir.File("short.oxh");
  {
    TTagControl root("MemoryOptions", TTagKind::TagList);
    const int32_t strategy = 1;
    root.AddSubTag("MemoryStrategy", TTagKind::Int, &strategy);
    ASSERT_GE(root.SaveTagListToFileByName(TMemoryManagement::MemoryOptionsFileName, "ORX_HDSE"), 1);
  }
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::MemoryMappedFileSizeGB = 16;
  EXPECT_EQ(TMemoryManagement::LoadOptionsFromFile(), -1);
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 1);
  EXPECT_EQ(TMemoryManagement::StrategyToSave, 1);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFileSizeGB, 16);
}

TEST_F(MemoryManagementTest, MemoryMappedStrategyIsCreatedInItsFolderAfterCleaningLeftOvers) {
  const fs::path folder = Dir.Path() / "cache" / "OrvexMMF";
  fs::create_directories(folder);
  oxtest::WriteFileBytes((folder / "qztcrash1.tmp").string(), "old");
  oxtest::WriteFileBytes((folder / "qztcrash2.tmp").string(), "old");
  fs::permissions(folder / "qztcrash2.tmp", fs::perms::none);
  oxtest::WriteFileBytes((folder / "keep.dat").string(), "not ours");
  // A file another running process holds stays.
  const int held = ::open((folder / "qztliving.tmp").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX | LOCK_NB), 0);
  // flock locks belong to open files, so the descriptor above counts as another owner.
  EXPECT_EQ(TMemoryManagement::RemoveLeftOverTemporaryFiles(folder.string()), 2);
  EXPECT_TRUE(fs::exists(folder / "qztliving.tmp"));
  EXPECT_FALSE(fs::exists(folder / "qztcrash1.tmp"));
  EXPECT_FALSE(fs::exists(folder / "qztcrash2.tmp"));
  EXPECT_TRUE(fs::exists(folder / "keep.dat"));
  ::close(held);
  oxtest::WriteFileBytes((folder / "qztcrash3.tmp").string(), "old");

  TMemoryManagement::CurrentStrategy = 1;
  TMemoryManagement::MemoryMappedFilePath = (Dir.Path() / "cache").string(); // no trailing delimiter
  TMemoryManagement::MemoryMappedFileSizeGB = 1;
  TMemoryManagement::MemoryMappedFileMapSizeMB = 16;
  TMemoryManagement::CreateMemoryStrategy();
  EXPECT_TRUE(Messages.empty()) << Messages.front();
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 1);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFilePath, (Dir.Path() / "cache").string() + "/");
  EXPECT_FALSE(fs::exists(folder / "qztcrash3.tmp"));
  EXPECT_FALSE(fs::exists(folder / "qztliving.tmp"));
  // The new backing file left the folder as soon as it was made: a killed run leaves nothing here.
  int tmpFiles = 0;
  for (const auto& entry : fs::directory_iterator(folder)) tmpFiles += entry.path().extension() == ".tmp";
  EXPECT_EQ(tmpFiles, 0);
  uint32_t total, free, pageSize;
  TMemoryManagement::PartialMemoryAllocator->GetMemoryStatus(total, free, pageSize);
  EXPECT_EQ(total, 16384u);
  EXPECT_EQ(TMemoryManagement::GetAvailableExtendedMemoryInPercent(), 100.0);
  EXPECT_NE(TMemoryManagement::GetMemoryStatusPercentageString().find(" - EM: 100%"), std::string::npos);
  TMemoryManagement::DestroyMemoryStrategy();
  EXPECT_EQ(TMemoryManagement::PartialMemoryAllocator, nullptr);
  tmpFiles = 0;
  for (const auto& entry : fs::directory_iterator(folder)) tmpFiles += entry.path().extension() == ".tmp";
  EXPECT_EQ(tmpFiles, 0);
}

TEST_F(MemoryManagementTest, FallsBackToTheHeapWithAMessageAndKeepsTheWish) {
  // The folder can't be made: a plain file stands where a directory should be.
  oxtest::WriteFileBytes(Dir.File("blocker"), "x");
  TMemoryManagement::CurrentStrategy = 1;
  TMemoryManagement::StrategyToSave = 1;
  TMemoryManagement::MemoryMappedFilePath = Dir.File("blocker");
  TMemoryManagement::CreateMemoryStrategy();
  ASSERT_EQ(Messages.size(), 1u);
  EXPECT_EQ(Messages[0],
            "Memory Strategy Error|Could not create wanted memory strategy. Using default strategy "
            "(<2GBytes).\n\nError:\nPath does not exist: " +
                Dir.File("blocker") + "/OrvexMMF/");
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 0);
  EXPECT_EQ(TMemoryManagement::StrategyToSave, 1);
  ASSERT_NE(dynamic_cast<TPartialMemoryFromHeapAllocator*>(TMemoryManagement::PartialMemoryAllocator),
            nullptr);
  // The heap strategy of a 64-bit process offers the machine's memory, not 2 GB.
  uint32_t total, free, pageSize;
  TMemoryManagement::PartialMemoryAllocator->GetMemoryStatus(total, free, pageSize);
  EXPECT_EQ(uint64_t(total), TMemoryManagement::HeapStrategyLimitInBytes() / pageSize + 1);
  EXPECT_EQ(TMemoryManagement::GetAvailableExtendedMemoryInPercent(), 0.0);
  TMemoryManagement::DestroyMemoryStrategy();

  // A map size larger than the file.
  Messages.clear();
  TMemoryManagement::CurrentStrategy = 1;
  TMemoryManagement::MemoryMappedFilePath = Dir.Path().string();
  TMemoryManagement::MemoryMappedFileSizeGB = 0;
  TMemoryManagement::CreateMemoryStrategy();
  ASSERT_EQ(Messages.size(), 1u);
  EXPECT_NE(
      Messages[0].find("Initializing memory strategy MMF did not work.\nMaybe not enough disk space on \"" +
                       Dir.Path().string() + "/OrvexMMF/\""),
      std::string::npos);
  EXPECT_EQ(TMemoryManagement::CurrentStrategy, 0);
  TMemoryManagement::DestroyMemoryStrategy();

  // Strategy 2 is not built here and fails like a strategy that did not initialise; unknown values too.
  for (int strategy : {2, 7}) {
    Messages.clear();
    TMemoryManagement::CurrentStrategy = strategy;
    TMemoryManagement::CreateMemoryStrategy();
    ASSERT_EQ(Messages.size(), 1u);
    EXPECT_NE(Messages[0].find(strategy == 2 ? "Initializing memory strategy AWE did not work."
                                             : "Unkown memory strategy: \nFilename: " +
                                                   TMemoryManagement::MemoryOptionsFileName),
              std::string::npos);
    EXPECT_EQ(TMemoryManagement::CurrentStrategy, 0);
    EXPECT_NE(TMemoryManagement::PartialMemoryAllocator, nullptr);
    TMemoryManagement::DestroyMemoryStrategy();
  }
}

TEST_F(MemoryManagementTest, CommandLineOverrideLastsOneRunOnly) {
  TMemoryManagement::CurrentStrategy = 0;
  TMemoryManagement::StrategyToSave = 0;
  TMemoryManagement::MemoryMappedFilePath = "/nonexistent-in-file/";
  TMemoryManagement::MemoryMappedFileSizeGB = 16;
  TMemoryManagement::MemoryMappedFileMapSizeMB = 512;
  EXPECT_NE(TMemoryManagement::ApplyOptionsOverride({"awe", "", 0, 0}), "");
  EXPECT_NE(TMemoryManagement::ApplyOptionsOverride({"mmf", "", 0, 5000}), "");
  EXPECT_EQ(TMemoryManagement::ApplyOptionsOverride({"mmf", Dir.Path().string(), 0.25, 2}), "");
  TMemoryManagement::CreateMemoryStrategy();
  EXPECT_TRUE(Messages.empty());
  ASSERT_EQ(TMemoryManagement::CurrentStrategy, 1);
  auto* mmf = dynamic_cast<TPartialMemoryFromMMFAllocator*>(TMemoryManagement::PartialMemoryAllocator);
  ASSERT_NE(mmf, nullptr);
  EXPECT_EQ(mmf->Memory()->TotalPages(), 4096u);    // 0.25 GB
  EXPECT_EQ(mmf->Memory()->MappedPageCount(), 32u); // 2 MB
  EXPECT_EQ(fs::path(mmf->Memory()->FileName()).parent_path(), Dir.Path() / "OrvexMMF");
  // The file still gets the values it had.
  ASSERT_GE(TMemoryManagement::SaveOptionsToFile(), 1);
  TMemoryManagement::MemoryMappedFilePath.clear();
  ASSERT_GE(TMemoryManagement::LoadOptionsFromFile(), 1);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFilePath, "/nonexistent-in-file/");
  EXPECT_EQ(TMemoryManagement::StrategyToSave, 0);
  EXPECT_EQ(TMemoryManagement::MemoryMappedFileMapSizeMB, 512);
}

TEST_F(MemoryManagementTest, EnoughMemoryUsesTheSafetyFactorOfTheAvailableBytes) {
  // 1600 pages are exactly 104,857,600 bytes: factor 1.5.
  {
    oxtest::TScopedStrategy strategy(oxtest::TStrategyKind::MMF, 1600 * 65536ull, 16 * 65536);
    ASSERT_EQ(TMemoryManagement::GetAvailableMemoryInBytes(false), 104857600);
    EXPECT_TRUE(TMemoryManagement::IsEnoughMemoryAvailable(69905066, false, "", false));
    EXPECT_FALSE(TMemoryManagement::IsEnoughMemoryAvailable(69905067, false, "", false));
  }
  // One page less: factor 3.0, and exactly equal is not enough.
  {
    oxtest::TScopedStrategy strategy(oxtest::TStrategyKind::MMF, 1599 * 65536ull, 16 * 65536);
    ASSERT_EQ(TMemoryManagement::GetAvailableMemoryInBytes(false), 104792064);
    EXPECT_FALSE(TMemoryManagement::IsEnoughMemoryAvailable(34930688, false, "", false));
    EXPECT_TRUE(TMemoryManagement::IsEnoughMemoryAvailable(34930687, false, "", false));
    TPartialMemoryArray<uint8_t> used(599 * 65536);
    EXPECT_EQ(TMemoryManagement::GetAvailableMemoryInBytes(false), 1000 * 65536);
    // Ignoring the strategy asks the machine.
    EXPECT_GT(TMemoryManagement::GetAvailableMemoryInBytes(true), 0);
  }
}

TEST_F(MemoryManagementTest, NotEnoughMemoryTellsOrAsksTheUser) {
  std::vector<std::string> seen;
  TMessageProxy* proxy = TMessageProxy::MsgProxySingleton();
  proxy->SetMessagingStrategy(new TRecordingStrategy(kAnswerYes, seen));
  oxtest::TScopedStrategy strategy(oxtest::TStrategyKind::MMF, 100 * 1048576ull, 16 * 65536);
  // Needed above available: a notification, and false.
  EXPECT_FALSE(TMemoryManagement::IsEnoughMemoryAvailable(200 * 1048576ll, true,
                                                          "PCA Temporary Calculation Data", false));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], "Not enough memory|Sorry, but there is not enough memory available for this action\n\n"
                     "Memory needed: 200 MB - Available Memory: 100 MB\n\nAdditional Info: PCA Temporary "
                     "Calculation Data\n\n");
  // Needed below available but within the factor: the Yes/No question decides.
  EXPECT_TRUE(TMemoryManagement::IsEnoughMemoryAvailable(80 * 1048576ll, true, "", false));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(
      seen[1].substr(0, seen[1].find('\n')),
      "WARNING: Memory Problem|WARNING: You're about to append data that could lead to memory allocation "
      "problems:");
  EXPECT_NE(seen[1].find("Memory needed: 80 MB - Available Memory: 100 MB\n\nIf you run into"),
            std::string::npos);
  proxy->SetMessagingStrategy(new TRecordingStrategy(kAnswerNo, seen));
  EXPECT_FALSE(TMemoryManagement::IsEnoughMemoryAvailable(80 * 1048576ll, true, "", false));
  EXPECT_EQ(seen.size(), 3u);
  TMessageProxy::CleanupRegisteredMessagesAndSingletonObject();
}

TEST(MemoryStatus, LinuxFiguresAreConsistent) {
  const TSystemMemoryStatus status = TMemoryManagement::ReadSystemMemoryStatus();
  EXPECT_GT(status.TotalPhysical, 0u);
  EXPECT_LE(status.AvailablePhysical, status.TotalPhysical);
  EXPECT_GE(status.TotalPageFile, status.TotalPhysical);
  EXPECT_LE(status.AvailablePageFile, status.TotalPageFile);
  EXPECT_LT(status.AvailableAddressSpace, status.TotalAddressSpace);
  int physical = -1, pageFile = -1, addressSpace = -1;
  TMemoryManagement::GetMemoryStatusPercentage(physical, pageFile, addressSpace);
  for (int percent : {physical, pageFile, addressSpace}) {
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
  }
  EXPECT_EQ(TMemoryManagement::MemoryMappedFileDirectory("/x"), "/x/OrvexMMF/");
  EXPECT_GT(TMemoryManagement::GetFreeDiskBytes("/"), 0u);
  EXPECT_EQ(TMemoryManagement::GetFreeDiskBytes("/does/not/exist"), 0u);
}
