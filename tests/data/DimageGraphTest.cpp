// Images and graphs: line flags, spectra, statistics, interpolation, ID links and file forms.
#include "common/OrvexException.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Registerdata.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestProgress.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

class ImageGraphTest : public ::testing::Test {
protected:
  void SetUp() override {
    oxtest::EnsureMemoryStrategy();
    RegisterDataClasses();
  }
  void TearDown() override { TFileVersion::SaveVersion = TFileVersion::ThisVersion; }

  TDGraph* AddGraph(TProject& project, int32_t sx, int32_t sy, int32_t sg) {
    auto graph = std::make_unique<TDGraph>();
    graph->SetID(project.GetNewDataID());
    graph->SetFieldSize(sx, sy, TDataFieldKind::Float, sg);
    std::vector<float> spectrum(static_cast<size_t>(sg));
    for (int32_t y = 0; y < sy; ++y) {
      for (int32_t x = 0; x < sx; ++x) {
        for (int32_t g = 0; g < sg; ++g) spectrum[g] = float(x * 10000 + y * 100 + g);
        graph->SetSpectrum(x, y, spectrum.data());
      }
      graph->SetLineValid(y, true);
    }
    auto* raw = graph.get();
    project.AddData(std::move(graph));
    return raw;
  }

  oxtest::TempDir FDir;
};

TEST_F(ImageGraphTest, ImageLinesAndValidFlags) {
  TDImage image;
  image.SetFieldSize(4, 3);
  EXPECT_TRUE(image.IsInverted());
  const float line[4] = {1, 2, 3, 4};
  image.SetLine(1, line);
  EXPECT_FALSE(image.GetLineValid(1)); // SetLine doesn't make a line valid
  EXPECT_EQ(image.GetField(2, 1), 0.0f);
  EXPECT_EQ(image.GetFastField(2, 1), 3.0f);
  image.SetLineValid(1, true);
  EXPECT_EQ(image.GetField(2, 1), 3.0f);
  EXPECT_EQ(image.GetField(9, 1), 0.0f);
  image.SetField(-1, 0, 5); // outside: nothing
  float out[4];
  image.GetLine(0, out);
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_FALSE(image.IsLargeObject());
  TDImage large;
  large.SetFieldSize(700, 700);
  EXPECT_FALSE(large.IsLargeObject());
  large.SetFieldSize(701, 700);
  EXPECT_TRUE(large.IsLargeObject());
}

TEST_F(ImageGraphTest, SetFieldValuesNotifiesOnceAndComputesStatistics) {
  TDImage image;
  image.SetFieldSize(5, 4);
  int notifications = 0;
  image.SetOnDataChange([&](TData*, TDataChangeInfo info) {
    if (info == TDataChangeInfo::DataChanged) ++notifications;
  });
  image.SetFieldValues(2.0f);
  EXPECT_EQ(notifications, 1);
  EXPECT_DOUBLE_EQ(image.GetAverage(), 2.0);
  EXPECT_NEAR(image.GetDeviation(), 0.0, 1e-12);
  // A tilted line: least-squares A + B x recovers it.
  const float line[5] = {1, 3, 5, 7, 9};
  image.SetLine(2, line);
  image.DoDataChange(TDataChangeInfo::DataChanged);
  EXPECT_NEAR(image.GetLineA(2), 1.0, 1e-12);
  EXPECT_NEAR(image.GetLineB(2), 2.0, 1e-12);
  EXPECT_NEAR(image.GetLineAverage(2), 5.0, 1e-12);
  EXPECT_FALSE(image.GetLineChanged(2)); // cleared after the delivery
}

TEST_F(ImageGraphTest, ImageInterpolation) {
  TDImage image;
  image.SetFieldSize(3, 3);
  for (int32_t y = 0; y < 3; ++y) {
    const float line[3] = {float(y * 3), float(y * 3 + 1), float(y * 3 + 2)};
    image.SetLine(y, line);
    image.SetLineValid(y, true);
  }
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(0.5, 0.5), 2.0f);
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(2, 2), 8.0f);   // the last pixel itself
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(2, 0.5), 3.5f); // right edge: linear in y
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(0.5, 2), 6.5f); // bottom edge: linear in x
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(-5, -5), 0.0f); // clamped to (0, 0)
  const float plain[4] = {0, 1, 2, 3};
  EXPECT_FLOAT_EQ(TDImage::GetInterpolatedValueFromImageArray(0.5, 0.5, 2, 2, plain), 1.5f);
  // With every line valid the image and a plain array of its values interpolate alike, edges included.
  const float values[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  for (double y : {-1.0, 0.0, 0.25, 1.5, 2.0, 7.0})
    for (double x : {-2.0, 0.0, 0.75, 1.0, 1.9, 2.0, 3.5})
      EXPECT_EQ(TDImage::GetInterpolatedValueFromImageArray(x, y, 3, 3, values),
                image.GetInterpolatedField(x, y))
          << x << ", " << y;
  // A missing line keeps the image from using it: the corner pixel's value, 0 on an invalid line.
  image.SetLineValid(1, false);
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(0.5, 0.5), 0.0f);
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(0.5, 1.5), 0.0f);
  EXPECT_FLOAT_EQ(image.GetInterpolatedField(0.5, 2), 6.5f);
  EXPECT_FLOAT_EQ(TDImage::GetInterpolatedValueFromImageArray(1, 2, 0, 3, values), 0.0f); // an empty grid
}

TEST_F(ImageGraphTest, GraphSpectraAndErrors) {
  TProject project;
  TDGraph* graph = AddGraph(project, 3, 2, 5);
  std::vector<float> spectrum(5);
  graph->GetSpectrum(2, 1, spectrum.data());
  EXPECT_EQ(spectrum[4], 20104.0f);
  graph->GetSpectrumOfElement(2 + 1 * 3, spectrum.data()); // e = x + y * SizeX
  EXPECT_EQ(spectrum[0], 20100.0f);
  graph->SetLineValid(1, false);
  graph->GetSpectrum(2, 1, spectrum.data());
  EXPECT_EQ(spectrum[4], 0.0f);
  graph->GetSpectrum(2, 1, spectrum.data(), true);
  EXPECT_EQ(spectrum[4], 20104.0f);
  float part[2];
  graph->GetPartOfSpectrum(1, 0, 3, 2, part);
  EXPECT_EQ(part[1], 10004.0f);
  try {
    graph->GetSpectrum(3, 0, spectrum.data());
    FAIL();
  } catch (const OrvexException& e) {
    EXPECT_EQ(e.Message(), "Graph: TDGraph::GetSpectrum: wrong indices: x = 3, y = 0");
  }
  EXPECT_THROW(graph->GetPartOfSpectrum(0, 0, 4, 2, part), OrvexException);
  EXPECT_THROW(graph->GetInterpolatedSpectrum(0.5, 1.0, spectrum.data()), OrvexException); // last line
  graph->SetLineValid(1, true);
  graph->GetInterpolatedSpectrum(0.5, 0.5, spectrum.data());
  EXPECT_FLOAT_EQ(spectrum[2], 5052.0f);
  EXPECT_FLOAT_EQ(graph->GetInterpolatedXField(1, 1, 2.25), 10102.25f);
}

TEST_F(ImageGraphTest, IDLinksAddExchangeAndClean) {
  TProject project;
  TDGraph* graph = AddGraph(project, 2, 2, 3);
  graph->SetSpaceTransformationID(50);
  graph->SetXTransformationID(51);
  graph->SetXInterpretationID(52);
  graph->SetZInterpretationID(53);
  graph->ExchangeID(51, 61); // a transformation: left as it is
  graph->ExchangeID(52, 62);
  EXPECT_EQ(graph->GetXTransformationID(), 51);
  EXPECT_EQ(graph->GetXInterpretationID(), 62);
  graph->AddToID(100);
  EXPECT_EQ(graph->GetSpaceTransformationID(), 150);
  EXPECT_EQ(graph->GetXTransformationID(), 151);
  EXPECT_TRUE(graph->IsDataUsed(153));
  graph->CleanWrongDataConnections(); // none of them exists
  EXPECT_EQ(graph->GetSpaceTransformationID(), 0);
  EXPECT_EQ(graph->GetXInterpretationID(), 0);
}

TEST_F(ImageGraphTest, CreateNewFromTemplate) {
  TProject project;
  TDGraph* graph = AddGraph(project, 4, 3, 8);
  graph->SetSpaceTransformationID(7);
  graph->SetXTransformationID(8);
  graph->SetImageIndex(3);
  auto single = TDGraph::CreateNewGraph(&project, graph->GetID(), true, TDataFieldKind::Float,
                                        TDataSaveMode::Always, "one");
  ASSERT_NE(single, nullptr);
  EXPECT_EQ(single->GetSizeX(), 1);
  EXPECT_EQ(single->GetSizeGraph(), 8);
  EXPECT_EQ(single->GetSpaceTransformationID(), 0);
  EXPECT_EQ(single->GetXTransformationID(), 8);
  EXPECT_EQ(single->GetDataCategory(), 2);
  auto image =
      TDImage::CreateNewImage(&project, graph->GetID(), TDataFieldKind::Float, TDataSaveMode::Always, "img");
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetSizeX(), 4);
  EXPECT_EQ(image->GetSpaceTransformationID(), 7);
  EXPECT_NE(image->GetID(), single->GetID());
  EXPECT_EQ(graph->GetLockNumber(), 0); // the template was given back
  EXPECT_EQ(TDGraph::CreateNewGraph(&project, 999, false, TDataFieldKind::Float, TDataSaveMode::Always, "x"),
            nullptr);
  EXPECT_TRUE(
      TDGraph::IsGraphIDListOkay(&project, {graph->GetID()}, 1, 1, true, true, true, true, true, true));
  EXPECT_FALSE(TDGraph::IsGraphIDListOkay(&project, {}, 0, 0, false, false, false, false, false, false));
}

TEST_F(ImageGraphTest, ResultObjectsFromTemplateGetCaptionHistorySaveModeAndAreAnnounced) {
  TProject project;
  TDGraph* graph = AddGraph(project, 4, 3, 8);
  graph->SetCaption("Scan 7");
  graph->SetSpaceTransformationID(7);
  std::vector<std::pair<int32_t, TDataChangeInfo>> notices;
  project.OnDataChange = [&](TData* d, TDataChangeInfo info) { notices.emplace_back(d->GetID(), info); };

  TResultInfo info;
  info.CaptionSuffix = " (Smoothed)";
  info.HistoryText = "Smoothed with 5 points";
  info.HistoryType = 7;
  info.SaveMode = TDataSaveMode::WhileUsed;
  auto result = TDGraph::CreateResultGraph(project, graph->GetID(), false, TDataFieldKind::Float, info);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(result->GetCaption(), "Scan 7 (Smoothed)");
  EXPECT_EQ(result->GetSaveMode(), TDataSaveMode::WhileUsed);
  ASSERT_EQ(result->GetHistoryList().size(), 1u);
  EXPECT_EQ(result->GetHistoryList()[0].Text, "Smoothed with 5 points");
  EXPECT_EQ(result->GetHistoryList()[0].Type, 7);
  EXPECT_EQ(result->GetSizeX(), 4);
  EXPECT_EQ(result->GetSpaceTransformationID(), 7);
  EXPECT_EQ(project.FindData(result->GetID()), nullptr); // not in the project before it is filled
  EXPECT_TRUE(notices.empty());

  const int32_t id = result->GetID();
  TDGraph* added = AddResultToProject(project, std::move(result));
  EXPECT_EQ(project.FindData(id), added);
  EXPECT_EQ(added->GetProject(), &project);
  ASSERT_FALSE(notices.empty());
  EXPECT_EQ(notices.front(), std::make_pair(id, TDataChangeInfo::Added));

  // A caption of its own replaces the template's; an empty history text makes no entry.
  info.Caption = "Mask";
  info.HistoryText.clear();
  auto image = TDImage::CreateResultImage(project, graph->GetID(), TDataFieldKind::Int8, info);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetCaption(), "Mask (Smoothed)");
  EXPECT_TRUE(image->GetHistoryList().empty());
  EXPECT_EQ(image->GetSizeY(), 3);
  EXPECT_EQ(graph->GetLockNumber(), 0);

  EXPECT_EQ(TDGraph::CreateResultGraph(project, 999, true, TDataFieldKind::Float, info), nullptr);
  EXPECT_EQ(TDImage::CreateResultImage(project, 999, TDataFieldKind::Float, info), nullptr);
}

TEST_F(ImageGraphTest, SaveAndLoadReportOnTheProgressChannelAndStopWhenCancelled) {
  TProject project;
  TDGraph* graph = AddGraph(project, 6, 5, 32);
  graph->SetCaption("Stack");
  const std::string name = FDir.File("progress.oxd");
  {
    oxtest::TRecordingProgress progress;
    TFileHandle f = CreateTagFile(name, "ORX_TEST");
    TTagControl root;
    root.WriteTag(f, "Root", TTagKind::TagList);
    graph->SetProgress(&progress);
    EXPECT_EQ(graph->SaveDataToTagFile(f), 1);
    graph->SetProgress(nullptr);
    root.CloseWriteTag(f);
    CloseFile(f);
    EXPECT_EQ(progress.CaptionsSeen(), std::vector<std::string>{"Stack"}); // the caption on the main level
    EXPECT_EQ(progress.Sub.Total.load(), 6 * 5 * 32);                      // the field on the sub level
    EXPECT_EQ(progress.Sub.Done.load(), 6 * 5 * 32);
  }
  {
    oxtest::TRecordingProgress progress;
    TFileHandle in = kInvalidFileHandle;
    TTagControl root;
    ASSERT_EQ(OpenTagFileForReading(name, {"ORX_TEST"}, in, root), 1);
    TDGraph loaded;
    loaded.SetProgress(&progress);
    EXPECT_EQ(loaded.LoadDataFromTagFile(in, root), 1);
    CloseFile(in);
    EXPECT_EQ(loaded.GetSizeGraph(), 32);
    EXPECT_EQ(progress.Sub.Done.load(), 6 * 5 * 32);
    EXPECT_EQ(progress.CaptionsSeen(), std::vector<std::string>{"Stack"});
  }
  {
    oxtest::TRecordingProgress cancelled(0); // every question answers "cancel"
    TFileHandle f = CreateTagFile(FDir.File("cancelled.oxd"), "ORX_TEST");
    graph->SetProgress(&cancelled);
    EXPECT_EQ(graph->SaveDataToTagFile(f), teUnspecificError);
    graph->SetProgress(nullptr);
    CloseFile(f);
  }
}

TEST_F(ImageGraphTest, ProjectRoundTripOfImagesAndGraphs) {
  TProject project;
  TDGraph* graph = AddGraph(project, 5, 4, 16);
  graph->SetLineValid(2, false);
  auto image = std::make_unique<TDImage>();
  image->SetID(project.GetNewDataID());
  image->SetFieldSize(6, 5);
  for (int32_t y = 0; y < 5; ++y) {
    std::vector<float> line(6);
    for (int32_t x = 0; x < 6; ++x) line[x] = float(x + 10 * y);
    image->SetLine(y, line.data());
    image->SetLineValid(y, y != 3);
  }
  image->DoDataChange(TDataChangeInfo::DataChanged);
  const int32_t imageID = image->GetID();
  project.AddData(std::move(image));

  for (int32_t saveVersion : {6, 5}) {
    const auto name = FDir.File("ig" + std::to_string(saveVersion) + ".oxp");
    ASSERT_EQ(project.SaveProjectToFile(name, TProjectSaveOptions{saveVersion}), 1);
    TProject loaded;
    ASSERT_EQ(loaded.LoadProjectFromFile(name), 1);
    auto* g = dynamic_cast<TDGraph*>(loaded.FindData(graph->GetID()));
    auto* im = dynamic_cast<TDImage*>(loaded.FindData(imageID));
    ASSERT_NE(g, nullptr);
    ASSERT_NE(im, nullptr);
    EXPECT_EQ(g->GetSizeGraph(), 16);
    EXPECT_FALSE(g->GetLineValid(2));
    EXPECT_EQ(g->GetFastField(4, 3, 15), 40315.0f);
    EXPECT_TRUE(im->IsInverted()); // a loaded image is always inverted, version 0 included
    EXPECT_EQ(im->GetFastField(5, 4), 45.0f);
    EXPECT_EQ(im->GetField(1, 3), 0.0f);
    EXPECT_DOUBLE_EQ(im->GetAverage(), dynamic_cast<TDImage*>(project.FindData(imageID))->GetAverage());
  }
  // The compatible form has no inverted flag and an (X, Y) field.
  TTagControl tree;
  ASSERT_EQ(tree.LoadTagListByFileName(FDir.File("ig5.oxp"), TProject::kProjectIdentificationOld), 1);
  const TTagControl* data = tree.FindTagInList("Data|Data 1|TDImage");
  ASSERT_NE(data, nullptr);
  EXPECT_FALSE(data->IsTagInList("ImageDataIsInverted"));
  int32_t ranges[2] = {};
  ASSERT_NE(data->FindTagInList("ImageData|Ranges"), nullptr);
  EXPECT_EQ(data->FindTagInList("ImageData|Ranges")->GetIntTag(ranges, 2), 1);
  EXPECT_EQ(ranges[0], 6);
  EXPECT_EQ(ranges[1], 5);
  int32_t version = -1;
  EXPECT_EQ(data->GetIntTagInList("Version", version), 1);
  EXPECT_EQ(version, 0);
}

} // namespace
