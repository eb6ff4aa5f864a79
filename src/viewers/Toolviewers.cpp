#include "viewers/Toolviewers.h"

#include "common/parameters/Userparameteradministrator.h"
#include "viewers/Vgraphic.h"

namespace {

std::unique_ptr<TVCustomForm> MakeRegisteredViewer(const char* className, TProject& project) {
  const TRegisteredViewer* registered = TVCustomForm::GetRegisteredViewer(className);
  if (!registered || !registered->CreateViewer) return nullptr;
  std::unique_ptr<TVCustomForm> viewer = registered->CreateViewer();
  if (viewer) viewer->SetProject(&project);
  return viewer;
}

// Settings a viewer class may lack (an older class, a test's) are left as they are.
void ApplyKnownSettings(TVCustomForm& viewer, const std::vector<std::string>& settings) {
  if (TUserParameterAdministrator* cfi = viewer.GetCFI())
    for (const std::string& setting : settings) cfi->SetParameterValuesFromText({setting});
}

} // namespace

std::unique_ptr<TVCustomForm>
TRegisteredToolViewerFactory::CreateGraphViewer(TProject& project, int32_t graphID,
                                                const std::vector<int32_t>& moreIDs) {
  std::unique_ptr<TVCustomForm> viewer = MakeRegisteredViewer(kGraphViewerClass, project);
  if (!viewer || !viewer->AddDataID(graphID)) return nullptr;
  for (int32_t id : moreIDs) viewer->AddDataID(id);
  // A preview follows its curves: the view zooms out to take in whatever the new parameters give.
  ApplyKnownSettings(*viewer, {"AutoZoomOutX=True", "AutoZoomOutY=True"});
  return viewer;
}

std::unique_ptr<TVCustomForm>
TRegisteredToolViewerFactory::CreateImageViewer(TProject& project, int32_t imageID, bool /*check*/) {
  std::unique_ptr<TVCustomForm> viewer = MakeRegisteredViewer(kImageViewerClass, project);
  if (!viewer || !viewer->AddDataID(imageID)) return nullptr;
  ApplyKnownSettings(*viewer, {"AutomaticColorScale=True"});
  FShownImages[viewer.get()] = imageID;
  return viewer;
}

void TRegisteredToolViewerFactory::SetImageID(TVCustomForm& viewer, int32_t imageID) {
  auto shown = FShownImages.find(&viewer);
  if (shown == FShownImages.end() || shown->second == imageID) return;
  viewer.ExchangeID(shown->second, imageID);
  shown->second = imageID;
  viewer.DoDataUpdate();
}

void TRegisteredToolViewerFactory::SetAutoUpdate(TVCustomForm& viewer, bool hold) {
  auto* graphic = dynamic_cast<TVCustomGraphicForm*>(&viewer);
  if (!graphic) return;
  if (hold)
    graphic->BeginUpdate();
  else if (graphic->IsUpdating())
    graphic->EndUpdate();
}

void InstallToolViewerFactory() {
  static TRegisteredToolViewerFactory factory;
  if (!IToolViewerFactory::GetFactory()) IToolViewerFactory::SetFactory(&factory);
}
