#include "tools/image/Registerimagetools.h"

#include "project/Toolregistry.h"

void RegisterImageTools(TToolRegistry& registry) {
  (void)registry; // each tool of this folder adds one line here
}
