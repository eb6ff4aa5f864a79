// PCA: principal component analysis of one spectra stack on the tool frame. Extract calculates the
// covariance of the points of the spectrum mask over the used pixels, solves it and adds the results the
// options ask for (eigenvalues, eigenvectors and average; single eigenvector graphs; scores; reconstructed
// spectra) for the components of the PC mask. The window, --set and the stored defaults all go through the
// parameters declared here; the calculation itself is TPCACore's.
#pragma once

#include "project/Projectdialogform.h"

#include <string>
#include <vector>

class IProgressAndCancel;
class TDGraph;
class TPCACore;
class TToolRegistry;

class TPCAForm : public TProjectDialogForm {
public:
  static constexpr const char* kClassName = "TPCAForm";

  TPCAForm();
  ~TPCAForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();

  /// Exactly one graph (of class TDGraph itself) with more than one pixel in x; reason names the culprit.
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;

  /// The components the "PC Mask" text selects for a calculation of componentCount components, ascending.
  /// A range that ends beyond the last component is cut; one that selects none is refused. False with one
  /// line naming the parameter and the valid range.
  bool ReadPCMask(int componentCount, std::vector<int>& pcs, std::string& error) const;

  /// Asked besides the run's own cancel during the calculation and the extraction (may be null).
  const IProgressAndCancel* ExternalCancel = nullptr;

protected:
  bool DoCommand(const std::string& name) override;

private:
  /// Calculates on graph and hands the results to the frame; false after a cancel, throws on bad input.
  bool CalculateAndExtract(const TDGraph& graph, std::string& report);
};

void RegisterPCATool(TToolRegistry& registry);
