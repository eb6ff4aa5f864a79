// Powell's direction-set minimizer with golden-section line search, box limits by continuation, and the
// helper front end with fixed and ordered parameters.
#include "common/numerics/Minimizer.h"

#include "common/numerics/Sorttools.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kGold = 1.618034;
constexpr double kGLimit = 100.0;
constexpr double kTiny = 1e-20;
constexpr double kGoldenR = 0.61803399;
constexpr double kGoldenC = 0.38196601;
constexpr double kScaleFloor = 1e-100;

double SignOf(double a, double b) {
  return b >= 0.0 ? std::fabs(a) : -std::fabs(a);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// TMinimizer

TMinimizer::TMinimizer(int dimension) {
  SetDimension(dimension);
}

void TMinimizer::SetDimension(int dimension) {
  FDimension = std::max(dimension, 0);
  const size_t n = static_cast<size_t>(FDimension);
  FParam.assign(n, 0.0);
  FDirections.assign(n * n, 0.0);
  FLower.assign(n, 0.0);
  FUpper.assign(n, 0.0);
  FCheckLower.assign(n, 0);
  FCheckUpper.assign(n, 0);
  FPt.assign(n, 0.0);
  FPtt.assign(n, 0.0);
  FXit.assign(n, 0.0);
  FPCom.assign(n, 0.0);
  FXiCom.assign(n, 0.0);
  FXt.assign(n, 0.0);
  FClamped.assign(n, 0.0);
  FReflection.assign(n, 0.0);
  FOutside.assign(n, 0);
  SetEinheitsMatrix();
}

double TMinimizer::DoFunction(const double* p) {
  if (FHelperClosure) return FHelperClosure(p);
  if (FFunction) return FFunction(p, FDimension);
  if (FClosure) return FClosure(p, FDimension, FClosureUser);
  return 0.0;
}

void TMinimizer::SetLowerLimit(int i, bool check, double value) {
  if (!Valid(i)) return;
  FCheckLower[i] = check;
  FLower[i] = value;
}

void TMinimizer::SetUpperLimit(int i, bool check, double value) {
  if (!Valid(i)) return;
  FCheckUpper[i] = check;
  FUpper[i] = value;
}

void TMinimizer::SetEinheitsMatrix() {
  std::fill(FDirections.begin(), FDirections.end(), 0.0);
  for (int i = 0; i < FDimension; ++i) FDirections[static_cast<size_t>(i) * FDimension + i] = 1.0;
}

void TMinimizer::SetVaryStartMatrix(const double* steps) {
  std::fill(FDirections.begin(), FDirections.end(), 0.0);
  for (int i = 0; i < FDimension; ++i) FDirections[static_cast<size_t>(i) * FDimension + i] = steps[i];
}

double TMinimizer::GetDirection(int row, int column) const {
  if (!Valid(row) || !Valid(column)) return 0.0;
  return FDirections[static_cast<size_t>(row) * FDimension + column];
}

std::string TMinimizer::StatusText(TMinimizerStatus status) {
  switch (status) {
  case msDone:
    return "Done";
  case msTooManyIterations:
    return "Too many iterations";
  case msLostScale:
    return "Line search lost its scale";
  }
  return "Unknown status";
}

double TMinimizer::CheckLimitsAndGetFunctionValue(const double* p) {
  const int n = FDimension;
  bool anyOutside = false;
  for (int i = 0; i < n; ++i) {
    FClamped[i] = p[i];
    FOutside[i] = 0;
    double limit, distance, direction;
    if (FCheckLower[i] && p[i] < FLower[i]) {
      limit = FLower[i], distance = FLower[i] - p[i], direction = 1.0;
    } else if (FCheckUpper[i] && p[i] > FUpper[i]) {
      limit = FUpper[i], distance = p[i] - FUpper[i], direction = -1.0;
    } else {
      continue;
    }
    // The reflection lies the same distance inside, but not beyond the opposite limit.
    const bool checkOpposite = direction > 0.0 ? FCheckUpper[i] : FCheckLower[i];
    const double opposite = direction > 0.0 ? FUpper[i] : FLower[i];
    if (checkOpposite)
      for (int halvings = 0; halvings < 2100 && (opposite - (limit + direction * distance)) * direction < 0.0;
           ++halvings)
        distance *= 0.5;
    FClamped[i] = limit;
    FReflection[i] = limit + direction * distance;
    FOutside[i] = 1;
    anyOutside = true;
  }
  if (!anyOutside) return DoFunction(p);
  const double f0 = DoFunction(FClamped.data());
  double penalty = 0.0;
  for (int i = 0; i < n; ++i) {
    if (!FOutside[i]) continue;
    const double limit = FClamped[i];
    FClamped[i] = FReflection[i];
    const double f1 = DoFunction(FClamped.data());
    FClamped[i] = limit;
    const double step = std::fabs(limit - FReflection[i]);
    if (step >= 1e-50) penalty += 2.0 * std::fabs(f1 - f0) / step * std::fabs(p[i] - limit);
  }
  return f0 + penalty;
}

double TMinimizer::f1dim(double x) {
  for (int j = 0; j < FDimension; ++j) FXt[j] = FPCom[j] + x * FXiCom[j];
  ++FFunctionCalls;
  return CheckLimitsAndGetFunctionValue(FXt.data());
}

// Textbook mnbrak: downhill from ax to bx, then golden steps with parabolic extrapolation (GOLD 1.618034,
// GLIMIT 100, TINY 1e-20 in the parabola's division). A bracket that runs to non-finite abscissae or values
// means the line search lost its scale.
void TMinimizer::mnbrak(double& ax, double& bx, double& cx, double& fa, double& fb, double& fc) {
  fa = f1dim(ax);
  fb = f1dim(bx);
  if (fb > fa) {
    std::swap(ax, bx);
    std::swap(fa, fb);
  }
  cx = bx + kGold * (bx - ax);
  fc = f1dim(cx);
  while (fb > fc) {
    if (!std::isfinite(cx) || !std::isfinite(fc)) {
      FLostScale = true;
      return;
    }
    const double r = (bx - ax) * (fb - fc);
    const double q = (bx - cx) * (fb - fa);
    double u =
        bx - ((bx - cx) * q - (bx - ax) * r) / (2.0 * SignOf(std::max(std::fabs(q - r), kTiny), q - r));
    const double ulim = bx + kGLimit * (cx - bx);
    double fu;
    if ((bx - u) * (u - cx) > 0.0) {
      fu = f1dim(u);
      if (fu < fc) {
        ax = bx, bx = u, fa = fb, fb = fu;
        return;
      }
      if (fu > fb) {
        cx = u, fc = fu;
        return;
      }
      u = cx + kGold * (cx - bx);
      fu = f1dim(u);
    } else if ((cx - u) * (u - ulim) > 0.0) {
      fu = f1dim(u);
      if (fu < fc) {
        bx = cx, cx = u, u = cx + kGold * (cx - bx);
        fb = fc, fc = fu, fu = f1dim(u);
      }
    } else if ((u - ulim) * (ulim - cx) >= 0.0) {
      u = ulim;
      fu = f1dim(u);
    } else {
      u = cx + kGold * (cx - bx);
      fu = f1dim(u);
    }
    ax = bx, bx = cx, cx = u;
    fa = fb, fb = fc, fc = fu;
  }
}

// Textbook golden-section search (R 0.61803399, C 0.38196601) with the relative end test on Tolerance. A
// bracket or abscissae below 1e-100 mean the line search lost its scale; the better point so far is
// returned.
double TMinimizer::golden(double ax, double bx, double cx, double& xmin) {
  double x0 = ax, x3 = cx, x1, x2;
  if (std::fabs(cx - bx) > std::fabs(bx - ax)) {
    x1 = bx;
    x2 = bx + kGoldenC * (cx - bx);
  } else {
    x2 = bx;
    x1 = bx - kGoldenC * (bx - ax);
  }
  double f1 = f1dim(x1), f2 = f1dim(x2);
  while (std::fabs(x3 - x0) > Tolerance * (std::fabs(x1) + std::fabs(x2))) {
    if (std::fabs(x3 - x0) < kScaleFloor || std::fabs(x1) + std::fabs(x2) < kScaleFloor) {
      FLostScale = true;
      break;
    }
    if (f2 < f1) {
      x0 = x1, x1 = x2, x2 = kGoldenR * x1 + kGoldenC * x3;
      f1 = f2, f2 = f1dim(x2);
    } else {
      x3 = x2, x2 = x1, x1 = kGoldenR * x2 + kGoldenC * x0;
      f2 = f1, f1 = f1dim(x1);
    }
  }
  if (f1 < f2) {
    xmin = x1;
    return f1;
  }
  xmin = x2;
  return f2;
}

// Textbook Brent search (ITMAX 100, CGOLD 0.381966, ZEPS 1e-6).
double TMinimizer::brent(double ax, double bx, double cx, double tolerance, double& xmin) {
  constexpr int kItMax = 100;
  constexpr double kCGold = 0.381966, kZeps = 1e-6;
  double a = std::min(ax, cx), b = std::max(ax, cx);
  double x = bx, w = bx, v = bx;
  double fx = f1dim(x), fw = fx, fv = fx;
  double d = 0.0, e = 0.0;
  for (int iter = 0; iter < kItMax; ++iter) {
    const double xm = 0.5 * (a + b);
    const double tol1 = tolerance * std::fabs(x) + kZeps, tol2 = 2.0 * tol1;
    if (std::fabs(x - xm) <= tol2 - 0.5 * (b - a)) break;
    if (std::fabs(e) > tol1) {
      double r = (x - w) * (fx - fv);
      double q = (x - v) * (fx - fw);
      double p = (x - v) * q - (x - w) * r;
      q = 2.0 * (q - r);
      if (q > 0.0) p = -p;
      q = std::fabs(q);
      const double etemp = e;
      e = d;
      if (std::fabs(p) >= std::fabs(0.5 * q * etemp) || p <= q * (a - x) || p >= q * (b - x)) {
        e = x >= xm ? a - x : b - x;
        d = kCGold * e;
      } else {
        d = p / q;
        const double u = x + d;
        if (u - a < tol2 || b - u < tol2) d = SignOf(tol1, xm - x);
      }
    } else {
      e = x >= xm ? a - x : b - x;
      d = kCGold * e;
    }
    const double u = std::fabs(d) >= tol1 ? x + d : x + SignOf(tol1, d);
    const double fu = f1dim(u);
    if (fu <= fx) {
      if (u >= x)
        a = x;
      else
        b = x;
      v = w, w = x, x = u;
      fv = fw, fw = fx, fx = fu;
    } else {
      if (u < x)
        a = u;
      else
        b = u;
      if (fu <= fw || w == x) {
        v = w, w = u;
        fv = fw, fw = fu;
      } else if (fu <= fv || v == x || v == w) {
        v = u;
        fv = fu;
      }
    }
  }
  xmin = x;
  return fx;
}

void TMinimizer::linmin(double* p, double* xi, double& fret) {
  const int n = FDimension;
  for (int j = 0; j < n; ++j) FPCom[j] = p[j], FXiCom[j] = xi[j];
  double ax = 0.0, xx = 1.0, bx = 0.0, fa, fx, fb;
  mnbrak(ax, xx, bx, fa, fx, fb);
  if (FLostScale) return;
  double xmin = 0.0;
  fret = golden(ax, xx, bx, xmin);
  for (int j = 0; j < n; ++j) {
    xi[j] *= xmin;
    p[j] += xi[j];
  }
}

// Textbook powell with the status codes of this class instead of an abort.
void TMinimizer::MinimizeFunction() {
  const int n = FDimension;
  for (int i = 0; i < n; ++i) {
    // Equal limits count as wrong here: the box needs room for the reflections.
    if (FCheckLower[i] && FCheckUpper[i] && !(FLower[i] < FUpper[i])) FLower[i] = FUpper[i] - 1.0;
    if (FCheckLower[i] && FParam[i] < FLower[i]) FParam[i] = FLower[i];
    if (FCheckUpper[i] && FParam[i] > FUpper[i]) FParam[i] = FUpper[i];
  }
  FStatus = msDone;
  FLostScale = false;
  FFunctionCalls = 1;
  double* p = FParam.data();
  double fret = CheckLimitsAndGetFunctionValue(p);
  std::copy(FParam.begin(), FParam.end(), FPt.begin());
  for (FIterations = 1;; ++FIterations) {
    const double fp = fret;
    int ibig = 0;
    double del = 0.0;
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) FXit[j] = FDirections[static_cast<size_t>(j) * n + i];
      const double fptt = fret;
      linmin(p, FXit.data(), fret);
      if (FLostScale) {
        FStatus = msLostScale;
        FFunctionValue = fret;
        return;
      }
      if (fptt - fret > del) {
        del = fptt - fret;
        ibig = i;
      }
    }
    if (2.0 * (fp - fret) <= Tolerance * (std::fabs(fp) + std::fabs(fret)) + 1e-25) break;
    if (FIterations > MaxIterations) {
      FStatus = msTooManyIterations;
      FFunctionValue = fret;
      return;
    }
    for (int j = 0; j < n; ++j) {
      FPtt[j] = 2.0 * p[j] - FPt[j];
      FXit[j] = p[j] - FPt[j];
      FPt[j] = p[j];
    }
    ++FFunctionCalls;
    const double fptt = CheckLimitsAndGetFunctionValue(FPtt.data());
    if (fptt < fp) {
      const double a = fp - fret - del, b = fp - fptt;
      const double t = 2.0 * (fp - 2.0 * fret + fptt) * a * a - del * b * b;
      if (t < 0.0) {
        linmin(p, FXit.data(), fret);
        if (FLostScale) {
          FStatus = msLostScale;
          FFunctionValue = fret;
          return;
        }
        for (int j = 0; j < n; ++j) {
          FDirections[static_cast<size_t>(j) * n + ibig] = FDirections[static_cast<size_t>(j) * n + n - 1];
          FDirections[static_cast<size_t>(j) * n + n - 1] = FXit[j];
        }
      }
    }
  }
  ++FFunctionCalls;
  FFunctionValue = CheckLimitsAndGetFunctionValue(p);
}

// ---------------------------------------------------------------------------------------------
// TMinimizerHelper

TMinimizerHelper::TMinimizerHelper(int numberOfParameters) : Parameters(std::max(numberOfParameters, 0)) {
  Minimizer.SetHelperClosure([this](const double* p) {
    ResortParameters(p);
    return FFunction ? FFunction(FFull.data(), static_cast<int>(FFull.size())) : 0.0;
  });
}

void TMinimizerHelper::ResortParameters(const double* variable) {
  for (size_t k = 0; k < FIndex.size(); ++k) FFull[FIndex[k]] = variable[k];
}

void TMinimizerHelper::MinimizeFunction(int rounds) {
  const int n = static_cast<int>(Parameters.size());
  FFull.resize(n);
  FIndex.clear();
  std::vector<double> orders;
  for (int i = 0; i < n; ++i) {
    FFull[i] = Parameters[i].Value;
    if (Parameters[i].Variable) {
      FIndex.push_back(i);
      orders.push_back(Parameters[i].Order);
    }
  }
  const int nv = static_cast<int>(FIndex.size());
  IndexBubbleSort(orders.data(), FIndex.data(), nv);
  Minimizer.SetDimension(nv);
  std::vector<double> steps(nv);
  for (int k = 0; k < nv; ++k) {
    Minimizer.SetParam(k, Parameters[FIndex[k]].Value);
    steps[k] = Parameters[FIndex[k]].Vary;
  }
  Minimizer.SetEinheitsMatrix();
  Minimizer.SetVaryStartMatrix(steps.data());
  if (nv > 0)
    for (int r = 0; r < rounds; ++r) Minimizer.MinimizeFunction();
  ResortParameters(Minimizer.Param());
  for (int k = 0; k < nv; ++k) Parameters[FIndex[k]].Value = Minimizer.GetParam(k);
}
