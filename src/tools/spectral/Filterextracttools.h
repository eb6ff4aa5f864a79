// The two extraction tools without a window of their own, for the command line and scripts:
// FilterViewerExtract runs graph filters (one from the parameters, or the list of a quick filter file)
// over the spectra of graphs into new images; FilterManagerExtract makes one filter data object of a
// chosen class per graph and extracts each of its outputs into an image linked to it.
#pragma once

#include "project/Projectdialogform.h"

#include <memory>
#include <string>
#include <vector>

class TDGraph;
class TGraphFilter;
class TToolRegistry;

/// Both tools take a non-empty list of graphs and refuse anything else.
class TGraphExtractDialogForm : public TProjectDialogForm {
public:
  using TProjectDialogForm::TProjectDialogForm;
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;

protected:
  /// The input graphs of the run, in order; throws when one is gone.
  std::vector<TDGraph*> RunInputs() const;
};

class TFilterViewerExtractForm : public TGraphExtractDialogForm {
public:
  static constexpr const char* kClassName = "TFilterViewerExtractForm";

  TFilterViewerExtractForm();
  ~TFilterViewerExtractForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

  /// The filters of a run: the one of the parameters, or those of QuickFilterFile when it is set. Throws
  /// with the file's problem when it can't be read.
  std::vector<std::unique_ptr<TGraphFilter>> MakeFilters() const;

protected:
  bool DoCommand(const std::string& name) override;
};

class TFilterManagerExtractForm : public TGraphExtractDialogForm {
public:
  static constexpr const char* kClassName = "TFilterManagerExtractForm";

  TFilterManagerExtractForm();
  ~TFilterManagerExtractForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

protected:
  bool DoCommand(const std::string& name) override;
};

void RegisterFilterViewerExtract(TToolRegistry& registry);
void RegisterFilterManagerExtract(TToolRegistry& registry);
