#include "tools/multivariate/Registermultivariatetools.h"

#include "project/Toolregistry.h"
#include "tools/multivariate/Pcatool.h"

void RegisterMultivariateTools(TToolRegistry& registry) {
  // each tool of this folder adds one line here
  RegisterPCATool(registry);
}
