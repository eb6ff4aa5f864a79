// The export framework on real files: the maximum size, a short write, names and duplicates, settings files,
// refusals of several objects at once, cancel, and whole exports of the demo map through the manager.
#include "common/Standardmessage.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtext.h"
#include "data/Registerdata.h"
#include "exchange/Exportfileinfo.h"
#include "exchange/Exportfilterascii.h"
#include "exchange/Exportfiltermatlab.h"
#include "exchange/Exportmanager.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

namespace fs = std::filesystem;

// A filter that writes given blocks into one file per object, for the framework's own behaviour.
class TBlockFilter : public TExportFilter {
public:
  TBlockFilter() : TExportFilter("Blocks") {}
  std::vector<std::string> Blocks;
  bool CancelAfterFirst = false;

  bool IsIDListOkay(const TIntList& ids) override {
    FTargetMode = ids.size() == 1 ? etmOneFile : etmSeveralFiles;
    return true;
  }
  void DoExport(TMCC* mcc) override {
    for (size_t i = 0; i < FLockedObjects.size(); ++i) {
      if (!GetTarget()->NextStream()) return;
      for (const std::string& block : Blocks)
        if (!GetTarget()->WriteToStream(block.data(), static_cast<int64_t>(block.size()))) {
          GetTarget()->CleanupCurrentStream();
          break;
        }
      if (CancelAfterFirst && mcc) mcc->CancelThreads();
      if (mcc && mcc->GetCancel()) return;
    }
  }
  void GetFileFilter(std::string& filter, std::string& extension) const override {
    filter = "Block Files|*.blk";
    extension = ".blk";
  }
  std::vector<std::string> GetAcceptedClasses() const override { return {"TData"}; }
  const TParameterTable& GetParameterTable() const override {
    static const TParameterTable table = [] {
      TParameterTable t;
      t.AddInt("Count", "Count", 3).SetLimits(0, 10);
      return t;
    }();
    return table;
  }
};

class ExportFrameworkTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
        new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  }
  void TearDown() override { TMCC::ClearProcessCancelRequest(); }

  TDemoIDs MakeDemo(int32_t x, int32_t y, int32_t points) {
    TDemoOptions options;
    options.SizeX = x;
    options.SizeY = y;
    options.SizeGraph = points;
    return CreateDemoProject(FProject, options);
  }

  std::unique_ptr<TExportFilterTarget> TargetFor(const std::vector<std::string>& names, int64_t maxSize,
                                                 TExportFilter& filter) {
    auto target = std::make_unique<TExportFilterTarget>(names, maxSize);
    target->SetOwner(&filter);
    return target;
  }

  oxtest::TempDir FDir;
  TProject FProject;
};

TEST_F(ExportFrameworkTest, BufferedWritingCopiesRunsWhole) {
  std::vector<int64_t> calls;
  std::string out;
  TBufferedWriting buffer(8, [&](const void* data, int64_t size) {
    calls.push_back(size);
    out.append(static_cast<const char*>(data), static_cast<size_t>(size));
    return true;
  });
  EXPECT_TRUE(buffer.Write("abc"));
  EXPECT_TRUE(buffer.Write("defghij")); // fills the buffer: one block of 8, two bytes stay
  // A run as long as the buffer: the two buffered bytes go first, then the run in one call, uncopied.
  EXPECT_TRUE(buffer.Write(std::string(20, 'x')));
  EXPECT_TRUE(buffer.FlushBuffer());
  EXPECT_EQ(calls, (std::vector<int64_t>{8, 2, 20}));
  EXPECT_EQ(out, "abcdefghij" + std::string(20, 'x'));
  EXPECT_EQ(buffer.BytesWritten(), 30);

  TBufferedWriting failing(4, [](const void*, int64_t) { return false; });
  EXPECT_FALSE(failing.Write("12345"));
  EXPECT_FALSE(failing.Write("1")) << "a failure sticks";
}

TEST_F(ExportFrameworkTest, MaximumSizeFailsAtItsExactByteAndLeavesTheOldFile) {
  TBlockFilter filter;
  const std::string name = FDir.File("limited.blk");
  oxtest::WriteFileBytes(name, "older content");
  {
    auto target = TargetFor({name}, 11, filter); // ten bytes fit, the eleventh would reach the maximum
    ASSERT_TRUE(target->NextStream());
    EXPECT_TRUE(target->WriteToStream("0123456789", 10));
    EXPECT_TRUE(filter.GetErrorList().empty());
    EXPECT_TRUE(target->CloseCurrentStream());
  }
  EXPECT_EQ(oxtest::ReadFileBytes(name), "0123456789");
  {
    auto target = TargetFor({name}, 10, filter);
    ASSERT_TRUE(target->NextStream());
    EXPECT_TRUE(target->WriteToStream("012345678", 9));
    EXPECT_FALSE(target->WriteToStream("9", 1));
    EXPECT_FALSE(target->WriteToStream("", 0) && target->WriteToStream("x", 1))
        << "a failed stream stays failed";
    target->CleanupCurrentStream();
  }
  EXPECT_EQ(filter.GetErrorList(),
            std::vector<std::string>{"Could not write data (maximum export size exceeded)"});
  EXPECT_EQ(oxtest::ReadFileBytes(name), "0123456789") << "the old file is untouched";
  EXPECT_EQ(std::distance(fs::directory_iterator(FDir.Path()), fs::directory_iterator()), 1)
      << "no temporary is left";
}

TEST_F(ExportFrameworkTest, ShortWriteSaysNotEnoughDiskSpace) {
  TBlockFilter filter;
  const std::string name = FDir.File("short.blk");
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limited = old;
  limited.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  bool wrote = true;
  {
    auto target = TargetFor({name}, 0, filter);
    if (target->NextStream()) {
      const std::string block(10000, 'z');
      wrote = target->WriteToStream(block.data(), static_cast<int64_t>(block.size()));
      target->CleanupCurrentStream();
    }
  }
  setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);
  EXPECT_FALSE(wrote);
  EXPECT_EQ(filter.GetErrorList(),
            std::vector<std::string>{"Could not write data (not enough disk space available)"});
  EXPECT_FALSE(fs::exists(name));
  EXPECT_TRUE(fs::is_empty(FDir.Path()));
}

TEST_F(ExportFrameworkTest, ClipboardTargetKeepsOneMemoryStream) {
  TBlockFilter filter;
  auto target = TargetFor({}, 0, filter);
  EXPECT_TRUE(target->IsClipboard());
  ASSERT_TRUE(target->NextStream());
  EXPECT_FALSE(target->NextStream()) << "one memory stream only";
  EXPECT_TRUE(target->WriteToStream("abcdef", 6));
  EXPECT_TRUE(target->SetStreamPosition(2));
  EXPECT_TRUE(target->WriteToStream("XY", 2));
  EXPECT_EQ(target->GetBytesInMemory(), 6);
  const auto& bytes = target->GetMemoryStream()->Bytes();
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "abXYef");
}

TEST_F(ExportFrameworkTest, FileNamesChecksPreviewAndDuplicates) {
  using TForm = TExportFilterFileInfoGetterForm;
  EXPECT_EQ(TForm::CheckFileName("a:b"), "The characters / \\ * ? : < > | \" are not allowed in file names");
  EXPECT_EQ(TForm::CheckFileName(""), "Empty or long names (>200chars) are not allowed");
  EXPECT_EQ(TForm::CheckFileName(std::string(201, 'a')), "Empty or long names (>200chars) are not allowed");
  EXPECT_EQ(TForm::CheckFileName(std::string(200, 'a')), "");
  EXPECT_EQ(TForm::FileNameFromCaption("a/b: c"), "a_b_ c");

  TBlockFilter filter;
  filter.IsIDListOkay({1, 2, 3});
  TForm form;
  form.Folder = FDir.Path().string();
  form.Target = TForm::tSeveralFiles;
  form.UseMyFileName = false;
  std::string problem;
  auto target = form.CreateFileInfo(filter, {1, 2, 3}, {"Map", "Other", "Map"}, problem);
  ASSERT_TRUE(target);
  EXPECT_EQ(target->GetFileNames(),
            (std::vector<std::string>{FDir.File("Map.blk"), FDir.File("Other.blk"), FDir.File("Map_2.blk")}));
  EXPECT_EQ(filter.GetInfoList(), std::vector<std::string>{"Duplicate File Names were renamed."});

  form.UseMyFileName = true;
  form.FileName = "bad|name";
  EXPECT_FALSE(form.CreateFileInfo(filter, {1}, {"Map"}, problem));
  EXPECT_EQ(problem, TForm::CheckFileName("bad|name"));

  form.FileName = "Export File";
  form.AddAutoIncrementNumber = true;
  bool renamed = true;
  EXPECT_EQ(form.MakeFileNames(filter, {"a", "b"}, renamed),
            (std::vector<std::string>{FDir.File("1_Export File.blk"), FDir.File("2_Export File.blk")}));
  EXPECT_FALSE(renamed);

  std::vector<std::string> many(7, "n");
  const auto lines = TForm::PreviewLines(many);
  ASSERT_EQ(lines.size(), static_cast<size_t>(TForm::kPreviewNames) + 2);
  EXPECT_EQ(lines[TForm::kPreviewNames], "More Files (not shown)");
  EXPECT_EQ(lines.back(), "Number of Files: 7");
}

TEST_F(ExportFrameworkTest, SettingsRoundTripMissingAndForeignFiles) {
  const std::string folder = FDir.Path().string();
  TExportFilterMatlab filter;
  filter.Initialize(&FProject, folder);
  EXPECT_EQ(filter.GetSettingsFileName(), folder + "/ExportFilter Matlab Settings.oxh");
  EXPECT_EQ(filter.LoadExportFilterSettingsFromTagFile(), teCreateFileForReadError);
  EXPECT_EQ(filter.SaveExportFilterSettingsToTagFile(), teNoError);
  EXPECT_FALSE(fs::exists(filter.GetSettingsFileName())) << "nothing is saved without the save flag";

  ASSERT_TRUE(
      filter.GetDeclaredValues()
          ->SetParameterValuesFromText({"MatlabExportTypeIndex=Matlab Structure", "XSpectralUnitIndex=3"})
          .empty());
  filter.SetSaveSettings(true);
  ASSERT_EQ(filter.SaveExportFilterSettingsToTagFile(), teNoError);

  TExportFilterMatlab reloaded;
  reloaded.Initialize(&FProject, folder);
  EXPECT_FALSE(reloaded.GetSettingsLoaded());
  ASSERT_GE(reloaded.LoadExportFilterSettingsFromTagFile(), 1);
  EXPECT_TRUE(reloaded.GetSettingsLoaded());
  const TUserParameterAdministrator* values = reloaded.GetDeclaredValues();
  EXPECT_EQ(values->GetUserParameterByName("MatlabExportTypeIndex")->GetValueText(), "Matlab Structure");
  EXPECT_EQ(values->GetUserParameterByName("XSpectralUnitIndex")->GetValueText(), "rel. 1/cm");
  EXPECT_EQ(values->GetUserParameterByName("XSpaceUnitIndex")->GetValueText(), "nm");

  // A file of another kind under that name is not taken.
  TFileHandle file = CreateTagFile(filter.GetSettingsFileName(), "ORX_HDSE");
  ASSERT_NE(file, kInvalidFileHandle);
  TTagControl tag;
  tag.WriteTag(file, TExportFilter::kSettingsTag, TTagKind::TagList);
  tag.CloseWriteTag(file);
  CloseFile(file);
  TExportFilterMatlab foreign;
  foreign.Initialize(&FProject, folder);
  EXPECT_EQ(foreign.LoadExportFilterSettingsFromTagFile(), teWrongFileIdentification);
  EXPECT_FALSE(foreign.GetSettingsLoaded());
  EXPECT_EQ(foreign.GetDeclaredValues()->GetUserParameterByName("MatlabExportTypeIndex")->GetValueText(),
            "DSO 6.0");
}

TEST_F(ExportFrameworkTest, RefusalsOfSeveralObjectsComeTogether) {
  const TDemoIDs ids = MakeDemo(4, 3, 16);
  TExportManager manager(&FProject, "");
  RegisterExportFilters(manager);
  ASSERT_EQ(manager.GetFilters().size(), 3u);
  EXPECT_EQ(manager.GetFilters()[0]->GetName(), "Image ASCII");
  EXPECT_EQ(manager.GetFilters()[1]->GetName(), "Graph ASCII");
  EXPECT_EQ(manager.GetFilters()[2]->GetName(), "Matlab");
  EXPECT_EQ(manager.FindFilter("matlab"), 2);
  EXPECT_EQ(manager.FindFilter("GRAPH ascii"), 1);
  EXPECT_EQ(manager.FindFilter("csv"), -1);
  manager.ReportToUser = false;
  bool asked = false;
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    asked = true;
    return std::unique_ptr<TExportFilterTarget>();
  };
  const TExportResult result = manager.DoExport(2, {ids.Map, ids.Topography, ids.Description, 999});
  EXPECT_FALSE(result.Accepted);
  EXPECT_FALSE(asked) << "refused objects end the export before the file dialog";
  ASSERT_EQ(result.Errors.size(), 3u);
  EXPECT_EQ(result.Errors[0],
            "ID " + std::to_string(ids.Topography) + " (Topography (demo)): not a graph (TDImage)");
  EXPECT_NE(result.Errors[1].find("ID " + std::to_string(ids.Description)), std::string::npos);
  EXPECT_EQ(result.Errors[2], "ID 999: no such data object");
}

TEST_F(ExportFrameworkTest, CancelRemovesTheFileBeingWrittenAndSaysSo) {
  const TDemoIDs ids = MakeDemo(2, 2, 8);
  TExportManager manager(&FProject, "");
  auto& filter = static_cast<TBlockFilter&>(manager.AddFilter(std::make_unique<TBlockFilter>()));
  filter.Blocks = {"first", "second"};
  filter.CancelAfterFirst = true;
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    return std::make_unique<TExportFilterTarget>(
        std::vector<std::string>{FDir.File("a.blk"), FDir.File("b.blk")}, 0);
  };
  const TExportResult result = manager.DoExport(0, {ids.Map, ids.Topography});
  EXPECT_TRUE(result.Started);
  EXPECT_TRUE(result.Cancelled);
  EXPECT_TRUE(result.Files.empty());
  EXPECT_TRUE(fs::is_empty(FDir.Path())) << "the file under way at the cancel is gone";
  EXPECT_EQ(result.InformationTextID, 0) << "nothing to tell when both lists are empty";
  const auto lines = TExportManager::ExportInformationLines(true, {"e1"}, {"i1"});
  EXPECT_EQ(lines.front(), "Export canceled.");
  EXPECT_NE(std::find(lines.begin(), lines.end(), "e1"), lines.end());
}

TEST_F(ExportFrameworkTest, ErrorsAndInfosGoIntoAnExportInformationText) {
  const TDemoIDs ids = MakeDemo(2, 2, 8);
  TExportManager manager(&FProject, "");
  auto& filter = static_cast<TBlockFilter&>(manager.AddFilter(std::make_unique<TBlockFilter>()));
  filter.Blocks = {std::string(100, 'a')};
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    return std::make_unique<TExportFilterTarget>(std::vector<std::string>{FDir.File("a.blk")}, 50);
  };
  const TExportResult result = manager.DoExport(0, {ids.Map});
  ASSERT_EQ(result.Errors, std::vector<std::string>{"Could not write data (maximum export size exceeded)"});
  ASSERT_NE(result.InformationTextID, 0);
  const auto* text = dynamic_cast<const TDText*>(FProject.FindData(result.InformationTextID));
  ASSERT_TRUE(text);
  EXPECT_EQ(text->GetCaption(), "Export Information");
  EXPECT_NE(text->GetText().find("Error Information:"), std::string::npos);
  EXPECT_NE(text->GetText().find("maximum export size exceeded"), std::string::npos);
  EXPECT_TRUE(fs::is_empty(FDir.Path()));
}

std::vector<std::vector<double>> ReadColumns(const std::string& fileName, char separator) {
  std::ifstream in(fileName);
  std::vector<std::vector<double>> rows;
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("# ", 0) == 0) continue;
    std::vector<double> row;
    std::stringstream fields(line);
    std::string field;
    while (std::getline(fields, field, separator)) row.push_back(std::stod(field));
    rows.push_back(row);
  }
  return rows;
}

TEST_F(ExportFrameworkTest, GraphAndImageAsciiReadBackExactly) {
  const TDemoIDs ids = MakeDemo(5, 3, 40);
  auto* map = dynamic_cast<TDGraph*>(FProject.FindData(ids.Map));
  map->SetLineValid(1, false); // the spectra of an invalid line are left out
  TExportManager manager(&FProject, "");
  RegisterExportFilters(manager);
  manager.ReportToUser = false;
  std::string name;
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    return std::make_unique<TExportFilterTarget>(std::vector<std::string>{name}, 0);
  };
  name = FDir.File("map.txt");
  ASSERT_TRUE(
      manager.GetFilters()[1]->GetDeclaredValues()->SetParameterValuesFromText({"Separator=Comma"}).empty());
  TExportResult result = manager.DoExport(1, {ids.Map});
  ASSERT_TRUE(result.Errors.empty()) << result.Errors.front();
  ASSERT_EQ(result.Files.size(), 1u);
  EXPECT_EQ(result.Files[0].Bytes, static_cast<int64_t>(fs::file_size(name)));
  const auto rows = ReadColumns(name, ',');
  ASSERT_EQ(rows.size(), 40u);
  std::vector<float> spectrum(40);
  for (size_t p = 0; p < 40; ++p)
    ASSERT_EQ(rows[p].size(), 1u + 10u) << "axis and the 10 spectra of lines 0 and 2";
  int column = 1;
  for (int32_t y : {0, 2})
    for (int32_t x = 0; x < 5; ++x, ++column) {
      map->GetSpectrum(x, y, spectrum.data(), true);
      for (size_t p = 0; p < 40; ++p) ASSERT_EQ(static_cast<float>(rows[p][column]), spectrum[p]);
    }

  name = FDir.File("topography.txt");
  result = manager.DoExport(0, {ids.Topography});
  ASSERT_TRUE(result.Errors.empty());
  const auto lines = ReadColumns(name, '\t');
  const auto* image = dynamic_cast<TDImage*>(FProject.FindData(ids.Topography));
  ASSERT_EQ(lines.size(), 3u);
  std::vector<float> line(5);
  for (int32_t y = 0; y < 3; ++y) {
    image->GetFastLine(y, line.data());
    ASSERT_EQ(lines[static_cast<size_t>(y)].size(), 5u);
    for (int32_t x = 0; x < 5; ++x)
      EXPECT_EQ(static_cast<float>(lines[static_cast<size_t>(y)][static_cast<size_t>(x)]),
                line[static_cast<size_t>(x)]);
  }
}

TEST_F(ExportFrameworkTest, ClipboardExportHandsOverTheBytesAFileWouldHold) {
  const TDemoIDs ids = MakeDemo(4, 3, 16);
  TExportManager manager(&FProject, "");
  RegisterExportFilters(manager);
  manager.ReportToUser = false;
  std::vector<std::string> names;
  manager.OnCreateFileInfo = [&](TExportFilter&, const TIntList&) {
    return std::make_unique<TExportFilterTarget>(names, 0);
  };
  names = {FDir.File("topography.txt")};
  TExportResult toFile = manager.DoExport(0, {ids.Topography});
  ASSERT_TRUE(toFile.Errors.empty());
  EXPECT_TRUE(toFile.ClipboardBytes.empty()) << "a file export leaves the clipboard alone";
  names.clear(); // no names: the clipboard
  TExportResult toClipboard = manager.DoExport(0, {ids.Topography});
  ASSERT_TRUE(toClipboard.Errors.empty());
  EXPECT_TRUE(toClipboard.Files.empty());
  std::ifstream in(FDir.File("topography.txt"), std::ios::binary);
  const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_FALSE(file.empty());
  EXPECT_EQ(std::string(toClipboard.ClipboardBytes.begin(), toClipboard.ClipboardBytes.end()), file);
}

TEST_F(ExportFrameworkTest, MatlabFilesOfSeveralGraphsWithPatchedSizes) {
  const TDemoIDs ids = MakeDemo(3, 2, 24);
  TExportManager manager(&FProject, "");
  RegisterExportFilters(manager);
  manager.ReportToUser = false;
  TExportFilterFileInfoGetterForm form;
  form.Folder = FDir.Path().string();
  form.Target = TExportFilterFileInfoGetterForm::tSeveralFiles;
  form.UseMyFileName = false;
  manager.OnCreateFileInfo = [&](TExportFilter& filter, const TIntList& list) {
    std::vector<std::string> captions;
    for (int32_t id : list) captions.push_back(FProject.FindData(id)->GetCaption());
    std::string problem;
    return form.CreateFileInfo(filter, list, captions, problem);
  };
  // A graph and its axis objects are locked for an export, and given back after it.
  std::vector<int32_t> locksDuringExport;
  auto& matlab = dynamic_cast<TExportFilterMatlab&>(*manager.GetFilters()[2]);
  ASSERT_TRUE(matlab.LockDataObjects({ids.Map}));
  for (int32_t id : {ids.Map, ids.SpectralTransformation, ids.SpectralInterpretation, ids.SpaceTransformation,
                     ids.SpaceInterpretation})
    locksDuringExport.push_back(FProject.FindData(id)->GetLockNumber());
  matlab.UnlockDataObjects();
  EXPECT_EQ(locksDuringExport, (std::vector<int32_t>{1, 1, 1, 1, 1}));
  const TExportResult result = manager.DoExport(2, {ids.Map, ids.TrueComponents[0], ids.TrueComponents[1]});
  ASSERT_TRUE(result.Errors.empty()) << result.Errors.front();
  for (int32_t id : {ids.Map, ids.SpectralTransformation, ids.SpaceInterpretation})
    EXPECT_EQ(FProject.FindData(id)->GetLockNumber(), 0);
  ASSERT_EQ(result.Files.size(), 3u);
  for (const TExportedFile& file : result.Files) {
    const std::string bytes = oxtest::ReadFileBytes(file.FileName);
    ASSERT_EQ(static_cast<int64_t>(bytes.size()), file.Bytes);
    int32_t size = 0;
    std::memcpy(&size, bytes.data() + 132, 4);
    EXPECT_EQ(size, static_cast<int32_t>(bytes.size()) - 136) << file.FileName;
  }
  EXPECT_EQ(fs::path(result.Files[0].FileName).filename(), "Raman Map (demo).mat");
}

} // namespace
