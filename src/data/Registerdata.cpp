// Registration of the data classes in the order the registry keeps them: cursors, transformations, images
// and graphs, colour profiles, texts, bitmaps, interpretations, then the filters of the spectral tools.
#include "data/Registerdata.h"

#include "data/Dbitmap.h"
#include "data/Dcolorprofile.h"
#include "data/Dcursor.h"
#include "data/Dcustom.h"
#include "data/Dfilter.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "data/Dtext.h"
#include "data/Dtransformation.h"

void RegisterDataClasses() {
  RegisterCursorClasses();
  RegisterTransformationClasses();
  TData::RegisterDataObject(TDImage::kClassName, &TDImage::CreateDataObject);
  TData::RegisterDataObject(TDGraph::kClassName, &TDGraph::CreateDataObject);
  RegisterColorProfileClasses();
  RegisterTextClasses();
  RegisterBitmapClasses();
  RegisterInterpretationClasses();
  RegisterFilterClasses();
}
