// A real graph just above what one variable of a MAT-file of Level 5 can hold is refused before its file is
// made, while the other graphs of the same export are written.
#include "common/Standardmessage.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "exchange/Exportfileinfo.h"
#include "exchange/Exportfiltermatlab.h"
#include "exchange/Exportmanager.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "support/TestSupport.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace {

TEST(MatlabSizeLimitTest, GraphAboveTwoGiBIsRefusedOthersAreWritten) {
  oxtest::EnsureMemoryStrategy();
  RegisterDataClasses();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  TProject project;
  TDemoOptions options;
  options.SizeX = 2;
  options.SizeY = 2;
  options.SizeGraph = 8;
  const TDemoIDs ids = CreateDemoProject(project, options);

  // 1024 × 1024 spectra of 512 points: 2 GiB of values, so the variable is just above 2^31 - 1 bytes.
  // The values are never read: the refusal comes before the file.
  auto huge = std::make_unique<TDGraph>();
  huge->SetID(project.GetNewDataID());
  huge->SetCaption("Huge map");
  try {
    huge->SetFieldSize(1024, 1024, TDataFieldKind::Float, 512);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "no room for a 2 GiB graph here: " << e.what();
  }
  huge->SetXTransformationID(ids.SpectralTransformation);
  huge->SetXInterpretationID(ids.SpectralInterpretation);
  huge->SetSpaceTransformationID(ids.SpaceTransformation);
  huge->SetAllLinesValid();
  const int32_t hugeID = huge->GetID();
  project.AddData(std::move(huge));

  oxtest::TempDir dir;
  TExportManager manager(&project, "");
  RegisterExportFilters(manager);
  manager.ReportToUser = false;
  manager.OnCreateFileInfo = [&](TExportFilter& filter, const TIntList& list) {
    TExportFilterFileInfoGetterForm form;
    form.Folder = dir.Path().string();
    form.Target = TExportFilterFileInfoGetterForm::tSeveralFiles;
    form.UseMyFileName = false;
    std::string problem;
    return form.CreateFileInfo(filter, list, {"Huge map", "Raman Map (demo)"}, problem);
  };
  const TExportResult result = manager.DoExport(manager.FindFilter("Matlab"), {hugeID, ids.Map});
  ASSERT_EQ(result.Errors.size(), 1u);
  EXPECT_EQ(result.Errors[0].rfind("Huge map: too large for a MAT-file of Level 5 (", 0), 0u)
      << result.Errors[0];
  EXPECT_NE(result.Errors[0].find(" bytes, at most 2 GiB per variable)"), std::string::npos);
  ASSERT_EQ(result.Files.size(), 1u);
  EXPECT_EQ(result.Files[0].Index, 1);
  EXPECT_FALSE(std::filesystem::exists(dir.File("Huge map.mat")));
  EXPECT_TRUE(std::filesystem::exists(dir.File("Raman Map (demo).mat")));
}

} // namespace
