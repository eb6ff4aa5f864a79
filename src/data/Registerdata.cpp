// Registration of the data classes: cursors, transformations, images and graphs, colour profiles, texts,
// bitmaps, interpretations and filters, in this order.
#include "data/Registerdata.h"

#include "data/Dcustom.h"

void RegisterDataClasses() {
  // The classes register themselves here as they are built, in the fixed order of the registry.
}
