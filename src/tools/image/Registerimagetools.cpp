#include "tools/image/Registerimagetools.h"

#include "project/Toolregistry.h"
#include "tools/image/Imagebackgroundsubtraction.h"

void RegisterImageTools(TToolRegistry& registry) {
  RegisterImageBackgroundSubtraction(registry);
}
