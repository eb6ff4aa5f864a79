// The tool frame with a recording window peer and two small tools (one per frame): life cycle, preview
// objects and viewers, drops, commands, cancel, errors of threads, stored defaults and the history.
#include "MessageRecorder.h"
#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dcursor.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dtransformation.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Orvexdirectories.h"
#include "project/Processingdialogforms.h"
#include "project/Project.h"
#include "project/Toolhistory.h"
#include "project/Viewerbase.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

// The window of a tool as tests see it.
struct TRecordingWindow : IToolWindow {
  int Shown = 0, Hidden = 0, Fronted = 0, Centred = 0;
  std::string Title;
  void SetTitle(const std::string& title) override { Title = title; }
  void ShowWindow() override { ++Shown; }
  void HideWindow() override { ++Hidden; }
  void BringToFront() override { ++Fronted; }
  void CenterOnPrimaryMonitor() override { ++Centred; }
};

class TTestViewer : public TVCustomForm {
public:
  std::string GetClassNameA() const override { return "TTestViewer"; }
  int32_t ImageID = 0;
  int Holds = 0;
};

struct TTestViewerFactory : IToolViewerFactory {
  int Made = 0;
  std::unique_ptr<TVCustomForm> CreateGraphViewer(TProject&, int32_t, const std::vector<int32_t>&) override {
    ++Made;
    return std::make_unique<TTestViewer>();
  }
  std::unique_ptr<TVCustomForm> CreateImageViewer(TProject&, int32_t id, bool) override {
    ++Made;
    auto viewer = std::make_unique<TTestViewer>();
    viewer->ImageID = id;
    return viewer;
  }
  void SetImageID(TVCustomForm& viewer, int32_t id) override {
    static_cast<TTestViewer&>(viewer).ImageID = id;
  }
  void SetAutoUpdate(TVCustomForm& viewer, bool hold) override {
    static_cast<TTestViewer&>(viewer).Holds += hold ? 1 : -1;
  }
};

TParameterTable& OffsetTable() {
  static TParameterTable table = [] {
    TParameterTable t;
    t.AddFloat("Offset", "Offset", 1.0).SetLimits(-100, 100);
    t.AddBool("Fail", "Fail in a thread", false);
    t.AddString("Note", "Note", "");
    t.AddTrigger(TProjectDialogForm::kCalculatePreview, "Calculate Preview");
    t.AddTrigger(TProjectDialogForm::kExtract, "Extract");
    t.AddTrigger(TProjectDialogForm::kExtractAll, "Extract All");
    return t;
  }();
  return table;
}

// Adds Offset to every value; one result graph per input.
class TOffsetGraphForm : public TProjectGraphProcessingDialogForm {
public:
  TOffsetGraphForm() : TProjectGraphProcessingDialogForm("Offset Graphs", OffsetTable()) {}
  std::string GetClassNameA() const override { return "TOffsetGraphForm"; }
  bool CancelInThread = false;

protected:
  bool PreCalculate(TGraphList& inputs, TGraphList& results) override {
    if (GetIsPreview()) {
      results.push_back(dynamic_cast<TDGraph*>(GetProject()->FindData(GetPreviewGraphID())));
      return results.back() != nullptr;
    }
    for (TDGraph* input : inputs) {
      TResultInfo info;
      info.CaptionSuffix = " (Offset)";
      TDGraph* result = OwnResult(
          TDGraph::CreateResultGraph(*GetProject(), input->GetID(), false, TDataFieldKind::Float, info));
      result->SetAllLinesValid(true);
      results.push_back(result);
    }
    return true;
  }
  void CalculateThread(TMCC* mcc, int thread, TGraphList& inputs, TGraphList& results) override {
    if (GetBoolParameter("Fail")) throw OrvexException("TOffsetGraphForm::CalculateThread(): wanted failure");
    if (CancelInThread) mcc->CancelThreads();
    if (thread != 0) return;
    const float offset = static_cast<float>(GetFloatParameter("Offset"));
    for (size_t i = 0; i < inputs.size(); ++i) {
      std::vector<float> spectrum(static_cast<size_t>(inputs[i]->GetSizeGraph()));
      if (GetIsPreview()) {
        inputs[i]->GetSpectrum(GetPositionX(), GetPositionY(), spectrum.data());
        for (float& v : spectrum) v += offset;
        results[i]->SetSpectrum(0, 0, spectrum.data());
        results[i]->SetLineValid(0, true);
        continue;
      }
      for (int64_t e = 0; e < inputs[i]->GetNumberOfSpectra(); ++e) {
        inputs[i]->GetSpectrumOfElement(e, spectrum.data());
        for (float& v : spectrum) v += offset;
        results[i]->SetSpectrumOfElement(e, spectrum.data());
      }
    }
  }
  void PostCalculate(TGraphList&, TGraphList& results) override { HandOverResults(results); }
};

// The same on images.
class TOffsetImageForm : public TProjectImageProcessingDialogForm {
public:
  TOffsetImageForm() : TProjectImageProcessingDialogForm("Offset Images", OffsetTable()) {}
  std::string GetClassNameA() const override { return "TOffsetImageForm"; }

protected:
  void PreCalculate(TImageList& inputs, TImageList& results) override {
    for (TDImage* input : inputs) {
      if (GetIsPreview()) {
        results.push_back(dynamic_cast<TDImage*>(GetProject()->FindData(PreviewImages().front().ID)));
        continue;
      }
      TResultInfo info;
      info.CaptionSuffix = " (Offset)";
      results.push_back(
          OwnResult(TDImage::CreateResultImage(*GetProject(), input->GetID(), TDataFieldKind::Float, info)));
    }
  }
  void CalculateThread(TMCC*, int thread, TImageList& inputs, TImageList& results) override {
    if (GetBoolParameter("Fail")) throw OrvexException("TOffsetImageForm::CalculateThread(): wanted failure");
    if (thread != 0) return;
    const float offset = static_cast<float>(GetFloatParameter("Offset"));
    for (size_t i = 0; i < inputs.size(); ++i)
      for (int32_t y = 0; y < inputs[i]->GetSizeY(); ++y) {
        for (int32_t x = 0; x < inputs[i]->GetSizeX(); ++x)
          results[i]->SetField(x, y, inputs[i]->GetField(x, y) + offset);
        results[i]->SetLineValid(y, inputs[i]->GetLineValid(y));
      }
  }
  void PostCalculate(TImageList&, TImageList& results) override { HandOverResults(results); }
};

class ToolFrameTest : public ::testing::Test {
protected:
  void SetUp() override {
    RegisterDataClasses();
    oxtest::EnsureMemoryStrategy();
    FRecord = std::make_shared<oxtest::TMessageRecord>();
    TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(new oxtest::TRecordingStrategy(FRecord));
    TDemoOptions options;
    options.SizeX = 6;
    options.SizeY = 5;
    options.SizeGraph = 32;
    FIDs = CreateDemoProject(FProject, options);
    IToolViewerFactory::SetFactory(&FFactory);
    TOrvexDirectoryRoots roots;
    roots.UserRoot = FDir.Path().string() + "/user/";
    TOrvexDirectories::FormDirectoryStrings(roots);
  }
  void TearDown() override { IToolViewerFactory::SetFactory(nullptr); }

  TDGraph& Map() { return *dynamic_cast<TDGraph*>(FProject.FindData(FIDs.Map)); }
  int32_t AddGraphCopy() {
    auto copy = TDGraph::CreateNewGraph(&FProject, FIDs.Map, false, TDataFieldKind::Float,
                                        TDataSaveMode::Always, "Copy");
    copy->CopyFieldFrom(Map());
    const int32_t id = copy->GetID();
    FProject.AddData(std::move(copy));
    return id;
  }
  size_t CountObjects() const { return FProject.DataList().size(); }

  oxtest::TempDir FDir;
  std::shared_ptr<oxtest::TMessageRecord> FRecord;
  TProject FProject;
  TDemoIDs FIDs;
  TTestViewerFactory FFactory;
};

TEST_F(ToolFrameTest, LifeCycleKeepsPreviewsOnlyWhileOpenAndNeverSavesThem) {
  TOffsetGraphForm tool;
  TRecordingWindow window;
  tool.SetWindow(&window);
  EXPECT_EQ(window.Title, "Offset Graphs");
  const size_t before = CountObjects();
  const TIntList ids{FIDs.Map};
  std::string reason;
  ASSERT_TRUE(tool.IsInputIDListOkay(&FProject, &ids, nullptr, &reason)) << reason;
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_TRUE(tool.GetIsActive());
  // Preview and original graph, the connector, one viewer (not saved), one calculation.
  EXPECT_EQ(tool.GetTemporaryIDs().size(), 2u);
  EXPECT_EQ(FFactory.Made, 1);
  EXPECT_EQ(tool.GetCustomForms().size(), 1u);
  EXPECT_EQ(tool.GetNumberOfCalculations(), 1);
  EXPECT_EQ(static_cast<TTestViewer*>(tool.GetCustomForms().front())->Holds, 0);
  auto* preview = dynamic_cast<TDGraph*>(FProject.FindData(tool.GetPreviewGraphID()));
  ASSERT_NE(preview, nullptr);
  EXPECT_FLOAT_EQ(preview->GetField(0, 0, 3), Map().GetField(0, 0, 3) + 1.0f);

  // A project saved while the tool is open holds none of its objects or viewers.
  const std::string file = FDir.Path().string() + "/open.oxp";
  ASSERT_EQ(FProject.SaveProjectToFile(file), teNoError);
  TProject loaded;
  ASSERT_GE(loaded.LoadProjectFromFile(file), 1);
  EXPECT_EQ(loaded.DataList().size(), before);
  EXPECT_TRUE(loaded.ViewerList().empty());

  tool.CleanUp();
  EXPECT_FALSE(tool.GetIsActive());
  EXPECT_EQ(CountObjects(), before);
  EXPECT_TRUE(FProject.ViewerList().empty());
  EXPECT_EQ(window.Hidden, 1);
}

TEST_F(ToolFrameTest, RemovingAnInputClosesEitherFrame) {
  const int32_t second = AddGraphCopy();
  const size_t before = CountObjects();
  TOffsetGraphForm graphTool;
  const TIntList graphs{FIDs.Map, second};
  graphTool.Init(&graphs, nullptr, &FProject);
  ASSERT_TRUE(graphTool.GetIsActive());
  FProject.DeleteData(second);
  EXPECT_FALSE(graphTool.GetIsActive());
  EXPECT_EQ(CountObjects(), before - 1);

  TOffsetImageForm imageTool;
  const TIntList images{FIDs.Topography};
  imageTool.Init(&images, nullptr, &FProject);
  ASSERT_TRUE(imageTool.GetIsActive());
  EXPECT_EQ(imageTool.PreviewImages().size(), 1u);
  EXPECT_NE(imageTool.PreviewImages().front().Viewer, nullptr); // preview viewers come with the first preview
  FProject.DeleteData(FIDs.Topography);
  EXPECT_FALSE(imageTool.GetIsActive());
  EXPECT_TRUE(FProject.ViewerList().empty());
}

TEST_F(ToolFrameTest, CtrlDropExtractsOnceAndShowsNothing) {
  TOffsetGraphForm tool;
  TRecordingWindow window;
  tool.SetWindow(&window);
  const size_t before = CountObjects();
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Map}, TProjectDialogForm::kExtract, false);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(window.Shown, 0);
  EXPECT_EQ(FFactory.Made, 0);
  EXPECT_EQ(tool.GetNumberOfCalculations(), 1); // the extract, no preview
  EXPECT_EQ(CountObjects(), before + 1);
  auto* result = dynamic_cast<TDGraph*>(FProject.FindData(results.front()));
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->GetCaption(), Map().GetCaption() + " (Offset)");
  EXPECT_FLOAT_EQ(result->GetField(4, 3, 7), Map().GetField(4, 3, 7) + 1.0f);
  EXPECT_FALSE(tool.GetIsActive());
  EXPECT_TRUE(tool.Interactive); // the drop's behaviour ends with the run
}

TEST_F(ToolFrameTest, ConfigurationOnlyDisablesBothExtracts) {
  TOffsetGraphForm tool;
  tool.ConfigurationOnly = true;
  tool.Init(nullptr, nullptr, &FProject);
  EXPECT_FALSE(tool.Parameters().GetUserParameterByName("Extract")->GetEnabled());
  EXPECT_FALSE(tool.Parameters().GetUserParameterByName("Extract All")->GetEnabled());
  EXPECT_FALSE(tool.ExecuteCommand("Extract"));
  tool.CleanUp();
  tool.ResetDialogBehaviour();
  const TIntList ids{FIDs.Map};
  tool.Init(&ids, nullptr, &FProject);
  EXPECT_TRUE(tool.Parameters().GetUserParameterByName("Extract")->GetEnabled());
}

TEST_F(ToolFrameTest, OnlyAMovedCursorRecalculatesThePreview) {
  TOffsetGraphForm tool;
  const TIntList ids{FIDs.Map};
  tool.Init(&ids, nullptr, &FProject);
  ASSERT_EQ(tool.GetNumberOfCalculations(), 1);
  // A space cursor on pixel (2, 3) of the map.
  TCursorLink link;
  const int32_t cursorID = link.ConnectByTransformation(FProject, FIDs.SpaceTransformation);
  ASSERT_NE(cursorID, 0);
  auto* space = dynamic_cast<TDSpaceTransformation*>(FProject.FindData(FIDs.SpaceTransformation));
  double bin[3] = {2, 3, 0}, real[3] = {0, 0, 0};
  space->BinToReal(bin, real);
  auto* cursor = dynamic_cast<TDCursor*>(FProject.FindData(cursorID));
  cursor->SetPosition(0, real[0]);
  cursor->SetPosition(1, real[1]);
  cursor->DoDataChange(TDataChangeInfo::DataChanged);
  const int afterMove = tool.GetNumberOfCalculations();
  EXPECT_GE(afterMove, 2);
  EXPECT_EQ(tool.GetPositionX(), 2);
  EXPECT_EQ(tool.GetPositionY(), 3);
  auto* preview = dynamic_cast<TDGraph*>(FProject.FindData(tool.GetPreviewGraphID()));
  EXPECT_FLOAT_EQ(preview->GetField(0, 0, 5), Map().GetField(2, 3, 5) + 1.0f);
  cursor->DoDataChange(TDataChangeInfo::DataChanged); // same place
  EXPECT_EQ(tool.GetNumberOfCalculations(), afterMove);
  // A cursor off the map keeps the last position.
  double far[3] = {1e6, 1e6, 0};
  cursor->SetPosition(0, far[0]);
  cursor->DoDataChange(TDataChangeInfo::DataChanged);
  EXPECT_EQ(tool.GetNumberOfCalculations(), afterMove);
  EXPECT_EQ(tool.GetPositionX(), 2);
}

TEST_F(ToolFrameTest, CancelAddsNothing) {
  TOffsetGraphForm tool;
  tool.CancelInThread = true;
  const size_t before = CountObjects();
  EXPECT_THROW(tool.RunNonInteractive(FProject, {FIDs.Map}, TProjectDialogForm::kExtract, false),
               OrvexException);
  EXPECT_EQ(CountObjects(), before);
  EXPECT_FALSE(tool.GetIsActive());
}

TEST_F(ToolFrameTest, AThreadsExceptionReachesTheCallerOnceAndNothingIsAdded) {
  for (bool graphFrame : {true, false}) {
    std::unique_ptr<TProjectDialogForm> tool;
    if (graphFrame)
      tool = std::make_unique<TOffsetGraphForm>();
    else
      tool = std::make_unique<TOffsetImageForm>();
    ASSERT_TRUE(tool->Parameters().SetParameterValuesFromText({"Fail=true"}).empty());
    const size_t before = CountObjects();
    int caught = 0;
    try {
      tool->RunNonInteractive(FProject, {graphFrame ? FIDs.Map : FIDs.Topography}, "Extract", false);
    } catch (const OrvexException& e) {
      ++caught;
      std::string text = e.what();
      if (const auto* history = e.ExceptionHistory())
        for (const std::string& entry : *history) text += " | " + entry;
      EXPECT_NE(text.find("wanted failure"), std::string::npos) << text;
    }
    EXPECT_EQ(caught, 1);
    EXPECT_EQ(CountObjects(), before);
    EXPECT_FALSE(tool->GetIsActive());
  }
}

TEST_F(ToolFrameTest, ImageFrameExtractsEveryInputWithAll) {
  auto copy =
      TDImage::CreateNewImage(&FProject, FIDs.Topography, TDataFieldKind::Float, TDataSaveMode::Always, "B");
  const int32_t second = copy->GetID();
  copy->CopyFieldValuesFrom(*dynamic_cast<TDImage*>(FProject.FindData(FIDs.Topography)));
  FProject.AddData(std::move(copy));
  TOffsetImageForm tool;
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Offset=2.5"}).empty());
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Topography, second}, "Extract", true);
  ASSERT_EQ(results.size(), 2u);
  auto* input = dynamic_cast<TDImage*>(FProject.FindData(second));
  auto* result = dynamic_cast<TDImage*>(FProject.FindData(results[1]));
  EXPECT_FLOAT_EQ(result->GetField(3, 2), input->GetField(3, 2) + 2.5f);
  // Each result carries its run, numbered.
  ASSERT_FALSE(result->GetHistoryList().empty());
  EXPECT_NE(result->GetHistoryList().back().Text.find("--all"), std::string::npos);
  EXPECT_NE(result->GetHistoryList().back().Text.find("(result 2 of 2)"), std::string::npos);
}

TEST_F(ToolFrameTest, RefusedInputsSayWhy) {
  TOffsetGraphForm tool;
  tool.MaxNumberOfGraphs = 1;
  std::string reason;
  TIntList none;
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &none, nullptr, &reason));
  EXPECT_EQ(reason, "no graph is given");
  TIntList image{FIDs.Topography};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &image, nullptr, &reason));
  EXPECT_NE(reason.find("TDImage"), std::string::npos) << reason;
  TIntList missing{999};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &missing, nullptr, &reason));
  EXPECT_EQ(reason, "no object has the ID 999");
  TIntList two{FIDs.Map, AddGraphCopy()};
  EXPECT_FALSE(tool.IsInputIDListOkay(&FProject, &two, nullptr, &reason));
  EXPECT_NE(reason.find("at most 1 graph,"), std::string::npos) << reason;
}

TEST_F(ToolFrameTest, StoredDefaultsRoundTripAndOneBadSetChangesNothing) {
  TOffsetGraphForm tool;
  ASSERT_TRUE(
      tool.Parameters().SetParameterValuesFromText({"Offset=7.25", "Note=a b; c=d 'q' \"µm\""}).empty());
  ASSERT_TRUE(tool.SaveDefaultSettings());
  TOffsetGraphForm other;
  EXPECT_DOUBLE_EQ(other.GetFloatParameter("Offset"), 1.0);
  ASSERT_TRUE(other.LoadDefaultSettings());
  EXPECT_EQ(other.Parameters().GetParameterValuesAsText(), tool.Parameters().GetParameterValuesAsText());
  // A set with one bad value leaves every value as it was.
  EXPECT_FALSE(other.Parameters().SetParameterValuesFromText({"Offset=3", "Offset2=1"}).empty());
  EXPECT_FALSE(other.Parameters().SetParameterValuesFromText({"Note=x", "Offset=1000"}).empty());
  EXPECT_EQ(other.Parameters().GetParameterValuesAsText(), tool.Parameters().GetParameterValuesAsText());
  // Without a stored file the declared defaults return.
  ASSERT_TRUE(other.ResetDefaultSettings());
  ASSERT_TRUE(other.LoadDefaultSettings());
  EXPECT_NE(other.Parameters().GetParameterValuesAsText(), tool.Parameters().GetParameterValuesAsText());
  TOffsetGraphForm fresh;
  EXPECT_EQ(other.Parameters().GetParameterValuesAsText(), fresh.Parameters().GetParameterValuesAsText());
  EXPECT_NE(other.ConfigureDefaultSettingsText().find("Offset = 1"), std::string::npos)
      << other.ConfigureDefaultSettingsText();
}

TEST_F(ToolFrameTest, HistoryEntryReadsBackExactly) {
  TOffsetGraphForm tool;
  const std::string note = "a b; c=d 'q' \"µm\" $HOME `x` \\";
  ASSERT_TRUE(tool.Parameters().SetParameterValuesFromText({"Note=" + note}).empty());
  const TIntList results = tool.RunNonInteractive(FProject, {FIDs.Map}, "Extract", false);
  ASSERT_EQ(results.size(), 1u);
  const TData* result = FProject.FindData(results.front());
  // The input's history first, then the run.
  const auto& inputHistory = Map().GetHistoryList();
  ASSERT_EQ(result->GetHistoryList().size(), inputHistory.size() + 1);
  const THistoryEntry& entry = result->GetHistoryList().back();
  EXPECT_EQ(entry.Type, kHistoryEntryToolRun);
  EXPECT_EQ(entry.Text.rfind(
                "Offset Graphs: orvex run OffsetGraph --input " + std::to_string(FIDs.Map) + " --set ", 0),
            0u)
      << entry.Text;
  TToolRunStep step;
  std::string problem;
  ASSERT_TRUE(ParseToolRunStep(entry.Text, step, problem)) << problem;
  EXPECT_EQ(step.Key, "OffsetGraph");
  EXPECT_EQ(step.Inputs, TIntList{FIDs.Map});
  EXPECT_EQ(step.Command, "Extract");
  EXPECT_FALSE(step.All);
  EXPECT_EQ(step.ResultIndex, 1);
  EXPECT_EQ(step.ResultCount, 1);
  // Applying the recorded assignments to a fresh tool gives the same values.
  TOffsetGraphForm again;
  ASSERT_TRUE(again.Parameters().SetParameterValuesFromText(step.Assignments).empty());
  EXPECT_EQ(again.Parameters().GetParameterValuesAsText(), tool.Parameters().GetParameterValuesAsText());
}

TEST(ToolHistory, ShellWordsRoundTripAndBadEntriesAreRefused) {
  for (const std::string word : {"plain", "two words", "it's", "a'b'c", "", "µ=;|*?$`\\\"", "--set"}) {
    std::vector<std::string> words;
    std::string problem;
    ASSERT_TRUE(SplitShellWords("x " + ShellQuote(word) + " y", words, problem)) << problem;
    ASSERT_EQ(words.size(), 3u) << word;
    EXPECT_EQ(words[1], word);
  }
  TToolRunStep step;
  std::string problem;
  EXPECT_FALSE(ParseToolRunStep("Imported from a.png", step, problem));
  EXPECT_FALSE(ParseToolRunStep("T: orvex run K --input 3 --set 'A=1", step, problem));
  EXPECT_FALSE(ParseToolRunStep("T: orvex run K --set 'A=1' (result 1 of 1)", step, problem));
  EXPECT_FALSE(ParseToolRunStep("T: orvex run K --input 3 (result 2 of 1)", step, problem));
  EXPECT_FALSE(ParseToolRunStep("T: orvex run K --input x (result 1 of 1)", step, problem));
  ASSERT_TRUE(ParseToolRunStep(
      "T: orvex run K --input 3,4 --command 'Extract Amplitude' --all (result 2 of 3)", step, problem))
      << problem;
  EXPECT_EQ(step.Inputs, (TIntList{3, 4}));
  EXPECT_EQ(step.Command, "Extract Amplitude");
  EXPECT_TRUE(step.All);
  EXPECT_EQ(step.ResultIndex, 2);
  EXPECT_EQ(FormatToolRunStep(step),
            "T: orvex run K --input 3,4 --command 'Extract Amplitude' --all (result 2 of 3)");
}

} // namespace
