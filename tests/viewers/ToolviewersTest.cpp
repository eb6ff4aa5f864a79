// The viewers tools open for their previews come from the registered classes: a graph viewer on the
// original spectrum and the preview, zooming out to follow them; an image viewer that can be pointed at
// another image; and the update hold around a series of changes.
#include "viewers/Toolviewers.h"

#include "common/parameters/Userparameteradministrator.h"
#include "data/Registerdata.h"
#include "project/Demodataset.h"
#include "project/Project.h"
#include "support/TestDataObjects.h"
#include "viewers/Vgraphic.h"
#include "viewers/Viewershow.h"

#include <gtest/gtest.h>

namespace {

std::string SettingText(TVCustomForm& viewer, const std::string& name) {
  TUserParameter* parameter = viewer.GetCFI() ? viewer.GetCFI()->GetUserParameterByName(name) : nullptr;
  return parameter ? parameter->GetValueText() : "<no " + name + ">";
}

TEST(ToolViewersTest, PreviewViewersComeFromTheRegisteredClasses) {
  RegisterDataClasses();
  RegisterViewers();
  oxtest::EnsureMemoryStrategy();
  TProject project;
  TDemoOptions options;
  options.SizeX = 6;
  options.SizeY = 4;
  options.SizeGraph = 64;
  const TDemoIDs ids = CreateDemoProject(project, options);
  IToolViewerFactory* factory = IToolViewerFactory::GetFactory();
  ASSERT_NE(factory, nullptr) << "registering the viewers installs the factory";

  std::unique_ptr<TVCustomForm> graph =
      factory->CreateGraphViewer(project, ids.Map, {ids.TrueComponents.at(0)});
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph->GetClassNameA(), TRegisteredToolViewerFactory::kGraphViewerClass);
  EXPECT_TRUE(graph->IsDataUsed(ids.Map));
  EXPECT_TRUE(graph->IsDataUsed(ids.TrueComponents.at(0)));
  EXPECT_EQ(SettingText(*graph, "AutoZoomOutY"), SettingText(*graph, "AutoZoomOutX"));
  EXPECT_NE(SettingText(*graph, "AutoZoomOutY").find_first_of("1Tt"), std::string::npos)
      << SettingText(*graph, "AutoZoomOutY");

  // The hold is counted: the view repaints once, when the last hold goes.
  auto* graphic = dynamic_cast<TVCustomGraphicForm*>(graph.get());
  ASSERT_NE(graphic, nullptr);
  factory->SetAutoUpdate(*graph, true);
  factory->SetAutoUpdate(*graph, true);
  factory->SetAutoUpdate(*graph, false);
  EXPECT_TRUE(graphic->IsUpdating());
  factory->SetAutoUpdate(*graph, false);
  EXPECT_FALSE(graphic->IsUpdating());
  factory->SetAutoUpdate(*graph, false); // one release too many changes nothing
  EXPECT_FALSE(graphic->IsUpdating());

  std::unique_ptr<TVCustomForm> image = factory->CreateImageViewer(project, ids.Topography, false);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(image->GetClassNameA(), TRegisteredToolViewerFactory::kImageViewerClass);
  EXPECT_TRUE(image->IsDataUsed(ids.Topography));
  factory->SetImageID(*image, ids.TrueAbundances.at(1));
  EXPECT_TRUE(image->IsDataUsed(ids.TrueAbundances.at(1)));
  EXPECT_FALSE(image->IsDataUsed(ids.Topography));

  // An object no graph viewer shows gives no viewer.
  EXPECT_EQ(factory->CreateGraphViewer(project, ids.Description, {}), nullptr);
}

} // namespace
