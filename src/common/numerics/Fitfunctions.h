// Fit functions: models for the Levenberg-Marquardt minimizer with named parameters, limits, start-value
// estimation, conversion between user and native parameters, replicas and tag persistence; the seven
// standard functions Gauss, Lorentz, two pseudo-Voigt forms, exponential decay, polynomial and the user's
// formula.
#pragma once

#include "common/Tagcontrol.h"
#include "common/numerics/Chisqrminimizer.h"
#include "common/numerics/Formelparser.h"
#include "common/parameters/Parametertable.h"

#include <bitset>
#include <memory>
#include <string>
#include <vector>

/// How a parameter takes a value from the viewer's cursors.
enum class TFitParamListenKind : int {
  NoListen = 0,
  XAxis = 1,
  YAxis = 2,
  XDiff = 3,
  XDiffAbsolute = 4,
  YDiff = 5,
  YDiffAbsolute = 6,
  Area = 7,
};
/// The words of a listen kind ("No Listen", "X-Axis", ...).
std::string FitParamListenKindName(TFitParamListenKind kind);

/// The 25 persistent items of a TFitParam, in tag order.
enum TFitParamVariable : int {
  fpvShortName,
  fpvLongName,
  fpvUnitDescription,
  fpvVary,
  fpvVaryEnable,
  fpvLowerLimitHasLowerLimit,
  fpvLowerLimitLowerLimit,
  fpvLowerLimitHasUpperLimit,
  fpvLowerLimitUpperLimit,
  fpvHasLowerLimit,
  fpvLowerLimit,
  fpvLowerLimitEnable,
  fpvUpperLimitHasLowerLimit,
  fpvUpperLimitLowerLimit,
  fpvUpperLimitHasUpperLimit,
  fpvUpperLimitUpperLimit,
  fpvHasUpperLimit,
  fpvUpperLimit,
  fpvUpperLimitEnable,
  fpvStartValue,
  fpvStartValueAutoDetect,
  fpvStartValueAutoDetectEnable,
  fpvValue,
  fpvSeparator,
  fpvListenKind,
  fpvCount
};
using TFitParamVariables = std::bitset<fpvCount>;
/// Tag name of each persistent item.
const char* FitParamVariableTagName(TFitParamVariable v);

/// One parameter of a fit function.
class TFitParam {
public:
  TFitParam() = default;
  virtual ~TFitParam() = default;

  void SetDescriptions(const std::string& shortName, const std::string& longName, const std::string& unit);
  /// The descriptions of the user form (after TransformNativeParametersToParameters) and the name shown with
  /// the user value.
  void SetTransformedDescriptions(const std::string& shortName, const std::string& longName,
                                  const std::string& unit, const std::string& userName);
  void SetVariability(bool vary, bool varyEnable);
  void SetLimits(bool hasLower, double lower, bool lowerEnable, bool hasUpper, double upper,
                 bool upperEnable);
  void SetLowerLimitLimits(bool hasLower, double lower, bool hasUpper, double upper);
  void SetUpperLimitLimits(bool hasLower, double lower, bool hasUpper, double upper);
  void SetValues(double start, bool autoDetect, bool autoDetectEnable, double value);
  void SetListenKind(TFitParamListenKind kind) { ListenKind = kind; }

  /// Writes the items named in the set, one tag each, into the tag open in file.
  TTagError SaveToTagFile(TFileHandle file, const TFitParamVariables& items) const;
  /// Reads the items named in the set from the children of parent; missing ones keep their value.
  TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent, const TFitParamVariables& items);

  std::string ShortName, LongName, UnitDescription;
  std::string TransformedShortName, TransformedLongName, TransformedUnitDescription, UserName;
  bool Vary = true;
  bool VaryEnable = true;
  bool LowerLimitHasLowerLimit = false;
  double LowerLimitLowerLimit = 0;
  bool LowerLimitHasUpperLimit = false;
  double LowerLimitUpperLimit = 0;
  bool HasLowerLimit = false;
  double LowerLimit = 0;
  bool LowerLimitEnable = true;
  bool UpperLimitHasLowerLimit = false;
  double UpperLimitLowerLimit = 0;
  bool UpperLimitHasUpperLimit = false;
  double UpperLimitUpperLimit = 0;
  bool HasUpperLimit = false;
  double UpperLimit = 0;
  bool UpperLimitEnable = true;
  double StartValue = 0;
  bool StartValueAutoDetect = false;
  bool StartValueAutoDetectEnable = true;
  double Value = 0;
  bool Separator = false;
  TFitParamListenKind ListenKind = TFitParamListenKind::NoListen;
};

/// What CalculateThread reports besides the parameters.
struct TFitFunctionErrorInfo {
  bool FitOK = false;
  bool EstimateOK = false;
  double ChiSqr = 0;
  double TotalSumOfSquares = 0;
  double ResidualSumOfSquares = 0;
};

/// Base of all fit functions: the parameter list and what a fit tool needs around a model.
class TFitFunction {
public:
  TFitFunction();
  TFitFunction(const TFitFunction&) = delete;
  TFitFunction& operator=(const TFitFunction&) = delete;
  virtual ~TFitFunction();

  /// Makes the parameter list for the current settings, then InitializeParameters.
  virtual void CreateParameters() = 0;
  /// True when the function is offered only in advanced mode.
  virtual bool GetOnlyAdvancedMode() const { return false; }
  /// Called when a tool selects the function.
  virtual void Select() {}
  /// Writes "ClassName", "FunctionName", "FitParameters" and the class's own tag into the open tag.
  virtual TTagError SaveToTagFile(TFileHandle file);
  /// Reads what SaveToTagFile wrote from the children of parent.
  virtual TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent);
  /// The model's value at x for the native parameters p.
  virtual double GetFunctionValue(const double* p, double x) const = 0;
  /// Offset plus only part replica of a composite function (-1: all).
  virtual double GetReplicaValue(const double* p, double x, int replica) const;
  /// Names of the parts that can be drawn alone; empty when there is only one.
  virtual std::vector<std::string> GetReplicaList() const { return {}; }
  /// Per-thread working data for CalculateThread (opaque); freed by ThreadPostpare.
  virtual void* ThreadPrepare() = 0;
  virtual void ThreadPostpare(void* threadData) = 0;
  /// Estimates and fits one data set; see TNLFitFunction.
  virtual bool CalculateThread(void* threadData, double* startOut, double* valuesOut, double* errorsOut,
                               int n, const double* x, const double* y, const double* sigma,
                               TFitFunctionErrorInfo& info, std::string& message) = 0;
  /// Names, start rules, limits and listen kinds of the standard setup.
  virtual void InitializeParameters() = 0;
  /// Orders the parts of a composite function; values and errors alike.
  virtual void SortParameters(double* /*values*/, double* /*errors*/) const {}
  /// @{ Conversion between user form (what the user reads) and native form (what the model holds), in place.
  virtual void TransformParametersToNativeParameters(double* /*values*/) const {}
  virtual void TransformNativeParametersToParameters(double* /*values*/) const {}
  /// Converts native errors to user errors; values are the native values.
  virtual void TransformNativeErrorToError(const double* /*values*/, double* /*errors*/) const {}
  /// @}

  /// The function's own settings (number of parts, intensity and width forms, order, formula) as a
  /// parameter table bound to their fields; empty for a function without settings. Saving, loading,
  /// setting from text and the settings form all go through it.
  virtual TParameterBinding Settings() { return {}; }
  /// @{ The settings form: the administrator gets the settings parameters with their current values;
  /// after a change the function takes them back and rebuilds its parameter list.
  virtual void CFICreateParameters(TUserParameterAdministrator& administrator);
  virtual void CFIParameterChanged(const TUserParameterAdministrator& administrator);
  /// @}
  /// "name=value" assignments to the settings: every problem is returned and nothing changes unless
  /// all are right; on success the parameter list is rebuilt for the new settings.
  TUserParameterProblems SetSettingsFromText(const std::vector<std::string>& assignments);

  int GetNumberOfParameters() const { return static_cast<int>(Params.size()); }
  TFitParam* GetParam(int i) { return (i >= 0 && i < GetNumberOfParameters()) ? Params[i].get() : nullptr; }
  /// True when the category list contains "User".
  bool IsUserFunction() const;

  std::vector<std::unique_ptr<TFitParam>> Params;
  std::string DisplayName;
  std::string FormulaText;
  std::string ClassName;
  std::string FunctionName;
  std::vector<std::string> Categories;
  std::string HelpKey;
  /// Which items of each parameter a save writes (the user-changeable ones).
  TFitParamVariables SaveItems;

protected:
  /// Writes the settings, one tag each, inside the tag named ClassName.
  virtual TTagError SaveClassSettings(TFileHandle file);
  /// Reads the settings from the tag named ClassName: a missing one takes its default, a value outside
  /// the limits the nearest limit.
  virtual TTagError LoadClassSettings(TFileHandle file, const TTagControl& classTag);
  /// Resizes the parameter list, keeping existing entries.
  void ResizeParameters(int count);
};

/// A fit function solved by TChiSqrMinimizer.
class TNLFitFunction : public TFitFunction {
public:
  /// Copies the hooks, tolerance and iteration limit to a minimizer.
  virtual void InitializeCSM(TChiSqrMinimizer* minimizer);
  /// Copies flags, limits and start values of the parameters to a minimizer.
  void CopyParamsToCSM(TChiSqrMinimizer* minimizer) const;

  double GetFunctionValue(const double* p, double x) const override;
  /// A minimizer prepared for this function (InitializeCSM, CopyParamsToCSM).
  void* ThreadPrepare() override;
  void ThreadPostpare(void* threadData) override;
  /// Estimation (start values to startOut if given), fit, then values and errors to the outputs and the sums
  /// of squares to info. True when the fit ended with code 0. message gets the status text.
  bool CalculateThread(void* threadData, double* startOut, double* valuesOut, double* errorsOut, int n,
                       const double* x, const double* y, const double* sigma, TFitFunctionErrorInfo& info,
                       std::string& message) override;
  /// The status text of a minimizer's last run, headed "Fit ".
  static void CreateErrorMessage(const TChiSqrMinimizer* minimizer, std::string& message,
                                 bool numericProblem);

  std::string FirstDisplayValueName = "Chi^2";
  bool ShowFirstDisplayValue = true;
  TCSMModelFunction Model = nullptr;
  TCSMModelClosure ModelClosure;
  /// Block form of Model, used for fits when set (see TCSMBlockModelFunction).
  TCSMBlockModelFunction BlockModel = nullptr;
  TCSMEstimatorFunction Estimator = nullptr;
  TCSMEstimatorClosure EstimatorClosure;
  double Tolerance = 1e-8;
  int MaxIterations = 200;
};

/// Sum of Gaussians on an offset: y0, then x0, s, Amp for each function.
class TNLFitGauss : public TNLFitFunction {
public:
  TNLFitGauss();
  TParameterBinding Settings() override;
  void CreateParameters() override;
  bool GetOnlyAdvancedMode() const override { return NumberOfFunctions > 1; }
  void InitializeParameters() override;
  double GetReplicaValue(const double* p, double x, int replica) const override;
  std::vector<std::string> GetReplicaList() const override;
  void SortParameters(double* values, double* errors) const override;
  void TransformParametersToNativeParameters(double* values) const override;
  void TransformNativeParametersToParameters(double* values) const override;
  void TransformNativeErrorToError(const double* values, double* errors) const override;

  int NumberOfFunctions = 1; ///< 1..10
  int IntensityKind = 0;     ///< 0 amplitude, 1 area
  int WidthKind = 0;         ///< 0 sigma, 1 2 sigma, 2 FWHM
  int SortKind = 0;          ///< 0 none, 1 center, 2 width, 3 intensity, 4 area
};

/// Sum of Lorentzians on an offset: y0, then x0, w (FWHM), A (area) for each function.
class TNLFitLorentz : public TNLFitFunction {
public:
  TNLFitLorentz();
  TParameterBinding Settings() override;
  void CreateParameters() override;
  bool GetOnlyAdvancedMode() const override { return NumberOfFunctions > 1; }
  void InitializeParameters() override;
  double GetReplicaValue(const double* p, double x, int replica) const override;
  std::vector<std::string> GetReplicaList() const override;
  void TransformParametersToNativeParameters(double* values) const override;
  void TransformNativeParametersToParameters(double* values) const override;
  void TransformNativeErrorToError(const double* values, double* errors) const override;

  int NumberOfFunctions = 1;   ///< 1..10
  int IntensityKind = 0;       ///< 0 area, 1 amplitude
  int ListenIntensityKind = 0; ///< 0 area, 1 amplitude
};

/// Pseudo-Voigt with one width: y0, x0, w, A, mu.
class TNLFitPsdVoigt1 : public TNLFitFunction {
public:
  TNLFitPsdVoigt1();
  void CreateParameters() override;
  void InitializeParameters() override;
  double GetReplicaValue(const double* p, double x, int replica) const override;
  std::vector<std::string> GetReplicaList() const override;
};

/// Pseudo-Voigt with a Lorentz and a Gauss width: y0, x0, wl, wg, A, mu.
class TNLFitPsdVoigt2 : public TNLFitFunction {
public:
  TNLFitPsdVoigt2();
  void CreateParameters() override;
  void InitializeParameters() override;
  double GetReplicaValue(const double* p, double x, int replica) const override;
  std::vector<std::string> GetReplicaList() const override;
};

/// Sum of exponential decays: y0, x0 (fixed), then A, t for each.
class TNLFitExpDecay : public TNLFitFunction {
public:
  TNLFitExpDecay();
  TParameterBinding Settings() override;
  void CreateParameters() override;
  bool GetOnlyAdvancedMode() const override { return ExpDecayOrder > 1; }
  void InitializeParameters() override;
  double GetReplicaValue(const double* p, double x, int replica) const override;
  std::vector<std::string> GetReplicaList() const override;

  int ExpDecayOrder = 1; ///< 1..10
};

/// Polynomial sum of A(i) x^i, i = 0..PolynomOrder.
class TNLFitPolynom : public TNLFitFunction {
public:
  TNLFitPolynom();
  TParameterBinding Settings() override;
  void CreateParameters() override;
  void InitializeParameters() override;

  int PolynomOrder = 2; ///< 0..10
};

/// The user's formula over x1 (abscissa) and x2, x3, ... (the parameters), with numeric derivatives.
class TNLFitUserDefined : public TNLFitFunction {
public:
  TNLFitUserDefined();
  TParameterBinding Settings() override;
  void CreateParameters() override;
  void InitializeParameters() override;
  double GetFunctionValue(const double* p, double x) const override;
  void InitializeCSM(TChiSqrMinimizer* minimizer) override;
  void* ThreadPrepare() override;
  void ThreadPostpare(void* threadData) override;

  /// Removes blanks from the formula, sizes the parser to NumberOfParams + 1 variables and compiles; the
  /// function is usable when this returns true.
  bool UserFitFunctionChanged();
  /// Adds parameters at the end ("Parameter(k)", short name "xk") or removes them from the end.
  void AdjustParameterCount();
  bool IsUsable() const { return FParser.IsValid() && !FParser.HasError(); }
  const TFormelParser& Parser() const { return FParser; }

  int NumberOfParams = 2;
  std::string FitFunctionString = "x2 + x3 * x1";
  double EPS = 1e-4; ///< relative step of the numeric derivatives, 1e-10..1e30

protected:
  /// The settings, then the parameter list emptied for the saved parameters and the formula compiled.
  TTagError LoadClassSettings(TFileHandle file, const TTagControl& classTag) override;

private:
  struct TArgumentBlock;
  void Model(double x, const double* p, double& y, double* d, TChiSqrMinimizer* csm) const;
  TFormelParser FParser;
};

// Models and estimators, usable directly with TChiSqrMinimizer.
void CSMGauss(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
void CSMLorentz(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
void CSMPsdVoigt1(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
void CSMPsdVoigt2(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
void CSMExpDecay(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
/// Plain exponential decay y0 + A exp(-x/t) without x0 (parameters y0, A, t), for filters.
void CSMLevenbergMarquardtExponentialDecay(double x, const double* p, double& y, double* d, int n,
                                           TChiSqrMinimizer* csm);
void CSMPolynom(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer* csm);
// Block forms of the models above (kCSMBlockSize points per call).
void CSMGaussBlock(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMLorentzBlock(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMPsdVoigt1Block(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMPsdVoigt2Block(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMExpDecayBlock(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMPolynomBlock(const double* x, const double* p, double* y, double* d, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersGauss(const double* x, const double* y, double* s1, double* s2, int np,
                                const bool* use, double* p, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersLorentz(const double* x, const double* y, double* s1, double* s2, int np,
                                  const bool* use, double* p, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersPsdVoigt1(const double* x, const double* y, double* s1, double* s2, int np,
                                    const bool* use, double* p, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersPsdVoigt2(const double* x, const double* y, double* s1, double* s2, int np,
                                    const bool* use, double* p, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersExpDecay(const double* x, const double* y, double* s1, double* s2, int np,
                                   const bool* use, double* p, int n, TChiSqrMinimizer* csm);
/// Estimator of the plain decay (y0, A, t).
void CSMEstimateParametersExponentialDecay(const double* x, const double* y, double* s1, double* s2, int np,
                                           const bool* use, double* p, int n, TChiSqrMinimizer* csm);
void CSMEstimateParametersPolynom(const double* x, const double* y, double* s1, double* s2, int np,
                                  const bool* use, double* p, int n, TChiSqrMinimizer* csm);

/// Result of the peak estimation shared by the peak functions.
struct TPeakEstimate {
  double Base = 0, Height = 0, Width = 0, Center = 0;
  bool Upward = true;
};
TPeakEstimate EstimatePeak(const double* x, const double* y, int n);
