// A graph viewer on a 1 GiB stack behind 64 MB of memory-mapped views: stepping through 100 spectra
// all over the stack shows each right and reads only what it shows, so resident memory and page
// faults stay far below what one pass over the stack would cost.
#include "../../tools/spectral/slow/LargeMapSupport.h"
#include "common/Standardmessage.h"
#include "data/Dtransformation.h"
#include "support/SpaceTransformation.h"
#include "viewers/Viewershow.h"
#include "viewers/Vmultigraph.h"

#include <random>

#include <sys/resource.h>

namespace {

long MinorFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

} // namespace

TEST(GraphViewerLargeStackTest, StepsHundredSpectraReadingOnlyWhatItShows) {
  oxtest::TempDir dir;
  oxtest::UseSmallMappedViews(dir);
  RegisterViewers();
  TMessageProxy::MsgProxySingleton()->SetMessagingStrategy(
      new TFixedAnswerToAllMessages_MessagingStrategy(kAnswerYes));
  TProject project;
  // Integers below 2^24: exact in float, and each spectrum tells where it comes from.
  const int32_t id = oxtest::AddLargeMap(project, [](int32_t x, int32_t y, int32_t g) {
    return static_cast<float>(x + oxtest::kLargeMapSize * y + g);
  });
  const int32_t spaceID = oxtest::AddSpaceTransformation(project);
  dynamic_cast<TDGraph*>(project.FindData(id))->SetSpaceTransformationID(spaceID);

  const double residentBefore = oxtest::ResidentMiB();
  const long faultsBefore = MinorFaults();
  auto* viewer =
      dynamic_cast<TVMultiGraphForm*>(ShowIDsInViewer(project, {id}, TVMultiGraphForm::kClassName));
  ASSERT_NE(viewer, nullptr);
  viewer->GetOpenGLView().SetViewportSize(1000, 600);
  std::mt19937 random(7);
  std::uniform_int_distribution<int32_t> pixel(0, oxtest::kLargeMapSize - 1);
  for (int step = 0; step < 100; ++step) {
    const int32_t x = pixel(random), y = pixel(random);
    ASSERT_TRUE(viewer->ChangeSpacePosition(0, x, y));
    ASSERT_TRUE(viewer->HasSpectrum(0));
    const std::vector<float>& shown = viewer->GetShownSpectrum(0);
    ASSERT_EQ(shown.size(), static_cast<size_t>(oxtest::kLargeMapLength));
    const float first = static_cast<float>(x + oxtest::kLargeMapSize * y);
    ASSERT_EQ(shown.front(), first) << "spectrum (" << x << ", " << y << ")";
    ASSERT_EQ(shown.back(), first + static_cast<float>(oxtest::kLargeMapLength - 1));
  }
  // 100 spectra cost about 140 page faults; one pass over the stack costs some 17,000 (every view of the
  // 1 GiB mapped once).
  const double grown = oxtest::ResidentMiB() - residentBefore;
  const long faults = MinorFaults() - faultsBefore;
  RecordProperty("ResidentGrowthMiB", std::to_string(grown));
  RecordProperty("PageFaults", std::to_string(faults));
  EXPECT_LT(grown, 32.0) << "resident memory grew by " << grown << " MiB";
  EXPECT_LT(faults, 2048) << faults << " page faults for 100 spectra";
  TVCustomForm::DeleteRegisteredViewerList();
}
