// Fit functions: parameters, models with analytic derivatives, estimators, conversions, persistence.
#include "common/numerics/Fitfunctions.h"

#include "common/OrvexException.h"
#include "common/numerics/Linalg.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr double kSqrt4Ln2 = 1.6651092223153956;
constexpr double k4Ln2 = 2.772588722239781;
constexpr double kSqrtPi = 1.772453850905516;
constexpr double k2OverPi = 0.6366197723675814;
constexpr double kSqrt2Pi = 2.5066282746310007;
constexpr double kFwhmPerSigma = 2.3548200450309493;
[[maybe_unused]] constexpr double kSigmaPerFwhm = 0.42466090014400953;
constexpr double kMinWidth = 1e-10;

const char* const kFitParamTagNames[fpvCount] = {"ShortName",
                                                 "LongName",
                                                 "UnitDescription",
                                                 "Vary",
                                                 "VaryEnable",
                                                 "LowerLimitHasLowerLimit",
                                                 "LowerLimitLowerLimit",
                                                 "LowerLimitHasUpperLimit",
                                                 "LowerLimitUpperLimit",
                                                 "HasLowerLimit",
                                                 "LowerLimit",
                                                 "LowerLimitEnable",
                                                 "UpperLimitHasLowerLimit",
                                                 "UpperLimitLowerLimit",
                                                 "UpperLimitHasUpperLimit",
                                                 "UpperLimitUpperLimit",
                                                 "HasUpperLimit",
                                                 "UpperLimit",
                                                 "UpperLimitEnable",
                                                 "StartValue",
                                                 "StartValueAutoDetect",
                                                 "StartValueAutoDetectEnable",
                                                 "Value",
                                                 "Separator",
                                                 "ListenKind"};

// Gauss width in sigma from the user's width kind, and back.
double WidthFactor(int widthKind) {
  return widthKind == 1 ? 2.0 : (widthKind == 2 ? kFwhmPerSigma : 1.0);
}

} // namespace

std::string FitParamListenKindName(TFitParamListenKind kind) {
  static const char* const names[] = {"No Listen",       "X-Axis", "Y-Axis",          "X-Diff",
                                      "X-Diff Absolute", "Y-Diff", "Y-Diff Absolute", "Area"};
  const int k = static_cast<int>(kind);
  return (k >= 0 && k < 8) ? names[k] : "No Listen";
}

const char* FitParamVariableTagName(TFitParamVariable v) {
  return (v >= 0 && v < fpvCount) ? kFitParamTagNames[v] : "";
}

// ---------------------------------------------------------------------------------------------
// TFitParam

void TFitParam::SetDescriptions(const std::string& shortName, const std::string& longName,
                                const std::string& unit) {
  ShortName = shortName;
  LongName = longName;
  UnitDescription = unit;
  if (TransformedShortName.empty()) SetTransformedDescriptions(shortName, longName, unit, shortName);
}

void TFitParam::SetTransformedDescriptions(const std::string& shortName, const std::string& longName,
                                           const std::string& unit, const std::string& userName) {
  TransformedShortName = shortName;
  TransformedLongName = longName;
  TransformedUnitDescription = unit;
  UserName = userName;
}

void TFitParam::SetVariability(bool vary, bool varyEnable) {
  Vary = vary;
  VaryEnable = varyEnable;
}

void TFitParam::SetLimits(bool hasLower, double lower, bool lowerEnable, bool hasUpper, double upper,
                          bool upperEnable) {
  HasLowerLimit = hasLower;
  LowerLimit = lower;
  LowerLimitEnable = lowerEnable;
  HasUpperLimit = hasUpper;
  UpperLimit = upper;
  UpperLimitEnable = upperEnable;
}

void TFitParam::SetLowerLimitLimits(bool hasLower, double lower, bool hasUpper, double upper) {
  LowerLimitHasLowerLimit = hasLower;
  LowerLimitLowerLimit = lower;
  LowerLimitHasUpperLimit = hasUpper;
  LowerLimitUpperLimit = upper;
}

void TFitParam::SetUpperLimitLimits(bool hasLower, double lower, bool hasUpper, double upper) {
  UpperLimitHasLowerLimit = hasLower;
  UpperLimitLowerLimit = lower;
  UpperLimitHasUpperLimit = hasUpper;
  UpperLimitUpperLimit = upper;
}

void TFitParam::SetValues(double start, bool autoDetect, bool autoDetectEnable, double value) {
  StartValue = start;
  StartValueAutoDetect = autoDetect;
  StartValueAutoDetectEnable = autoDetectEnable;
  Value = value;
}

namespace {
// Pointers to the items in tag order, so that save and load walk one table.
struct TFitParamItemRef {
  enum { String, Bool, Double, Int } Kind;
  void* Ptr;
};

std::vector<TFitParamItemRef> ItemRefs(TFitParam& p) {
  using R = TFitParamItemRef;
  return {{R::String, &p.ShortName},
          {R::String, &p.LongName},
          {R::String, &p.UnitDescription},
          {R::Bool, &p.Vary},
          {R::Bool, &p.VaryEnable},
          {R::Bool, &p.LowerLimitHasLowerLimit},
          {R::Double, &p.LowerLimitLowerLimit},
          {R::Bool, &p.LowerLimitHasUpperLimit},
          {R::Double, &p.LowerLimitUpperLimit},
          {R::Bool, &p.HasLowerLimit},
          {R::Double, &p.LowerLimit},
          {R::Bool, &p.LowerLimitEnable},
          {R::Bool, &p.UpperLimitHasLowerLimit},
          {R::Double, &p.UpperLimitLowerLimit},
          {R::Bool, &p.UpperLimitHasUpperLimit},
          {R::Double, &p.UpperLimitUpperLimit},
          {R::Bool, &p.HasUpperLimit},
          {R::Double, &p.UpperLimit},
          {R::Bool, &p.UpperLimitEnable},
          {R::Double, &p.StartValue},
          {R::Bool, &p.StartValueAutoDetect},
          {R::Bool, &p.StartValueAutoDetectEnable},
          {R::Double, &p.Value},
          {R::Bool, &p.Separator},
          {R::Int, &p.ListenKind}};
}
} // namespace

TTagError TFitParam::SaveToTagFile(TFileHandle file, const TFitParamVariables& items) const {
  auto refs = ItemRefs(const_cast<TFitParam&>(*this));
  TTagControl t;
  for (int i = 0; i < fpvCount; ++i) {
    if (!items.test(i)) continue;
    TTagError e = teNoError;
    switch (refs[i].Kind) {
    case TFitParamItemRef::String:
      e = t.SaveAnsiStringTag(file, kFitParamTagNames[i], *static_cast<std::string*>(refs[i].Ptr));
      break;
    case TFitParamItemRef::Bool:
      e = t.SaveBoolTag(file, kFitParamTagNames[i], *static_cast<bool*>(refs[i].Ptr));
      break;
    case TFitParamItemRef::Double:
      e = t.SaveDoubleTag(file, kFitParamTagNames[i], *static_cast<double*>(refs[i].Ptr));
      break;
    case TFitParamItemRef::Int:
      e = t.SaveIntTag(file, kFitParamTagNames[i],
                       static_cast<int32_t>(*static_cast<TFitParamListenKind*>(refs[i].Ptr)));
      break;
    }
    if (e < 1) return e;
  }
  return teNoError;
}

TTagError TFitParam::LoadFromTagFile(TFileHandle file, const TTagControl& parent,
                                     const TFitParamVariables& items) {
  auto refs = ItemRefs(*this);
  TTagControl t;
  for (int i = 0; i < fpvCount; ++i) {
    if (!items.test(i)) continue;
    switch (refs[i].Kind) {
    case TFitParamItemRef::String: {
      std::string* s = static_cast<std::string*>(refs[i].Ptr);
      t.LoadOrDefaultAnsiStringTag(file, kFitParamTagNames[i], parent, *s, *s);
      break;
    }
    case TFitParamItemRef::Bool: {
      bool* b = static_cast<bool*>(refs[i].Ptr);
      t.LoadOrDefaultBoolTag(file, kFitParamTagNames[i], parent, b, 1, *b);
      break;
    }
    case TFitParamItemRef::Double: {
      double* d = static_cast<double*>(refs[i].Ptr);
      t.LoadOrDefaultDoubleTag(file, kFitParamTagNames[i], parent, d, 1, *d);
      break;
    }
    case TFitParamItemRef::Int: {
      auto* k = static_cast<TFitParamListenKind*>(refs[i].Ptr);
      int32_t v = static_cast<int32_t>(*k);
      t.LoadOrDefaultIntTag(file, kFitParamTagNames[i], parent, &v, 1, v);
      *k = static_cast<TFitParamListenKind>(std::clamp(v, 0, 7));
      break;
    }
    }
  }
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TFitFunction

TFitFunction::TFitFunction() {
  // The user-changeable items: variability, limits, start values, value.
  for (int v : {fpvVary, fpvHasLowerLimit, fpvLowerLimit, fpvHasUpperLimit, fpvUpperLimit, fpvStartValue,
                fpvStartValueAutoDetect, fpvValue})
    SaveItems.set(v);
}

TFitFunction::~TFitFunction() = default;

bool TFitFunction::IsUserFunction() const {
  return std::find(Categories.begin(), Categories.end(), "User") != Categories.end();
}

double TFitFunction::GetReplicaValue(const double* p, double x, int) const {
  return GetFunctionValue(p, x);
}

void TFitFunction::ResizeParameters(int count) {
  count = std::max(count, 0);
  while (GetNumberOfParameters() > count) Params.pop_back();
  while (GetNumberOfParameters() < count) Params.push_back(std::make_unique<TFitParam>());
}

TTagError TFitFunction::SaveClassSettings(TFileHandle file) {
  return Settings().SaveToFile(file);
}

TTagError TFitFunction::LoadClassSettings(TFileHandle file, const TTagControl& classTag) {
  return Settings().LoadFromFile(file, classTag);
}

void TFitFunction::CFICreateParameters(TUserParameterAdministrator& administrator) {
  Settings().CreateParameters(administrator);
}

void TFitFunction::CFIParameterChanged(const TUserParameterAdministrator& administrator) {
  Settings().ReadParameters(administrator);
  CreateParameters();
}

TUserParameterProblems TFitFunction::SetSettingsFromText(const std::vector<std::string>& assignments) {
  TUserParameterProblems problems = Settings().SetFromText(assignments);
  if (problems.empty()) CreateParameters();
  return problems;
}

TTagError TFitFunction::SaveToTagFile(TFileHandle file) {
  TTagControl t;
  TTagError e = t.SaveAnsiStringTag(file, "ClassName", ClassName);
  if (e < 1) return e;
  if ((e = t.SaveAnsiStringTag(file, "FunctionName", FunctionName)) < 1) return e;
  if ((e = t.SaveAnsiStringTag(file, "FormulaText", FormulaText)) < 1) return e;
  if ((e = t.SaveStringList(file, "Categories", Categories)) < 1) return e;
  {
    TTagControl classTag;
    if ((e = classTag.WriteTag(file, ClassName, TTagKind::TagList)) < 1) return e;
    const int32_t version = 1;
    if ((e = t.SaveIntTag(file, "Version", version)) < 1) return e;
    if ((e = SaveClassSettings(file)) < 1) return e;
    if ((e = classTag.CloseWriteTag(file)) < 1) return e;
  }
  TTagControl list;
  if ((e = list.WriteTag(file, "FitParameters", TTagKind::TagList)) < 1) return e;
  if ((e = t.SaveIntTag(file, "NumberOfParameters", GetNumberOfParameters())) < 1) return e;
  for (int i = 0; i < GetNumberOfParameters(); ++i) {
    TTagControl pt;
    if ((e = pt.WriteTag(file, "Parameter" + std::to_string(i), TTagKind::TagList)) < 1) return e;
    if ((e = Params[i]->SaveToTagFile(file, SaveItems)) < 1) return e;
    if ((e = pt.CloseWriteTag(file)) < 1) return e;
  }
  return list.CloseWriteTag(file);
}

TTagError TFitFunction::LoadFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl t;
  t.LoadOrDefaultAnsiStringTag(file, "FunctionName", parent, FunctionName, "No Function Name");
  std::vector<std::string> categories;
  if (t.LoadStringList(file, "Categories", parent, categories) >= 1) Categories = categories;
  // The class's settings decide the parameter count, so they come first.
  TTagControl classTag;
  if (classTag.FindTag(file, ClassName, parent) >= 1) {
    TTagError e = LoadClassSettings(file, classTag);
    if (e < 1) return e;
  }
  CreateParameters();
  TTagControl list;
  if (list.FindTag(file, "FitParameters", parent) < 1)
    return teNoError; // parameters keep their standard setup
  int32_t count = 0;
  t.LoadOrDefaultIntTag(file, "NumberOfParameters", list, &count, 1, 0);
  for (int i = 0; i < std::min<int>(count, GetNumberOfParameters()); ++i) {
    TTagControl pt;
    if (pt.FindTag(file, "Parameter" + std::to_string(i), list) >= 1)
      Params[i]->LoadFromTagFile(file, pt, SaveItems);
  }
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// TNLFitFunction

void TNLFitFunction::InitializeCSM(TChiSqrMinimizer* m) {
  m->SetModelFunction(Model);
  m->SetModelClosure(ModelClosure);
  m->SetBlockModelFunction(BlockModel);
  m->SetEstimatorFunction(Estimator);
  m->SetEstimatorClosure(EstimatorClosure);
  m->Tolerance = Tolerance;
  m->MaxIterations = MaxIterations;
}

void TNLFitFunction::CopyParamsToCSM(TChiSqrMinimizer* m) const {
  for (int i = 0; i < GetNumberOfParameters(); ++i) {
    const TFitParam& p = *Params[i];
    m->SetVaryParameter(i, p.Vary);
    m->SetHasLowerLimit(i, p.HasLowerLimit);
    m->SetLowerLimit(i, p.LowerLimit);
    m->SetHasUpperLimit(i, p.HasUpperLimit);
    m->SetUpperLimit(i, p.UpperLimit);
    m->SetStartParameter(i, p.Vary ? p.StartValue : p.Value);
    // An auto-detect parameter that the user fixed keeps its Value.
    m->SetUseEstimatedParameter(i, p.StartValueAutoDetect && (p.Vary || !p.VaryEnable));
  }
}

double TNLFitFunction::GetFunctionValue(const double* p, double x) const {
  double y = 0.0;
  const int n = GetNumberOfParameters();
  double small[64];
  std::vector<double> large;
  double* d = small;
  if (n > 64) {
    large.resize(n);
    d = large.data();
  }
  if (Model)
    Model(x, p, y, d, n, nullptr);
  else if (ModelClosure)
    ModelClosure(x, p, y, d, n, nullptr);
  return y;
}

void* TNLFitFunction::ThreadPrepare() {
  auto* m = new TChiSqrMinimizer(GetNumberOfParameters());
  InitializeCSM(m);
  CopyParamsToCSM(m);
  return m;
}

void TNLFitFunction::ThreadPostpare(void* threadData) {
  delete static_cast<TChiSqrMinimizer*>(threadData);
}

bool TNLFitFunction::CalculateThread(void* threadData, double* startOut, double* valuesOut, double* errorsOut,
                                     int n, const double* x, const double* y, const double* sigma,
                                     TFitFunctionErrorInfo& info, std::string& message) {
  auto* m = static_cast<TChiSqrMinimizer*>(threadData);
  const int np = GetNumberOfParameters();
  info = TFitFunctionErrorInfo();
  m->EstimateParameters(x, y, n);
  if (startOut)
    for (int i = 0; i < np; ++i) startOut[i] = m->GetParameter(i);
  info.EstimateOK = m->GetErrorCode() == csmOk;
  bool result = false;
  if (info.EstimateOK) {
    m->LevenbergMarquardtMinimize(x, y, sigma, n);
    result = m->GetErrorCode() == csmOk;
  }
  if (result) {
    for (int i = 0; i < np; ++i) {
      if (valuesOut) valuesOut[i] = m->GetParameter(i);
      if (errorsOut) errorsOut[i] = m->GetParameterError(i);
    }
    double mean = 0.0;
    for (int i = 0; i < n; ++i) mean += y[i];
    mean = n > 0 ? mean / n : 0.0;
    double rss = 0.0, tss = 0.0;
    for (int i = 0; i < n; ++i) {
      const double r = y[i] - m->EvaluateModel(x[i]);
      rss += r * r;
      tss += (y[i] - mean) * (y[i] - mean);
    }
    info.ResidualSumOfSquares = rss;
    info.TotalSumOfSquares = tss;
  }
  info.FitOK = result;
  CreateErrorMessage(m, message, false);
  info.ChiSqr = m->GetChiSqr();
  return result;
}

void TNLFitFunction::CreateErrorMessage(const TChiSqrMinimizer* m, std::string& message,
                                        bool numericProblem) {
  std::string text;
  switch (m->GetErrorCode()) {
  case 0:
    text = numericProblem ? "Error (Numeric Problem)"
                          : "Successful (" + std::to_string(m->GetIterations()) + " Iterations)";
    break;
  case 1:
    text = "Error (Missing Fit Function)";
    break;
  case 2:
    text = "Warning (Max. # of Iterations reached)";
    break;
  case 3:
    text = "Error (Invalid ChiSqr Calculation)";
    break;
  case 4:
    text = "Error (Singular Matrix)";
    break;
  case 5:
    text = "Error (Singular Matrix2)";
    break;
  case 6:
    text = "Error (Wrong Limits)";
    break;
  case 7:
    text = "Error (" + m->GetErrorMessage() + ")";
    break;
  default:
    text = numericProblem ? "Error (Numeric Problem)" : "Error (unknown)";
    break;
  }
  message = "Fit " + text;
}

// ---------------------------------------------------------------------------------------------
// Models
//
// Each model has a per-point form and a block form (kCSMBlockSize points per call). Both use the same
// inline term functions, so they compute the same expressions; the block forms run the terms in loops
// without branches over the points, which the compiler turns into vector code. Only the exponential itself
// stays a scalar library call, in a loop of its own.

namespace {

constexpr int kB = kCSMBlockSize;

#define OX_TERM [[gnu::always_inline]] inline

// Lorentz term 2A/pi w / (4 dx^2 + w^2) and its derivatives by x0, w and A; one division serves all.
OX_TERM void LorentzTerm(double dx, double w, double a, double& v, double& dX0, double& dW, double& dA) {
  const double dx2 = dx * dx;
  const double r = 1.0 / (4.0 * dx2 + w * w);
  const double c = k2OverPi * a;
  v = c * w * r;
  dX0 = 8.0 * v * dx * r;
  dW = c * (4.0 * dx2 - w * w) * r * r;
  dA = k2OverPi * w * r;
}

// Exponent of a Gauss term, -0.5 dx^2 / s^2, with is2 = 1/s^2.
OX_TERM double GaussArgument(double dx, double is2) {
  return -0.5 * dx * dx * is2;
}
// The exponential of a Gauss term: 0 below an argument of -200.
OX_TERM double GaussExp(double arg) {
  return arg < -200.0 ? 0.0 : std::exp(arg);
}
// Gauss term Amp e and its derivatives by x0, s and Amp from the exponential e.
OX_TERM void GaussTerm(double dx, double is2, double s, double a, double e, double& v, double& dX0,
                       double& dS, double& dA) {
  v = a * e;
  dX0 = v * dx * is2;
  dS = dX0 * dx / s;
  dA = e;
}

// Exponent of the Gauss part of a pseudo-Voigt, 4 ln2 dx^2 / wg^2, with iwg2 = 1/wg^2.
OX_TERM double VoigtGaussExponent(double dx, double iwg2) {
  return k4Ln2 * dx * dx * iwg2;
}
OX_TERM double VoigtGaussExp(double q) {
  return q > 700.0 ? 0.0 : std::exp(-q);
}

// Lorentz and Gauss parts of the pseudo-Voigt (unit area) with their derivatives by x0 and by width.
struct TVoigtParts {
  double L, dLdx0, dLdw, G, dGdx0, dGdw;
};
// The parts at dx from the Gauss exponent q and its exponential eq = exp(-q).
OX_TERM TVoigtParts VoigtPartsFrom(double dx, double wl, double wg, double iwg2, double q, double eq) {
  TVoigtParts v;
  const double r = 1.0 / (4.0 * dx * dx + wl * wl);
  v.L = k2OverPi * wl * r;
  v.dLdx0 = 8.0 * v.L * dx * r;
  v.dLdw = k2OverPi * (4.0 * dx * dx - wl * wl) * r * r;
  v.G = kSqrt4Ln2 / (kSqrtPi * wg) * eq;
  v.dGdx0 = v.G * 2.0 * k4Ln2 * dx * iwg2;
  v.dGdw = v.G * (2.0 * q - 1.0) / wg;
  return v;
}
TVoigtParts VoigtParts(double dx, double wl, double wg) {
  const double iwg2 = 1.0 / (wg * wg);
  const double q = VoigtGaussExponent(dx, iwg2);
  return VoigtPartsFrom(dx, wl, wg, iwg2, q, VoigtGaussExp(q));
}

// Adds a (mu L + (1-mu) G) to y and gives the derivatives of a pseudo-Voigt by x0, the Lorentz and the Gauss
// width, the area and the shape factor (with one width for both parts, its derivative is dWl + dWg).
OX_TERM void VoigtTerm(const TVoigtParts& v, double a, double mu, double& y, double& dX0, double& dWl,
                       double& dWg, double& dA, double& dMu) {
  const double shape = mu * v.L + (1.0 - mu) * v.G;
  y += a * shape;
  dX0 = a * (mu * v.dLdx0 + (1.0 - mu) * v.dGdx0);
  dWl = a * mu * v.dLdw;
  dWg = a * (1.0 - mu) * v.dGdw;
  dA = shape;
  dMu = a * (v.L - v.G);
}

// Exponent -(x - x0)/t of a decay term.
OX_TERM double DecayExponent(double x, double x0, double it) {
  return -(x - x0) * it;
}
// Decay term A e with its derivatives by A and t and the contribution to the derivative by x0.
OX_TERM void DecayTerm(double x, double x0, double a, double it, double e, double& v, double& dX0, double& dA,
                       double& dT) {
  v = a * e;
  dX0 = v * it;
  dA = e;
  dT = v * (x - x0) * it * it;
}

} // namespace

void CSMGauss(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 1) / 3;
  y = p[0];
  d[0] = 1.0;
  for (int i = 0; i < nf; ++i) {
    const double x0 = p[1 + 3 * i], s = p[2 + 3 * i], a = p[3 + 3 * i];
    const double dx = x - x0, is2 = 1.0 / (s * s);
    double v;
    GaussTerm(dx, is2, s, a, GaussExp(GaussArgument(dx, is2)), v, d[1 + 3 * i], d[2 + 3 * i], d[3 + 3 * i]);
    y += v;
  }
}

OX_SIMD_CLONES
void CSMGaussBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                   double* __restrict d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 1) / 3;
  for (int i = 0; i < kB; ++i) y[i] = p[0], d[i] = 1.0;
  double e[kB];
  for (int f = 0; f < nf; ++f) {
    const double x0 = p[1 + 3 * f], s = p[2 + 3 * f], a = p[3 + 3 * f];
    const double is2 = 1.0 / (s * s);
    double* __restrict dX0 = d + (1 + 3 * f) * kB;
    double* __restrict dS = d + (2 + 3 * f) * kB;
    double* __restrict dA = d + (3 + 3 * f) * kB;
    for (int i = 0; i < kB; ++i) e[i] = GaussArgument(x[i] - x0, is2);
    for (int i = 0; i < kB; ++i) e[i] = GaussExp(e[i]);
    for (int i = 0; i < kB; ++i) {
      double v;
      GaussTerm(x[i] - x0, is2, s, a, e[i], v, dX0[i], dS[i], dA[i]);
      y[i] += v;
    }
  }
}

void CSMLorentz(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 1) / 3;
  y = p[0];
  d[0] = 1.0;
  for (int i = 0; i < nf; ++i) {
    double v;
    LorentzTerm(x - p[1 + 3 * i], p[2 + 3 * i], p[3 + 3 * i], v, d[1 + 3 * i], d[2 + 3 * i], d[3 + 3 * i]);
    y += v;
  }
}

OX_SIMD_CLONES
void CSMLorentzBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                     double* __restrict d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 1) / 3;
  for (int i = 0; i < kB; ++i) y[i] = p[0], d[i] = 1.0;
  for (int f = 0; f < nf; ++f) {
    const double x0 = p[1 + 3 * f], w = p[2 + 3 * f], a = p[3 + 3 * f];
    double* __restrict dX0 = d + (1 + 3 * f) * kB;
    double* __restrict dW = d + (2 + 3 * f) * kB;
    double* __restrict dA = d + (3 + 3 * f) * kB;
    for (int i = 0; i < kB; ++i) {
      double v;
      LorentzTerm(x[i] - x0, w, a, v, dX0[i], dW[i], dA[i]);
      y[i] += v;
    }
  }
}

void CSMPsdVoigt1(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  const double x0 = p[1], w = p[2], a = p[3], mu = p[4];
  const TVoigtParts v = VoigtParts(x - x0, w, w);
  double dWl, dWg;
  y = p[0];
  d[0] = 1.0;
  VoigtTerm(v, a, mu, y, d[1], dWl, dWg, d[3], d[4]);
  d[2] = dWl + dWg;
}

void CSMPsdVoigt2(double x, const double* p, double& y, double* d, int, TChiSqrMinimizer*) {
  const double x0 = p[1], wl = p[2], wg = p[3], a = p[4], mu = p[5];
  const TVoigtParts v = VoigtParts(x - x0, wl, wg);
  y = p[0];
  d[0] = 1.0;
  VoigtTerm(v, a, mu, y, d[1], d[2], d[3], d[4], d[5]);
}

namespace {
// Block form of both pseudo-Voigt models; twoWidths selects the parameter layout.
OX_TERM void PsdVoigtBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                           double* __restrict d, bool twoWidths) {
  const double y0 = p[0], x0 = p[1], wl = p[2], wg = twoWidths ? p[3] : p[2];
  const double a = twoWidths ? p[4] : p[3], mu = twoWidths ? p[5] : p[4];
  const double iwg2 = 1.0 / (wg * wg);
  double q[kB], eq[kB];
  for (int i = 0; i < kB; ++i) q[i] = VoigtGaussExponent(x[i] - x0, iwg2);
  for (int i = 0; i < kB; ++i) eq[i] = VoigtGaussExp(q[i]);
  double* __restrict d0 = d;
  double* __restrict dX0 = d + kB;
  double* __restrict dWl = d + 2 * kB;
  double* __restrict dWg = d + 3 * kB;
  double* __restrict dA = d + (twoWidths ? 4 : 3) * kB;
  double* __restrict dMu = d + (twoWidths ? 5 : 4) * kB;
  if (twoWidths) {
    for (int i = 0; i < kB; ++i) {
      const TVoigtParts v = VoigtPartsFrom(x[i] - x0, wl, wg, iwg2, q[i], eq[i]);
      y[i] = y0;
      d0[i] = 1.0;
      VoigtTerm(v, a, mu, y[i], dX0[i], dWl[i], dWg[i], dA[i], dMu[i]);
    }
  } else {
    for (int i = 0; i < kB; ++i) {
      const TVoigtParts v = VoigtPartsFrom(x[i] - x0, wl, wg, iwg2, q[i], eq[i]);
      double l, g;
      y[i] = y0;
      d0[i] = 1.0;
      VoigtTerm(v, a, mu, y[i], dX0[i], l, g, dA[i], dMu[i]);
      dWl[i] = l + g;
    }
  }
}
} // namespace

OX_SIMD_CLONES
void CSMPsdVoigt1Block(const double* __restrict x, const double* __restrict p, double* __restrict y,
                       double* __restrict d, int, TChiSqrMinimizer*) {
  PsdVoigtBlock(x, p, y, d, false);
}

OX_SIMD_CLONES
void CSMPsdVoigt2Block(const double* __restrict x, const double* __restrict p, double* __restrict y,
                       double* __restrict d, int, TChiSqrMinimizer*) {
  PsdVoigtBlock(x, p, y, d, true);
}

void CSMExpDecay(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 2) / 2;
  const double x0 = p[1];
  y = p[0];
  d[0] = 1.0;
  d[1] = 0.0;
  for (int i = 0; i < nf; ++i) {
    const double a = p[2 + 2 * i], it = 1.0 / p[3 + 2 * i];
    const double exponent = DecayExponent(x, x0, it);
    if (exponent >= 700.0) { // the term is left out
      d[2 + 2 * i] = d[3 + 2 * i] = 0.0;
      continue;
    }
    double v, dX0;
    DecayTerm(x, x0, a, it, std::exp(exponent), v, dX0, d[2 + 2 * i], d[3 + 2 * i]);
    y += v;
    d[1] += dX0;
  }
}

OX_SIMD_CLONES
void CSMExpDecayBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                      double* __restrict d, int n, TChiSqrMinimizer*) {
  const int nf = (n - 2) / 2;
  const double x0 = p[1];
  double* __restrict dX0 = d + kB;
  for (int i = 0; i < kB; ++i) y[i] = p[0], d[i] = 1.0, dX0[i] = 0.0;
  double exponent[kB], e[kB];
  for (int f = 0; f < nf; ++f) {
    const double a = p[2 + 2 * f], it = 1.0 / p[3 + 2 * f];
    double* __restrict dA = d + (2 + 2 * f) * kB;
    double* __restrict dT = d + (3 + 2 * f) * kB;
    for (int i = 0; i < kB; ++i) exponent[i] = DecayExponent(x[i], x0, it);
    // A left-out term (exponent 700 or above) has e = 0 and adds exact zeros.
    for (int i = 0; i < kB; ++i) e[i] = exponent[i] >= 700.0 ? 0.0 : std::exp(exponent[i]);
    for (int i = 0; i < kB; ++i) {
      double v, dx0;
      DecayTerm(x[i], x0, a, it, e[i], v, dx0, dA[i], dT[i]);
      y[i] += v;
      dX0[i] += dx0;
    }
  }
}

void CSMLevenbergMarquardtExponentialDecay(double x, const double* p, double& y, double* d, int,
                                           TChiSqrMinimizer*) {
  const double it = 1.0 / p[2];
  const double exponent = DecayExponent(x, 0.0, it);
  double v, dX0;
  DecayTerm(x, 0.0, p[1], it, exponent >= 700.0 ? 0.0 : std::exp(exponent), v, dX0, d[1], d[2]);
  y = p[0] + v;
  d[0] = 1.0;
}

void CSMPolynom(double x, const double* p, double& y, double* d, int n, TChiSqrMinimizer*) {
  double power = 1.0;
  y = 0.0;
  for (int i = 0; i < n; ++i) {
    y += p[i] * power;
    d[i] = power;
    power *= x;
  }
}

OX_SIMD_CLONES
void CSMPolynomBlock(const double* __restrict x, const double* __restrict p, double* __restrict y,
                     double* __restrict d, int n, TChiSqrMinimizer*) {
  double power[kB];
  for (int i = 0; i < kB; ++i) y[i] = 0.0, power[i] = 1.0;
  for (int k = 0; k < n; ++k) {
    double* __restrict dk = d + k * kB;
    const double pk = p[k];
    for (int i = 0; i < kB; ++i) {
      y[i] += pk * power[i];
      dk[i] = power[i];
      power[i] *= x[i];
    }
  }
}

#undef OX_TERM

// ---------------------------------------------------------------------------------------------
// Estimators

namespace {
constexpr int kScanLanes = 8;
typedef double TScanVector __attribute__((vector_size(kScanLanes * sizeof(double)), aligned(sizeof(double))));

// Minimum, maximum and sum of (y - base) over n points in interleaved lanes. The comparisons skip NaN as
// the plain scan does when the first value is a number.
OX_SIMD_CLONES
void ScanExtremaAndArea(const double* y, int n, double base, double& minimum, double& maximum, double& area) {
  TScanVector lo, hi, sum = {}, b;
  for (int j = 0; j < kScanLanes; ++j) lo[j] = hi[j] = y[0], b[j] = base;
  const int whole = n / kScanLanes * kScanLanes;
  const TScanVector* v = reinterpret_cast<const TScanVector*>(y);
  for (int i = 0; i < whole / kScanLanes; ++i) {
    const TScanVector t = v[i];
    lo = t < lo ? t : lo;
    hi = t > hi ? t : hi;
    sum += t - b;
  }
  minimum = lo[0], maximum = hi[0];
  for (int j = 1; j < kScanLanes; ++j) {
    if (lo[j] < minimum) minimum = lo[j];
    if (hi[j] > maximum) maximum = hi[j];
  }
  area = ((sum[0] + sum[1]) + (sum[2] + sum[3])) + ((sum[4] + sum[5]) + (sum[6] + sum[7]));
  for (int i = whole; i < n; ++i) {
    if (y[i] < minimum) minimum = y[i];
    if (y[i] > maximum) maximum = y[i];
    area += y[i] - base;
  }
}
} // namespace

TPeakEstimate EstimatePeak(const double* x, const double* y, int n) {
  TPeakEstimate r;
  if (n < 1) return r;
  r.Base = (y[0] + y[n - 1]) / 2.0;
  int iMin = 0, iMax = 0;
  double area = 0.0;
  if (std::isnan(y[0])) {
    // The plain scan: with a NaN first value no comparison moves the indices.
    for (int i = 0; i < n; ++i) area += y[i] - r.Base;
  } else {
    // Extrema by value, then the first index holding each (the first occurrence, as a scan would find).
    double minimum, maximum;
    ScanExtremaAndArea(y, n, r.Base, minimum, maximum, area);
    while (iMin < n - 1 && y[iMin] != minimum) ++iMin;
    while (iMax < n - 1 && y[iMax] != maximum) ++iMax;
  }
  r.Upward = area > 0.0;
  const int i = r.Upward ? iMax : iMin;
  r.Height = y[i] - r.Base;
  const double half = r.Height / 2.0;
  auto beyond = [&](int k) { return r.Upward ? (y[k] - r.Base > half) : (y[k] - r.Base < half); };
  int right = i + 1;
  while (right < n - 1 && beyond(right)) ++right;
  int left = i - 1;
  while (left > 0 && beyond(left)) --left;
  right = std::clamp(right, 0, n - 1);
  left = std::clamp(left, 0, std::max(n - 2, 0));
  r.Width = std::fabs(x[right] - x[left]);
  r.Center = x[i];
  return r;
}

namespace {
void SetIf(const bool* use, double* p, int i, double v) {
  if (use[i]) p[i] = v;
}
// Area of a Lorentz or Voigt start: pi w/2 times the height, at least 1 in the peak's direction.
double PeakArea(const TPeakEstimate& e) {
  return std::numbers::pi * e.Width / 2.0 * (e.Upward ? std::max(e.Height, 1.0) : std::min(e.Height, -1.0));
}
} // namespace

void CSMEstimateParametersGauss(const double* x, const double* y, double*, double*, int np, const bool* use,
                                double* p, int n, TChiSqrMinimizer*) {
  const TPeakEstimate e = EstimatePeak(x, y, n);
  SetIf(use, p, 0, e.Base);
  if (np != 4) return; // several functions: only the offset
  SetIf(use, p, 1, e.Center);
  SetIf(use, p, 2, std::max(0.42 * e.Width, kMinWidth));
  SetIf(use, p, 3, e.Height);
}

void CSMEstimateParametersLorentz(const double* x, const double* y, double*, double*, int np, const bool* use,
                                  double* p, int n, TChiSqrMinimizer*) {
  const TPeakEstimate e = EstimatePeak(x, y, n);
  SetIf(use, p, 0, e.Base);
  if (np != 4) return;
  SetIf(use, p, 1, e.Center);
  SetIf(use, p, 2, std::max(e.Width, kMinWidth));
  SetIf(use, p, 3, PeakArea(e));
}

void CSMEstimateParametersPsdVoigt1(const double* x, const double* y, double*, double*, int, const bool* use,
                                    double* p, int n, TChiSqrMinimizer*) {
  const TPeakEstimate e = EstimatePeak(x, y, n);
  SetIf(use, p, 0, e.Base);
  SetIf(use, p, 1, e.Center);
  SetIf(use, p, 2, std::max(e.Width, kMinWidth));
  SetIf(use, p, 3, PeakArea(e));
  SetIf(use, p, 4, 0.5);
}

void CSMEstimateParametersPsdVoigt2(const double* x, const double* y, double*, double*, int, const bool* use,
                                    double* p, int n, TChiSqrMinimizer*) {
  const TPeakEstimate e = EstimatePeak(x, y, n);
  SetIf(use, p, 0, e.Base);
  SetIf(use, p, 1, e.Center);
  SetIf(use, p, 2, std::max(e.Width, kMinWidth));
  SetIf(use, p, 3, std::max(e.Width, kMinWidth));
  SetIf(use, p, 4, PeakArea(e));
  SetIf(use, p, 5, 0.5);
}

namespace {
// Level, amplitude (at the smallest x) and decay constant of an exponential approach, from the regression of
// the logarithm of the distance to the level. s1 and s2 hold n doubles each.
void EstimateDecay(const double* x, const double* y, double* s1, double* s2, int n, double& level,
                   double& amplitude, double& tau, double& minX) {
  level = amplitude = 0.0;
  tau = kMinWidth;
  minX = 0.0;
  if (n < 1) return;
  double minY = y[0], maxY = y[0];
  minX = x[0];
  for (int i = 1; i < n; ++i) {
    minY = std::min(minY, y[i]);
    maxY = std::max(maxY, y[i]);
    minX = std::min(minX, x[i]);
  }
  double slope, offset;
  LinearRegression(x, y, n, -1, -1, slope, offset);
  const bool falling = slope <= 0.0;
  level = falling ? minY : maxY;
  for (int i = 0; i < n; ++i) {
    s1[i] = x[i] - minX;
    s2[i] = falling ? std::log(y[i] - level + (maxY - level) * 1e-5)
                    : std::log((level - minY) * 1e-5 + level - y[i]);
  }
  double m, b;
  LinearRegression(s1, s2, n, -1, -1, m, b);
  amplitude = falling ? std::exp(b) : -std::exp(b);
  tau = m != 0.0 ? -1.0 / m : 1e30;
  if (!std::isfinite(amplitude)) amplitude = 0.0;
  if (!std::isfinite(tau) || tau < kMinWidth) tau = kMinWidth;
}
} // namespace

void CSMEstimateParametersExpDecay(const double* x, const double* y, double* s1, double* s2, int np,
                                   const bool* use, double* p, int n, TChiSqrMinimizer*) {
  double level, amplitude, tau, minX;
  EstimateDecay(x, y, s1, s2, n, level, amplitude, tau, minX);
  SetIf(use, p, 0, level);
  SetIf(use, p, 1, minX);
  for (int i = 2; i + 1 < np; i += 2) {
    SetIf(use, p, i, amplitude);
    SetIf(use, p, i + 1, tau);
  }
}

void CSMEstimateParametersExponentialDecay(const double* x, const double* y, double* s1, double* s2, int,
                                           const bool* use, double* p, int n, TChiSqrMinimizer*) {
  double level, amplitude, tau, minX;
  EstimateDecay(x, y, s1, s2, n, level, amplitude, tau, minX);
  SetIf(use, p, 0, level);
  // Without x0 the amplitude refers to x = 0.
  const double shifted = amplitude * std::exp(std::min(minX / tau, 700.0));
  SetIf(use, p, 1, std::isfinite(shifted) ? shifted : amplitude);
  SetIf(use, p, 2, tau);
}

void CSMEstimateParametersPolynom(const double* x, const double* y, double*, double*, int np, const bool* use,
                                  double* p, int n, TChiSqrMinimizer*) {
  std::vector<double> c(np, 0.0);
  PolynomRegression(x, y, n, np - 1, c.data());
  for (int i = 0; i < np; ++i) SetIf(use, p, i, c[i]);
}

// ---------------------------------------------------------------------------------------------
// Standard parameter setup helpers

namespace {
void SetupOffset(TFitParam& p, bool separator) {
  p.SetDescriptions("y0", "Offset", "($y)");
  p.SetValues(0.0, true, true, 0.0);
  p.SetListenKind(TFitParamListenKind::YAxis);
  p.Separator = separator;
}
void SetupCenter(TFitParam& p, const std::string& suffix) {
  p.SetDescriptions("x0" + suffix, "Center", "($x)");
  p.SetValues(0.0, true, true, 0.0);
  p.SetListenKind(TFitParamListenKind::XAxis);
}
void SetupWidth(TFitParam& p, const std::string& shortName, const std::string& longName,
                const std::string& userShort, const std::string& userLong, double start) {
  p.SetDescriptions(shortName, longName, "($x)");
  p.SetTransformedDescriptions(userShort, userLong, "($x)", userShort);
  p.SetValues(start, true, true, start);
  p.SetLimits(true, kMinWidth, true, false, 0.0, true);
  p.SetListenKind(TFitParamListenKind::XDiffAbsolute);
}
void DisableAutoDetect(TFitParam& p) {
  p.StartValueAutoDetect = false;
  p.StartValueAutoDetectEnable = false;
}
std::string Suffix(int count, int i) {
  return count > 1 ? "_" + std::to_string(i) : std::string();
}

/// Names of the parts of a function with count parts: prefix + index, none when there is one part.
std::vector<std::string> NumberedReplicas(const std::string& prefix, int count) {
  std::vector<std::string> r;
  if (count >= 2)
    for (int i = 0; i < count; ++i) r.push_back(prefix + std::to_string(i));
  return r;
}

/// Value of part replica of a sum of parts: the first shared parameters (offset, and the centre of the
/// decays) with the stride parameters of that part, through the model of one part.
double PartReplicaValue(TCSMModelFunction model, const double* p, double x, int replica, int count,
                        int shared, int stride, const char* routine) {
  if (replica >= count) throw OrvexException(std::string(routine) + ": wrong Replica index");
  double q[8], d[8], y = 0;
  for (int i = 0; i < shared; ++i) q[i] = p[i];
  for (int i = 0; i < stride; ++i) q[shared + i] = p[shared + stride * replica + i];
  model(x, q, y, d, shared + stride, nullptr);
  return y;
}

/// The settings of each function with settings, declared once.
const TBoundParameterTable<TNLFitGauss>& GaussSettings() {
  static const TBoundParameterTable<TNLFitGauss> table = [] {
    using F = TNLFitGauss;
    TBoundParameterTable<F> t;
    t.Int(&F::NumberOfFunctions, "NumberOfFunctions", "Number of functions", 1).SetLimits(1, 10);
    t.List(&F::IntensityKind, "IntensityKind", "Intensity", 0, {{"Amplitude", 0}, {"Area", 1}});
    t.List(&F::WidthKind, "WidthKind", "Peak width", 0,
           {{"Standard Deviation", 0}, {"2 * Standard Deviation", 1}, {"FWHM", 2}});
    t.List(&F::SortKind, "SortKind", "Sort", 0,
           {{"No Sort", 0}, {"Center", 1}, {"Peak Width", 2}, {"Intensity", 3}, {"Area", 4}});
    return t;
  }();
  return table;
}

const TBoundParameterTable<TNLFitLorentz>& LorentzSettings() {
  static const TBoundParameterTable<TNLFitLorentz> table = [] {
    using F = TNLFitLorentz;
    TBoundParameterTable<F> t;
    t.Int(&F::NumberOfFunctions, "NumberOfFunctions", "Number of functions", 1).SetLimits(1, 10);
    t.List(&F::IntensityKind, "IntensityKind", "Intensity", 0, {{"Area", 0}, {"Amplitude", 1}});
    t.List(&F::ListenIntensityKind, "ListenIntensityKind", "Intensity from cursors", 0,
           {{"Area", 0}, {"Amplitude", 1}});
    return t;
  }();
  return table;
}

const TBoundParameterTable<TNLFitExpDecay>& ExpDecaySettings() {
  static const TBoundParameterTable<TNLFitExpDecay> table = [] {
    TBoundParameterTable<TNLFitExpDecay> t;
    t.Int(&TNLFitExpDecay::ExpDecayOrder, "ExpDecayOrder", "Number of decays", 1).SetLimits(1, 10);
    return t;
  }();
  return table;
}

const TBoundParameterTable<TNLFitPolynom>& PolynomSettings() {
  static const TBoundParameterTable<TNLFitPolynom> table = [] {
    TBoundParameterTable<TNLFitPolynom> t;
    t.Int(&TNLFitPolynom::PolynomOrder, "PolynomOrder", "Order", 2).SetLimits(0, 10);
    return t;
  }();
  return table;
}

const TBoundParameterTable<TNLFitUserDefined>& UserDefinedSettings() {
  static const TBoundParameterTable<TNLFitUserDefined> table = [] {
    using F = TNLFitUserDefined;
    TBoundParameterTable<F> t;
    t.Int(&F::NumberOfParams, "NumberOfParams", "Number of parameters", 2).SetLimits(1, 100);
    t.String(&F::FitFunctionString, "FitFunctionString", "Formula", "x2 + x3 * x1")
        .SetDescription("y as a formula of x1 (the abscissa) and the parameters x2, x3, ...");
    // The step of the numeric derivatives is a working setting, not part of the stored function.
    t.Float(&F::EPS, "EPS", "Relative step of the derivatives", 1e-4).SetLimits(1e-10, 1e30).SetSaved(false);
    return t;
  }();
  return table;
}
} // namespace

// ---------------------------------------------------------------------------------------------
// TNLFitGauss

TNLFitGauss::TNLFitGauss() {
  DisplayName = "Gauss";
  HelpKey = "AF_GAUSS";
  FormulaText = "y = y0+Sum(i=0->N-1)(Amp(i)*exp(-0.5*((x-x0(i))/s(i))^2)";
  ClassName = "TNLFitGauss";
  FunctionName = "Gauss";
  Categories = {"Peak Functions"};
  Model = CSMGauss;
  BlockModel = CSMGaussBlock;
  Estimator = CSMEstimateParametersGauss;
  CreateParameters();
}

TParameterBinding TNLFitGauss::Settings() {
  return GaussSettings().Bind(*this);
}

void TNLFitGauss::CreateParameters() {
  Settings().ApplyLimits();
  ResizeParameters(NumberOfFunctions * 3 + 1);
  InitializeParameters();
}

void TNLFitGauss::InitializeParameters() {
  const int nf = NumberOfFunctions;
  static const char* const widthNames[] = {"Peak Width (Standard Deviation)",
                                           "Peak Width (2 * Standard Deviation)", "Peak Width (FWHM)"};
  static const char* const widthShort[] = {"s", "2s", "FWHM"};
  const int wk = std::clamp(WidthKind, 0, 2); // indexes the names even when called alone
  *Params[0] = TFitParam();
  SetupOffset(*Params[0], nf > 1);
  for (int i = 0; i < nf; ++i) {
    const std::string sfx = Suffix(nf, i);
    TFitParam& c = *Params[1 + 3 * i];
    TFitParam& w = *Params[2 + 3 * i];
    TFitParam& a = *Params[3 + 3 * i];
    c = TFitParam();
    w = TFitParam();
    a = TFitParam();
    SetupCenter(c, sfx);
    SetupWidth(w, "s" + sfx, widthNames[0], widthShort[wk] + sfx, widthNames[wk], 10.0);
    a.SetDescriptions("Amp" + sfx, "Amplitude", "($y)");
    if (IntensityKind == 1) a.SetTransformedDescriptions("Area" + sfx, "Area", "($x)*($y)", "Area" + sfx);
    a.SetValues(1000.0, true, true, 1000.0);
    a.SetListenKind(TFitParamListenKind::YDiff);
    if (nf > 1) {
      DisableAutoDetect(c);
      DisableAutoDetect(w);
      DisableAutoDetect(a);
    }
  }
}

double TNLFitGauss::GetReplicaValue(const double* p, double x, int replica) const {
  if (replica < 0) return GetFunctionValue(p, x);
  return PartReplicaValue(CSMGauss, p, x, replica, NumberOfFunctions, 1, 3, "TNLFitGauss::GetReplicaValue");
}

std::vector<std::string> TNLFitGauss::GetReplicaList() const {
  return NumberedReplicas("Gauss Function ", NumberOfFunctions);
}

void TNLFitGauss::SortParameters(double* values, double* errors) const {
  if (SortKind <= 0 || SortKind > 4) return;
  auto key = [&](int i) {
    const double c = values[1 + 3 * i], s = values[2 + 3 * i], a = values[3 + 3 * i];
    switch (SortKind) {
    case 1:
      return c;
    case 2:
      return s;
    case 3:
      return a;
    default:
      return s * a;
    }
  };
  for (int pass = 0; pass < NumberOfFunctions - 1; ++pass)
    for (int i = 0; i < NumberOfFunctions - 1 - pass; ++i)
      if (key(i) > key(i + 1))
        for (int k = 1; k <= 3; ++k) {
          std::swap(values[3 * i + k], values[3 * (i + 1) + k]);
          if (errors) std::swap(errors[3 * i + k], errors[3 * (i + 1) + k]);
        }
}

void TNLFitGauss::TransformParametersToNativeParameters(double* v) const {
  const double f = WidthFactor(WidthKind);
  for (int i = 0; i < NumberOfFunctions; ++i) {
    double& s = v[2 + 3 * i];
    double& a = v[3 + 3 * i];
    s /= f;
    if (IntensityKind == 1) a = a / (s * kSqrt2Pi);
  }
}

void TNLFitGauss::TransformNativeParametersToParameters(double* v) const {
  const double f = WidthFactor(WidthKind);
  for (int i = 0; i < NumberOfFunctions; ++i) {
    const double s = v[2 + 3 * i];
    if (IntensityKind == 1) v[3 + 3 * i] = v[3 + 3 * i] * s * kSqrt2Pi;
    v[2 + 3 * i] = s * f;
  }
}

void TNLFitGauss::TransformNativeErrorToError(const double* v, double* e) const {
  const double f = WidthFactor(WidthKind);
  for (int i = 0; i < NumberOfFunctions; ++i) {
    const double s = v[2 + 3 * i], a = v[3 + 3 * i];
    const double es = e[2 + 3 * i], ea = e[3 + 3 * i];
    if (IntensityKind == 1) e[3 + 3 * i] = (std::fabs(ea * s) + std::fabs(es * a)) * kSqrt2Pi;
    e[2 + 3 * i] = es * f;
  }
}

// ---------------------------------------------------------------------------------------------
// TNLFitLorentz

TNLFitLorentz::TNLFitLorentz() {
  DisplayName = "Lorentz";
  HelpKey = "AF_LORENTZ";
  FormulaText = "y = y0 + 2 * Sum(i=0->N-1) ( A(i) / PI * w(i) / (4*(x-x0(i))^2 + w(i)^2)";
  ClassName = "TNLFitLorentz";
  FunctionName = "Lorentz";
  Categories = {"Peak Functions"};
  Model = CSMLorentz;
  BlockModel = CSMLorentzBlock;
  Estimator = CSMEstimateParametersLorentz;
  CreateParameters();
}

TParameterBinding TNLFitLorentz::Settings() {
  return LorentzSettings().Bind(*this);
}

void TNLFitLorentz::CreateParameters() {
  Settings().ApplyLimits();
  ResizeParameters(NumberOfFunctions * 3 + 1);
  InitializeParameters();
}

void TNLFitLorentz::InitializeParameters() {
  const int nf = NumberOfFunctions;
  *Params[0] = TFitParam();
  SetupOffset(*Params[0], nf > 1);
  for (int i = 0; i < nf; ++i) {
    const std::string sfx = Suffix(nf, i);
    TFitParam& c = *Params[1 + 3 * i];
    TFitParam& w = *Params[2 + 3 * i];
    TFitParam& a = *Params[3 + 3 * i];
    c = TFitParam();
    w = TFitParam();
    a = TFitParam();
    SetupCenter(c, sfx);
    SetupWidth(w, "w" + sfx, "Peak Width (FWHM)", "w" + sfx, "Peak Width (FWHM)", 10.0);
    a.SetDescriptions("A" + sfx, "Area", "($x)*($y)");
    if (IntensityKind == 1) a.SetTransformedDescriptions("Amp" + sfx, "Amplitude", "($y)", "Amp" + sfx);
    a.SetValues(5000.0, true, true, 5000.0);
    a.SetListenKind(ListenIntensityKind == 1 ? TFitParamListenKind::YDiff : TFitParamListenKind::Area);
    if (nf > 1) {
      DisableAutoDetect(c);
      DisableAutoDetect(w);
      DisableAutoDetect(a);
    }
  }
}

double TNLFitLorentz::GetReplicaValue(const double* p, double x, int replica) const {
  if (replica < 0) return GetFunctionValue(p, x);
  return PartReplicaValue(CSMLorentz, p, x, replica, NumberOfFunctions, 1, 3,
                          "TNLFitLorentz::GetReplicaValue");
}

std::vector<std::string> TNLFitLorentz::GetReplicaList() const {
  return NumberedReplicas("Lorentz Function ", NumberOfFunctions);
}

// Amplitude of a Lorentzian = 2 A / (pi w).
void TNLFitLorentz::TransformParametersToNativeParameters(double* v) const {
  if (IntensityKind != 1) return;
  for (int i = 0; i < NumberOfFunctions; ++i)
    v[3 + 3 * i] = v[3 + 3 * i] * std::numbers::pi * v[2 + 3 * i] / 2.0;
}

void TNLFitLorentz::TransformNativeParametersToParameters(double* v) const {
  if (IntensityKind != 1) return;
  for (int i = 0; i < NumberOfFunctions; ++i) v[3 + 3 * i] = k2OverPi * v[3 + 3 * i] / v[2 + 3 * i];
}

void TNLFitLorentz::TransformNativeErrorToError(const double* v, double* e) const {
  if (IntensityKind != 1) return;
  for (int i = 0; i < NumberOfFunctions; ++i) {
    const double w = v[2 + 3 * i], a = v[3 + 3 * i];
    e[3 + 3 * i] = k2OverPi * (std::fabs(e[3 + 3 * i] / w) + std::fabs(e[2 + 3 * i] * a / (w * w)));
  }
}

// ---------------------------------------------------------------------------------------------
// Pseudo-Voigt functions

namespace {
void SetupVoigtArea(TFitParam& a) {
  a.SetDescriptions("A", "Area", "($x)*($y)");
  a.SetValues(1000.0, true, true, 1000.0);
  a.SetListenKind(TFitParamListenKind::Area);
}
void SetupShape(TFitParam& m) {
  m.SetDescriptions("mu", "Profile Shape Factor", "a.u.");
  m.SetValues(0.5, false, true, 0.5);
  m.SetLimits(true, 0.0, true, true, 1.0, true);
  m.SetLowerLimitLimits(true, 0.0, true, 1.0);
  m.SetUpperLimitLimits(true, 0.0, true, 1.0);
}
double VoigtReplica(const double* p, double x, int replica, bool twoWidths, const char* routine) {
  const double y0 = p[0], x0 = p[1], wl = p[2], wg = twoWidths ? p[3] : p[2];
  const double a = twoWidths ? p[4] : p[3], mu = twoWidths ? p[5] : p[4];
  const TVoigtParts v = VoigtParts(x - x0, wl, wg);
  switch (replica) {
  case -1:
    return y0 + a * (mu * v.L + (1.0 - mu) * v.G);
  case 0:
    return y0 + a * (1.0 - mu) * v.G;
  case 1:
    return y0 + a * mu * v.L;
  default:
    throw OrvexException(std::string(routine) + ": wrong Replica index");
  }
}
} // namespace

TNLFitPsdVoigt1::TNLFitPsdVoigt1() {
  DisplayName = "PsdVoigt1";
  HelpKey = "AF_PSDVOIGT1";
  FormulaText = "y = y0 + A*(mu*(2/PI)*w/(4*(x-x0)^2+w^2) + "
                "(1-mu)*sqrt(4*ln(2))/(sqrt(PI)*w)*exp(-4*ln(2)*(x-x0)^2/w^2))";
  ClassName = "TNLFitPsdVoigt1";
  FunctionName = "PsdVoigt1";
  Categories = {"Peak Functions"};
  Model = CSMPsdVoigt1;
  BlockModel = CSMPsdVoigt1Block;
  Estimator = CSMEstimateParametersPsdVoigt1;
  CreateParameters();
}

void TNLFitPsdVoigt1::CreateParameters() {
  ResizeParameters(5);
  InitializeParameters();
}

void TNLFitPsdVoigt1::InitializeParameters() {
  for (auto& p : Params) *p = TFitParam();
  SetupOffset(*Params[0], false);
  SetupCenter(*Params[1], "");
  SetupWidth(*Params[2], "w", "Peak Width (FWHM)", "w", "Peak Width (FWHM)", 10.0);
  SetupVoigtArea(*Params[3]);
  SetupShape(*Params[4]);
}

double TNLFitPsdVoigt1::GetReplicaValue(const double* p, double x, int replica) const {
  return VoigtReplica(p, x, replica, false, "CSMCalculatePsdVoigt1WithReplica");
}

std::vector<std::string> TNLFitPsdVoigt1::GetReplicaList() const {
  return {"Pseudo Voigt Gauss Function", "Pseudo Voigt Lorentz Function"};
}

TNLFitPsdVoigt2::TNLFitPsdVoigt2() {
  DisplayName = "PsdVoigt2";
  HelpKey = "AF_PSDVOIGT2";
  FormulaText = "y = y0 + A*(mu*(2/PI)*wl/(4*(x-x0)^2+wl^2) + "
                "(1-mu)*sqrt(4*ln(2))/(sqrt(PI)*wg)*exp(-4*ln(2)*(x-x0)^2/wg^2))";
  ClassName = "TNLFitPsdVoigt2";
  FunctionName = "PsdVoigt2";
  Categories = {"Peak Functions"};
  Model = CSMPsdVoigt2;
  BlockModel = CSMPsdVoigt2Block;
  Estimator = CSMEstimateParametersPsdVoigt2;
  CreateParameters();
}

void TNLFitPsdVoigt2::CreateParameters() {
  ResizeParameters(6);
  InitializeParameters();
}

void TNLFitPsdVoigt2::InitializeParameters() {
  for (auto& p : Params) *p = TFitParam();
  SetupOffset(*Params[0], false);
  SetupCenter(*Params[1], "");
  SetupWidth(*Params[2], "wl", "Lorentz Peak Width (FWHM)", "wl", "Lorentz Peak Width (FWHM)", 10.0);
  SetupWidth(*Params[3], "wg", "Gauss Peak Width (FWHM)", "wg", "Gauss Peak Width (FWHM)", 10.0);
  SetupVoigtArea(*Params[4]);
  SetupShape(*Params[5]);
}

double TNLFitPsdVoigt2::GetReplicaValue(const double* p, double x, int replica) const {
  return VoigtReplica(p, x, replica, true, "CSMCalculatePsdVoigt2WithReplica");
}

std::vector<std::string> TNLFitPsdVoigt2::GetReplicaList() const {
  return {"Pseudo Voigt Gauss Function", "Pseudo Voigt Lorentz Function"};
}

// ---------------------------------------------------------------------------------------------
// TNLFitExpDecay

TNLFitExpDecay::TNLFitExpDecay() {
  DisplayName = "ExpDecay";
  HelpKey = "AF_EXPDECAY";
  FormulaText = "y = y0 + Sum(i=0->N-1) A(i)*exp(-(x-x0)/t(i))";
  ClassName = "TNLFitExpDecay";
  FunctionName = "ExpDecay";
  Categories = {"Exponential"};
  Model = CSMExpDecay;
  BlockModel = CSMExpDecayBlock;
  Estimator = CSMEstimateParametersExpDecay;
  CreateParameters();
}

TParameterBinding TNLFitExpDecay::Settings() {
  return ExpDecaySettings().Bind(*this);
}

void TNLFitExpDecay::CreateParameters() {
  Settings().ApplyLimits();
  ResizeParameters(2 + 2 * ExpDecayOrder);
  InitializeParameters();
}

void TNLFitExpDecay::InitializeParameters() {
  for (auto& p : Params) *p = TFitParam();
  SetupOffset(*Params[0], false);
  TFitParam& c = *Params[1];
  SetupCenter(c, "");
  c.SetVariability(false, false); // x0 is fixed
  for (int i = 0; i < ExpDecayOrder; ++i) {
    TFitParam& a = *Params[2 + 2 * i];
    TFitParam& t = *Params[3 + 2 * i];
    a.SetDescriptions("Amp_" + std::to_string(i), "Amplitude", "($y)");
    a.SetValues(0.0, true, true, 0.0);
    a.SetListenKind(TFitParamListenKind::YDiff);
    t.SetDescriptions("t_" + std::to_string(i), "Decay Constant", "($x)");
    t.SetValues(kMinWidth, true, true, kMinWidth);
    t.SetLimits(true, kMinWidth, true, false, 0.0, true);
  }
}

double TNLFitExpDecay::GetReplicaValue(const double* p, double x, int replica) const {
  if (replica < 0) return GetFunctionValue(p, x);
  return PartReplicaValue(CSMExpDecay, p, x, replica, ExpDecayOrder, 2, 2, "TNLFitExpDecay::GetReplicaValue");
}

std::vector<std::string> TNLFitExpDecay::GetReplicaList() const {
  return NumberedReplicas("Exponential Decay ", ExpDecayOrder);
}

// ---------------------------------------------------------------------------------------------
// TNLFitPolynom

TNLFitPolynom::TNLFitPolynom() {
  DisplayName = "Polynom";
  HelpKey = "AF_POLYNOM";
  FormulaText = "y = Sum(i=0->N)( A(i) * x^i )";
  ClassName = "TNLFitPolynom";
  FunctionName = "Polynom";
  Categories = {"Polynomial"};
  Model = CSMPolynom;
  BlockModel = CSMPolynomBlock;
  Estimator = CSMEstimateParametersPolynom;
  CreateParameters();
}

TParameterBinding TNLFitPolynom::Settings() {
  return PolynomSettings().Bind(*this);
}

void TNLFitPolynom::CreateParameters() {
  Settings().ApplyLimits();
  ResizeParameters(PolynomOrder + 1);
  InitializeParameters();
}

void TNLFitPolynom::InitializeParameters() {
  for (int i = 0; i <= PolynomOrder; ++i) {
    TFitParam& p = *Params[i];
    p = TFitParam();
    p.SetDescriptions("A" + std::to_string(i), "Coefficient(" + std::to_string(i) + ")",
                      "($y)/($x)^" + std::to_string(i));
    p.SetValues(0.0, true, true, 0.0);
  }
}

// ---------------------------------------------------------------------------------------------
// TNLFitUserDefined

// Per-thread evaluation data: the parser's x vector, a work copy of the parameters and the stack.
struct TNLFitUserDefined::TArgumentBlock {
  const TFormelParser* Parser = nullptr;
  std::vector<double> X;
  std::vector<double> Work;
  double* Stack = nullptr;
  double EPS = 1e-4;
  ~TArgumentBlock() { TFormelParser::ReleaseStack(Stack); }
};

TNLFitUserDefined::TNLFitUserDefined() {
  DisplayName = "User Defined";
  HelpKey = "AF_USERDEFINED";
  ClassName = "TNLFitUserDefined";
  FunctionName = "User Defined";
  Categories = {"General"};
  ModelClosure = [this](double x, const double* p, double& y, double* d, int, TChiSqrMinimizer* csm) {
    Model(x, p, y, d, csm);
  };
  CreateParameters();
  UserFitFunctionChanged();
}

TParameterBinding TNLFitUserDefined::Settings() {
  return UserDefinedSettings().Bind(*this);
}

void TNLFitUserDefined::CreateParameters() {
  Settings().ApplyLimits();
  AdjustParameterCount();
  // A changed formula or parameter count takes effect only once compiled.
  UserFitFunctionChanged();
}

void TNLFitUserDefined::AdjustParameterCount() {
  const int old = GetNumberOfParameters();
  ResizeParameters(NumberOfParams);
  for (int i = old; i < NumberOfParams; ++i) {
    TFitParam& p = *Params[i];
    const int k = i + 2;
    p.SetDescriptions("x" + std::to_string(k), "Parameter(" + std::to_string(k) + ")", "a.u.");
    p.SetValues(0.0, false, true, 0.0);
    p.SetListenKind(TFitParamListenKind::NoListen);
  }
}

void TNLFitUserDefined::InitializeParameters() {
  ResizeParameters(0);
  AdjustParameterCount();
}

bool TNLFitUserDefined::UserFitFunctionChanged() {
  std::string s;
  for (char c : FitFunctionString)
    if (c != ' ') s += c;
  FitFunctionString = s;
  FormulaText = "y = " + s;
  if (FParser.GetXDimension() != NumberOfParams + 1) {
    FParser.SetExpress("");
    FParser.SetXDimension(NumberOfParams + 1);
  }
  FParser.SetExpress(s);
  return IsUsable();
}

double TNLFitUserDefined::GetFunctionValue(const double* p, double x) const {
  std::vector<double> xv(NumberOfParams + 2, 0.0);
  xv[1] = x;
  for (int i = 0; i < NumberOfParams; ++i) xv[i + 2] = p[i];
  bool undefined = false;
  double* stack = nullptr;
  const double y = FParser.MulticoreFunc(xv.data(), undefined, stack);
  TFormelParser::ReleaseStack(stack);
  if (undefined) throw OrvexException("TNLFitUserDefined::GetFunctionValue(): Parser->UnDefined");
  return y;
}

void TNLFitUserDefined::InitializeCSM(TChiSqrMinimizer* m) {
  TNLFitFunction::InitializeCSM(m);
  m->SetModelFunction(nullptr);
  m->SetBlockModelFunction(nullptr);
  m->SetEstimatorFunction(nullptr);
  m->SetEstimatorClosure(nullptr); // the user's formula has no estimator
}

void* TNLFitUserDefined::ThreadPrepare() {
  auto* m = static_cast<TChiSqrMinimizer*>(TNLFitFunction::ThreadPrepare());
  auto* block = new TArgumentBlock();
  block->Parser = &FParser;
  block->X.assign(NumberOfParams + 2, 0.0);
  block->Work.assign(NumberOfParams, 0.0);
  block->EPS = std::clamp(EPS, 1e-10, 1e30);
  m->UserData = block;
  return m;
}

void TNLFitUserDefined::ThreadPostpare(void* threadData) {
  auto* m = static_cast<TChiSqrMinimizer*>(threadData);
  if (m) delete static_cast<TArgumentBlock*>(m->UserData);
  TNLFitFunction::ThreadPostpare(threadData);
}

void TNLFitUserDefined::Model(double x, const double* p, double& y, double* d, TChiSqrMinimizer* csm) const {
  if (!csm || !csm->UserData) {
    // Outside a prepared thread (drawing): value only.
    y = GetFunctionValue(p, x);
    for (int i = 0; i < NumberOfParams; ++i) d[i] = 0.0;
    return;
  }
  auto* b = static_cast<TArgumentBlock*>(csm->UserData);
  const int np = NumberOfParams;
  double* xv = b->X.data();
  xv[1] = x;
  for (int i = 0; i < np; ++i) xv[i + 2] = p[i];
  bool undefined = false;
  y = b->Parser->MulticoreFunc(xv, undefined, b->Stack);
  if (undefined) {
    csm->SetError(csmException, "Parser Function Error");
    return;
  }
  for (int i = 0; i < np; ++i) {
    if (!csm->GetVaryParameter(i)) {
      d[i] = 0.0;
      continue;
    }
    const double pv = p[i];
    double h = std::fabs(pv) * b->EPS;
    if (h == 0.0) h = b->EPS;
    h = (pv + h) - pv; // a step that the representation holds exactly
    if (!csm->IsParamValueWithinLimits(i, pv + h)) {
      h = -h;
      if (!csm->IsParamValueWithinLimits(i, pv + h)) {
        csm->SetError(csmWrongLimits, "Wrong Limits");
        return;
      }
    }
    xv[i + 2] = pv + h;
    const double yh = b->Parser->MulticoreFunc(xv, undefined, b->Stack);
    xv[i + 2] = pv;
    if (undefined) {
      csm->SetError(csmException, "Parser Function Error");
      return;
    }
    d[i] = (yh - y) / h;
  }
}

TTagError TNLFitUserDefined::LoadClassSettings(TFileHandle file, const TTagControl& tag) {
  const TTagError result = TNLFitFunction::LoadClassSettings(file, tag);
  ResizeParameters(0); // the saved parameters follow
  UserFitFunctionChanged();
  return result;
}
