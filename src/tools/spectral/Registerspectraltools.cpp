#include "tools/spectral/Registerspectraltools.h"

#include "project/Toolregistry.h"
#include "tools/spectral/Graphcalculator.h"

void RegisterSpectralTools(TToolRegistry& registry) {
  RegisterGraphCalculator(registry);
}
