#include "tools/spectral/Registerspectraltools.h"

#include "project/Toolregistry.h"
#include "tools/spectral/Graphbackgroundsubtraction.h"
#include "tools/spectral/Graphcalculator.h"
#include "tools/spectral/Peakfindoptions.h"

void RegisterSpectralTools(TToolRegistry& registry) {
  RegisterGraphCalculator(registry);
  RegisterGraphBackgroundSubtraction(registry);
  RegisterPeakFindOptions(registry);
}
