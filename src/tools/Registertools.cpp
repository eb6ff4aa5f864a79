#include "tools/Registertools.h"

#include "project/Toolregistry.h"
#include "tools/image/Registerimagetools.h"
#include "tools/multivariate/Registermultivariatetools.h"
#include "tools/spectral/Registerspectraltools.h"

void RegisterAllTools() {
  TToolRegistry& registry = TToolRegistry::Instance();
  if (!registry.GetTools().empty()) return;
  RegisterSpectralTools(registry);
  RegisterMultivariateTools(registry);
  RegisterImageTools(registry);
}
