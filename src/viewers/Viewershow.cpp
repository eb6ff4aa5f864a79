// Showing objects in viewers, and registration of the viewer classes.
#include "viewers/Viewershow.h"

#include "project/Project.h"
#include "viewers/Toolviewers.h"
#include "viewers/Vfilter.h"
#include "viewers/Vfiltermanager.h"
#include "viewers/Viewerpositioning.h"
#include "viewers/Vimage.h"
#include "viewers/Vmultigraph.h"
#include "viewers/Vtext.h"

TVCustomForm* ShowNewViewer(TProject& project, std::unique_ptr<TVCustomForm> viewer, const TIntList& ids) {
  if (!viewer) return nullptr;
  TVCustomForm* raw = viewer.get();
  project.AddViewer(std::move(viewer));
  for (int32_t id : ids) raw->AddDataID(id);
  if (project.OnSetViewerPosition) {
    project.SetViewerPosition(raw, false);
  } else {
    // Without the workbench's positioning (command line, tests) the default layout of the class places it,
    // so that a file written here opens with its viewers where the workbench would put them.
    TViewerPositioning defaults;
    defaults.SetProject(&project);
    defaults.SetViewerPosition(raw, false);
  }
  if (project.OnShowViewer) project.OnShowViewer(raw);
  return raw;
}

std::string FindViewerClassForIDs(TProject& project, const TIntList& ids) {
  for (const std::string& name : TVCustomForm::GetRegisteredViewerNames()) {
    const TRegisteredViewer* entry = TVCustomForm::GetRegisteredViewer(name);
    if (entry && entry->ShowViewer && entry->IsInputIDListOkayForShowViewer &&
        entry->IsInputIDListOkayForShowViewer(project, ids))
      return name;
  }
  return {};
}

TVCustomForm* ShowIDsInViewer(TProject& project, const TIntList& ids, const std::string& className) {
  const std::string name = className.empty() ? FindViewerClassForIDs(project, ids) : className;
  const TRegisteredViewer* entry = TVCustomForm::GetRegisteredViewer(name);
  if (!entry || !entry->ShowViewer || !entry->IsInputIDListOkayForShowViewer ||
      !entry->IsInputIDListOkayForShowViewer(project, ids))
    return nullptr;
  return entry->ShowViewer(project, ids);
}

void RegisterViewers() {
  // The start-up order of the viewer classes ("TVProjectManagerForm", the workbench's docked manager, comes
  // first and is the workbench's own): the first class that accepts objects shows them.
  TVImageForm::RegisterViewer();
  TVMultiGraphForm::RegisterViewer();
  TVTextForm::RegisterViewer();
  TVFilterForm::RegisterViewer();
  TVFilterManagerForm::RegisterViewer();
  // Tools open their previews in the registered graph and image viewers.
  InstallToolViewerFactory();
}
