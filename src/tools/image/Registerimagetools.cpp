#include "tools/image/Registerimagetools.h"

#include "project/Toolregistry.h"
#include "tools/image/Imagebackgroundsubtraction.h"
#include "tools/image/Imagefourierfilter.h"

void RegisterImageTools(TToolRegistry& registry) {
  RegisterImageBackgroundSubtraction(registry);
  RegisterImageFourierFilter(registry);
}
