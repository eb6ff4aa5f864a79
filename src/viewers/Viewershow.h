// Showing objects in viewers: the "Show" of the rest of the program, and registration of every viewer
// class this library builds.
#pragma once

#include "project/Viewerbase.h"

#include <memory>
#include <string>

class TProject;

/// Adds viewer to the project showing ids (each through AddDataID), places it and lets the workbench show
/// it (TProject::OnShowViewer). Returns the viewer, owned by the project.
TVCustomForm* ShowNewViewer(TProject& project, std::unique_ptr<TVCustomForm> viewer, const TIntList& ids);

/// The first registered viewer class whose check accepts ids; "" when none does.
std::string FindViewerClassForIDs(TProject& project, const TIntList& ids);

/// Shows ids in a new viewer of className (or of the first class that accepts them, when empty). Null when
/// the class is unknown, has no show function, or refuses the ids.
TVCustomForm* ShowIDsInViewer(TProject& project, const TIntList& ids, const std::string& className = "");

/// Registers the viewer classes of this library in the start-up order.
void RegisterViewers();
