// Advanced Fitting Tool: one fit function fitted to every spectrum of a graph stack on all cores, giving
// images of the fitted parameters and their errors, chi-square and a fail mask, and on request the fitted
// curves. The window, --set and the stored defaults all go through the parameters declared here.
//
// The function's own settings and the fit parameter rows depend on the chosen function, so they are held
// as text parameters read when the tool runs:
//   Function Settings  "NumberOfFunctions=2; WidthKind=FWHM"   (the function's settings, by name)
//   Fit Parameters     "x0|Start Value=520; x0|Auto=false; y0|Vary=false; s|Lower Limit=none"
// Columns of a row: Start Value, Value, Vary, Lower Limit, Upper Limit (a number or "none"), Auto,
// Extract Value, Extract Error, Value if Fit Fails, Fit Order (the stage of a staged fit from which the
// row varies, see TAdvancedFitParamSettings). The settings always apply before the rows.
//
// The preview range (# of Points, Preview Start Value, Preview Stop Value, in the unit of the input's
// axis) is the even x axis the window draws the fit curve on, and the axis of extracted fit curves when
// "Extract Fit Curve with Input Data Supporting Points" is off; start and stop both 0 mean the whole axis.
#pragma once

#include "project/Projectdialogform.h"

#include <memory>
#include <string>
#include <vector>

class TAdvancedFittingCore;
class TAdvancedFittingPreview;
class IProgressAndCancel;
class TDGraph;
class TToolRegistry;

struct TAdvancedFitPointResult;

/// The text of one fitted spectrum, as `orvex fit` prints a fit: "name value error" per parameter (user
/// form, precision significant digits), "chi2", the statistics lines and "status" with the fit's message.
std::string FormatAdvancedFitPointResult(const std::vector<std::string>& names,
                                         const TAdvancedFitPointResult& result, int precision);
/// The same as JSON: {"parameters":[{"name","value","error"}],"chi2","chi2PerDoF","points","dof",
/// "averageError","r2","status","message"}; full precision, null for numbers that aren't finite; status
/// "ok" or "failed".
std::string AdvancedFitPointResultJson(const std::vector<std::string>& names,
                                       const TAdvancedFitPointResult& result);

/// Applies the row assignments of a "Fit Parameters" text to the core's rows. False with one line naming
/// the row or column when an assignment can't be read or names no row of the current function.
bool ApplyFitParameterText(const std::string& text, TAdvancedFittingCore& core, std::string& error);

class TAdvancedFittingToolForm : public TProjectDialogForm {
public:
  static constexpr const char* kClassName = "TAdvancedFittingToolForm";
  /// The command that makes only the fitted curves.
  static constexpr const char* kExtractCurves = "Extract Curves";
  /// @{ The window's commands on the current spectrum and the parameter rows.
  static constexpr const char* kFitOnce = "Fit Once";
  static constexpr const char* kValuesToStartValues = "<<";
  static constexpr const char* kStartValuesToValues = ">>";
  static constexpr const char* kResetParams = "Reset Params";
  /// @}
  /// @{ The preview range: points, start and stop of the fit curve's x axis, its reset to the input's
  /// axis, and its following of the preview viewer's x cursor.
  static constexpr const char* kPreviewPoints = "# of Points";
  static constexpr const char* kPreviewStart = "Preview Start Value";
  static constexpr const char* kPreviewStop = "Preview Stop Value";
  static constexpr const char* kResetRange = "Reset Range";
  static constexpr const char* kListen = "Listen";
  /// @}

  TAdvancedFittingToolForm();
  ~TAdvancedFittingToolForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();

  /// Only graphs are fitted; reason names the first input that isn't one.
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;

  /// Sets up core from the current parameters: function, its settings, rows, extraction options, data
  /// reduction. False with one line naming the parameter at fault.
  bool ConfigureCore(TAdvancedFittingCore& core, std::string& error) const;

  /// ConfigureCore, then the fit mask and the spectral axis of graph; throws naming what is wrong.
  void ConfigureForGraph(const TDGraph& graph, TAdvancedFittingCore& core) const;

  /// The commands that make results (the window's fitting commands don't).
  std::vector<std::string> GetExtractCommands() const override;

  /// Opens the preview of the first input when the tool runs in a window.
  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void CleanUp() override;
  /// A moved space cursor makes its spectrum the current one; a moved x cursor of the preview viewer
  /// sets an armed parameter or, with Listen, the preview range.
  void DoDataChange(TData* data) override;
  /// The current spectrum, its fit and the preview graphs; null while the tool isn't open in a window.
  TAdvancedFittingPreview* GetPreview() const;
  /// The same whether open or not (the window connects to it once).
  TAdvancedFittingPreview& Preview() const { return *FPreview; }
  /// The fit mask is shown and drawn on the preview viewer, over the current spectrum's graph.
  bool HasSpectralMaskViewer() const override { return true; }
  TVCustomForm* GetSpectralMaskViewer() const override;
  int32_t GetSpectralMaskGraphID() const override;

  /// Failed fits of the last run, summed over its inputs.
  int64_t GetNumberOfFailedFits() const { return FFailedFits; }

  /// Asked before every spectrum besides the run's own cancel (may be null).
  const IProgressAndCancel* ExternalCancel = nullptr;

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;

private:
  /// Fits one input graph and hands its images (and curves) to the frame; false after a cancel.
  bool FitGraph(const TDGraph& graph, bool images, bool curves, std::string& report);
  /// Fits the spectrum at x, y alone: its values, errors and statistics as a text object (and the fitted
  /// curve with Extract Fit Curves); appends the text to report and returns it as JSON.
  std::string FitPoint(const TDGraph& graph, int32_t x, int32_t y, std::string& report);

  int64_t FFailedFits = 0;
  std::unique_ptr<TAdvancedFittingPreview> FPreview;
};

void RegisterAdvancedFittingTool(TToolRegistry& registry);
