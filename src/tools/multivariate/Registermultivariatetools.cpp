#include "tools/multivariate/Registermultivariatetools.h"

#include "project/Toolregistry.h"

void RegisterMultivariateTools(TToolRegistry& registry) {
  (void)registry; // each tool of this folder adds one line here
}
