#include "tools/image/Registerimagetools.h"

#include "project/Toolregistry.h"
#include "tools/image/Imagebackgroundsubtraction.h"
#include "tools/image/Imagefiltertool.h"
#include "tools/image/Imagefourierfilter.h"
#include "tools/image/Imagerepairtool.h"

void RegisterImageTools(TToolRegistry& registry) {
  RegisterImageBackgroundSubtraction(registry);
  RegisterImageFourierFilter(registry);
  RegisterImageFilter(registry);
  RegisterImageRepair(registry);
}
