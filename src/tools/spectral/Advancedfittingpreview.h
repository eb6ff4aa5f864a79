// The interactive side of the Advanced Fitting Tool: the spectrum under the space cursor, its fit with
// the statistics and status shown beside the parameter table, the preview graphs (the spectrum, the fitted
// or start curve and the replicas of a composite function) in one graph viewer, and the commands that work
// on the parameter rows. Knows no widgets: the window shows what it holds and calls its operations.
#pragma once

#include "tools/spectral/Advancedfittingcore.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class TAdvancedFittingToolForm;
class TDCursor;
class TFitFunctionManager;
class TVCustomForm;

/// The rows as a "Fit Parameters" text that ApplyFitParameterText reads back to the same rows: every
/// column of every row, numbers with full precision.
std::string FitParameterText(const std::vector<TAdvancedFitParamSettings>& rows);

/// A function the list offers: its name and the categories it is shown under.
struct TFitFunctionListEntry {
  std::string FunctionName;
  std::string Category;
  bool UserFunction = false;
  bool OnlyAdvancedMode = false;
};

class TAdvancedFittingPreview {
public:
  /// What the mode radio offers.
  static constexpr const char* kFitOnChange = "Fit on Change";
  static constexpr const char* kDefineStartValues = "Define Start Values";
  /// The status before a fit and the one of a good fit.
  static constexpr const char* kFitSuccessful = "Fit Successful";
  static constexpr const char* kNotFitted = "Not fitted";
  /// The window title when a user function file can't be saved or loaded.
  static constexpr const char* kSaveLoadProblemTitle = "Advanced Fitting Tool (Save/Load Problem)";

  explicit TAdvancedFittingPreview(TAdvancedFittingToolForm& tool);
  ~TAdvancedFittingPreview();
  TAdvancedFittingPreview(const TAdvancedFittingPreview&) = delete;
  TAdvancedFittingPreview& operator=(const TAdvancedFittingPreview&) = delete;

  ///@{ Life cycle: Open makes the preview graphs of the tool's first input (its current spectrum copied
  /// into a single-spectrum graph, the curve graph "Fit Preview", one graph per replica) and the viewer
  /// showing them; Close forgets them (the tool's clean-up deletes them).
  void Open(int32_t graphID);
  void Close();
  bool IsOpen() const { return FGraphID != 0; }
  ///@}

  ///@{ The current spectrum.
  int32_t GetPixelX() const { return FPixelX; }
  int32_t GetPixelY() const { return FPixelY; }
  /// Makes the spectrum at x, y the current one (the tool's Pixel X, Pixel Y follow); with Fit on Change
  /// it is fitted at once, otherwise the curve is drawn from the start values. False when outside.
  bool SetPixel(int32_t x, int32_t y);
  /// Follows the space cursor: its pixel of the input graph becomes the current spectrum. False when the
  /// cursor points nowhere in the graph or at the current spectrum already.
  bool FollowSpaceCursor();
  ///@}

  ///@{ Fitting and the rows.
  /// Reads the tool's parameters into the core (function, settings, rows, mask and axis of the input);
  /// false with the problem in the status.
  bool Reconfigure();
  /// "Fit Once": fits the current spectrum from the rows' start values; the rows' Value columns take the
  /// fitted values, the statistics and the status follow. False when the fit failed or couldn't start.
  bool FitOnce();
  /// After a change of the settings: fits (Fit on Change) or draws the curve of the start values.
  void Update();
  /// "<<": each row's Value becomes its Start Value.
  void CopyValuesToStartValues();
  /// ">>": each row's Start Value becomes its Value.
  void CopyStartValuesToValues();
  /// "Reset Params": the rows back to the function's own settings (start values, limits, Vary, Auto).
  void ResetParams();
  /// Writes one row (the window's table); false with a message when the row set is refused.
  bool SetRow(int index, const TAdvancedFitParamSettings& row, std::string& problem);
  /// "Fit Sooner" / "Fit Later" on row index (see TAdvancedFitParamSettings::FitOrder); false when
  /// index is no row.
  bool FitSooner(int index);
  bool FitLater(int index);
  /// All Extract Value (or Extract Error) switches on or off.
  void SetAllExtract(bool values, bool on);
  const std::vector<TAdvancedFitParamSettings>& Rows() const { return FCore.Rows(); }
  /// The short names in the user form, one per row.
  std::vector<std::string> RowNames() const;
  ///@}

  ///@{ The preview range: the even x axis the fit curve and the replicas are drawn on, in the unit of
  /// the input's axis. Start and stop both 0 (as declared) mean the whole axis.
  TAdvancedFitPreviewRange GetRange() const;
  /// "Reset Range": the whole axis of the input, as many points as it has (at most 1000).
  void ResetRange();
  /// The range changed: the curves are drawn on it anew, the last fit (and its status) stays.
  void RangeChanged();
  /// The unit of the input's axis (the range's unit; empty without axis).
  const std::string& GetAxisUnit() const { return FAxisUnit; }
  /// The x positions of the fit curve graph as drawn last.
  const std::vector<double>& GetCurveAxis() const { return FCurveAxis; }
  ///@}

  ///@{ Taking values from the preview viewer's x cursor.
  /// The class of the x cursor of the input's axis (empty without one).
  const std::string& GetXCursorClassName() const { return FXCursorClass; }
  /// Arms row index to take its Start Value from the x cursor by its parameter's listen kind (one armed
  /// row at a time; a row whose parameter doesn't listen is refused): "X-Axis" the cursor position,
  /// "Y-Axis" the current spectrum's value at the point nearest to it, and from the last two positions
  /// of the cursor "X-Diff" (later minus earlier), "X-Diff Absolute", "Y-Diff", "Y-Diff Absolute"
  /// and "Area" (the trapezoid area of the spectrum between them). The value is taken in the user form
  /// of the parameter. It stays armed until DisarmListen.
  bool ArmListen(int index);
  /// Ends the listening of the armed row.
  void DisarmListen();
  /// The armed row, -1 for none.
  int GetArmedRow() const { return FArmedRow; }
  /// The listen kind of row index ("No Listen" for none).
  TFitParamListenKind GetListenKind(int index) const;
  /// A cursor changed: when it is the x cursor of the input's axis, the armed row takes its value and,
  /// with Listen, the nearer end of the preview range follows (XCursorMovedTo with its position in the
  /// axis unit); false for any other cursor.
  bool XCursorChanged(const TDCursor& cursor);
  void XCursorMovedTo(double position);
  ///@}

  ///@{ What the window shows.
  bool IsFitOnChange() const;
  /// With Define Start Values the curve is drawn from the rows' "Start Value" (default) or "Value"; a fit
  /// always shows its fitted curve.
  void SetCurveFromValue(bool fromValue);
  bool GetCurveFromValue() const { return FCurveFromValue; }
  const std::string& GetStatus() const { return FStatus; }
  const TAdvancedFitPointResult& GetLastResult() const { return FLastResult; }
  /// "Chi^2 / DoF:", "Data Points / DoF:", "Average Error:", "R^2:" with their texts ("--------" before
  /// a good fit).
  std::vector<std::pair<std::string, std::string>> GetStatistics() const;
  int32_t GetDataGraphID() const { return FDataGraphID; }
  int32_t GetFitGraphID() const { return FFitGraphID; }
  const std::vector<int32_t>& GetReplicaGraphIDs() const { return FReplicaGraphIDs; }
  TVCustomForm* GetViewer() const { return FViewer; }
  /// The window's title: the tool's name, or the save/load problem title after a failed file operation.
  const std::string& GetTitle() const { return FTitle; }
  /// True while the preview writes the tool's parameters itself (no refit of its own is due).
  bool IsStoring() const { return FStoring; }
  /// Called after anything the window shows changed.
  std::function<void()> OnChanged;
  ///@}

  ///@{ The function list and the user functions.
  /// The standard functions and the user functions, each under its first category ("User" for those of
  /// the user).
  std::vector<TFitFunctionListEntry> GetFunctionList() const;
  /// Selects a function of the list by name; its rows start from its own settings. False when unknown or
  /// when it is offered in advanced mode only and advanced mode is off.
  bool SelectFunction(const std::string& functionName);
  std::string GetSelectedFunctionName() const;
  /// The function's own settings ("NumberOfFunctions=2; WidthKind=FWHM"): rows of parameters that keep
  /// their short name keep their settings, the others start from the function's own. False with the
  /// status naming the problem when the settings are refused.
  bool SetFunctionSettings(const std::string& settings);
  /// Turning advanced mode off is refused while a function offered only in advanced mode is selected.
  bool IsAdvancedModeChangeAllowed(bool on) const;
  /// Turns advanced mode back on, the status saying why.
  void KeepAdvancedMode();
  /// "Add selected function to user fit functions": a copy of the selected function, with the current
  /// rows as its parameters, named name, joins the user functions. False when the name is taken.
  bool AddSelectedFunctionToUserFunctions(const std::string& name, std::string& problem);
  /// "Delete selected user fit function".
  bool DeleteSelectedUserFunction();
  /// "Save user fit functions to file", "Load user fit functions from file" (append: keep the present
  /// ones). A failure sets the save/load problem title and returns false.
  bool SaveUserFunctions(const std::string& fileName);
  bool LoadUserFunctions(const std::string& fileName, bool append);
  ///@}

private:
  void Changed();
  /// Writes the rows into the tool's "Fit Parameters" (and the pixel into Pixel X, Pixel Y) without a
  /// refit of its own.
  void StoreRows();
  void StorePixel();
  /// The curve graphs from the last fit (Fit on Change) or the start values (Define Start Values).
  void DrawCurves(bool fromValues);
  /// The curves as they stand: from the values after a good fit or when the preview radio says so.
  void RedrawCurves();
  void CopySpectrumToDataGraph();
  void MakeReplicaGraphs();
  /// The fit curve graph (and replicas) sized to the preview range, their x axis its positions.
  bool SizeCurveGraphs(const std::vector<double>& axis);
  /// The current spectrum's value at the point nearest to x; NaN without one.
  double SpectrumValueAt(double x) const;
  /// The area under the current spectrum from a to b (trapezoids over its points in between).
  double SpectrumAreaBetween(double a, double b) const;
  void ClearResult(const std::string& status);

  TAdvancedFittingToolForm& FTool;
  TAdvancedFittingCore FCore;
  std::unique_ptr<TFitFunctionManager> FUserFunctions;
  int32_t FGraphID = 0;
  int32_t FPixelX = 0, FPixelY = 0;
  int32_t FDataGraphID = 0, FFitGraphID = 0;
  std::vector<int32_t> FReplicaGraphIDs;
  int32_t FCurveTransformationID = 0;
  std::string FXCursorClass;
  int32_t FXInterpretationID = 0;
  std::string FAxisUnit;
  std::vector<double> FCurveAxis;
  int FArmedRow = -1;
  std::vector<double> FListenPositions; ///< the last cursor positions since arming, at most two
  TVCustomForm* FViewer = nullptr;
  bool FCurveFromValue = false;
  TAdvancedFitPointResult FLastResult;
  std::string FStatus = kNotFitted;
  std::string FTitle;
  bool FStoring = false;
};
