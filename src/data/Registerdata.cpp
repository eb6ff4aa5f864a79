// Registration of the data classes: cursors, transformations, images and graphs, colour profiles, texts,
// bitmaps, interpretations and filters, in this order.
#include "data/Registerdata.h"

#include "data/Dcustom.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"

void RegisterDataClasses() {
  TData::RegisterDataObject(TDImage::kClassName, &TDImage::CreateDataObject);
  TData::RegisterDataObject(TDGraph::kClassName, &TDGraph::CreateDataObject);
}
