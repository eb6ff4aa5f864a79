// The export filters of this folder, in the order of the filter list.
#include "exchange/Exportfilterascii.h"
#include "exchange/Exportfiltermatlab.h"
#include "exchange/Exportmanager.h"

void RegisterExportFilters(TExportManager& manager) {
  manager.AddFilter(std::make_unique<TExportFilterImageASCII>());
  manager.AddFilter(std::make_unique<TExportFilterGraphASCII>());
  manager.AddFilter(std::make_unique<TExportFilterMatlab>());
}
