#include "tools/spectral/Registerspectraltools.h"

#include "project/Toolregistry.h"
#include "tools/spectral/Advancedfittingtool.h"
#include "tools/spectral/Filterextracttools.h"
#include "tools/spectral/Graphcalculator.h"
#include "tools/spectral/Graphfilterdialog.h"

void RegisterSpectralTools(TToolRegistry& registry) {
  RegisterGraphCalculator(registry);
  RegisterAdvancedFittingTool(registry);
  RegisterGraphFilterDialog(registry);
  RegisterFilterViewerExtract(registry);
  RegisterFilterManagerExtract(registry);
}
