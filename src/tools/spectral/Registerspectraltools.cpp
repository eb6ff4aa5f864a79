#include "tools/spectral/Registerspectraltools.h"

#include "project/Toolregistry.h"
#include "tools/spectral/Advancedfittingtool.h"
#include "tools/spectral/Filterextracttools.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "tools/spectral/Graphcalculator.h"
#include "tools/spectral/Graphfilterdialog.h"
#include "tools/spectral/Peakfindoptions.h"

void RegisterSpectralTools(TToolRegistry& registry) {
  RegisterGraphCalculator(registry);
  RegisterGraphFilterDialog(registry);
  RegisterFilterViewerExtract(registry);
  RegisterFilterManagerExtract(registry);
  RegisterGraphBackgroundSubtraction(registry);
  RegisterPeakFindOptions(registry);
  RegisterAdvancedFittingTool(registry);
}
