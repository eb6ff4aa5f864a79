#include "tools/spectral/Registerspectraltools.h"

#include "project/Toolregistry.h"

void RegisterSpectralTools(TToolRegistry& registry) {
  (void)registry; // each tool of this folder adds one line here
}
