// Powell's direction-set minimizer with golden-section line search for any scalar function of n parameters
// with box limits, and TMinimizerHelper, a front end that keeps some parameters fixed and orders the rest.
#pragma once

#include <functional>
#include <string>
#include <vector>

/// A function to minimize: the value at the n parameters p.
using TMinimizerFunction = double (*)(const double* p, int n);
/// The same as a bound closure; user is the pointer given with it.
using TMinimizerClosure = std::function<double(const double* p, int n, void* user)>;
/// The hook a front end installs: the value at the minimizer's own parameter vector.
using TMinimizerHelperClosure = std::function<double(const double* p)>;

/// Status of the last MinimizeFunction.
enum TMinimizerStatus : int {
  msDone = 0,              ///< converged
  msTooManyIterations = 1, ///< MaxIterations exceeded; Param holds the point reached
  msLostScale = 2,         ///< the line search lost its scale (bracket or abscissae below 1e-100)
};

/// Powell's direction-set method (the textbook powell, linmin, mnbrak, golden). Limits act through
/// CheckLimitsAndGetFunctionValue: no step is refused, the function is continued beyond the box by a linear
/// penalty, so the search is driven back inside. One object serves one thread; the line search works on
/// members, not on module variables.
class TMinimizer {
public:
  explicit TMinimizer(int dimension = 0);
  TMinimizer(const TMinimizer&) = delete;
  TMinimizer& operator=(const TMinimizer&) = delete;
  virtual ~TMinimizer() = default;

  /// Resizes all vectors and the direction matrix; the point becomes 0, limits off, directions unity.
  void SetDimension(int dimension);
  int GetDimension() const { return FDimension; }

  /// @{ The function; DoFunction asks, in this order, the helper hook, the plain function, the bound closure.
  void SetFunction(TMinimizerFunction function) { FFunction = function; }
  void SetClosure(TMinimizerClosure closure, void* user) {
    FClosure = std::move(closure);
    FClosureUser = user;
  }
  void SetHelperClosure(TMinimizerHelperClosure closure) { FHelperClosure = std::move(closure); }
  /// The function at p; 0 when no function is set.
  double DoFunction(const double* p);
  /// @}

  /// @{ The point and the limits; an index out of range is ignored, a getter then returns 0 or false.
  double GetParam(int i) const { return Valid(i) ? FParam[i] : 0.0; }
  void SetParam(int i, double value) {
    if (Valid(i)) FParam[i] = value;
  }
  const double* Param() const { return FParam.data(); }
  void SetLowerLimit(int i, bool check, double value);
  void SetUpperLimit(int i, bool check, double value);
  bool GetCheckLowerLimit(int i) const { return Valid(i) && FCheckLower[i]; }
  bool GetCheckUpperLimit(int i) const { return Valid(i) && FCheckUpper[i]; }
  double GetLowerLimit(int i) const { return Valid(i) ? FLower[i] : 0.0; }
  double GetUpperLimit(int i) const { return Valid(i) ? FUpper[i] : 0.0; }
  /// @}

  /// @{ Direction matrix (column j is direction j).
  /// Unit directions.
  void SetEinheitsMatrix();
  /// Diagonal directions of the given initial steps (one per parameter).
  void SetVaryStartMatrix(const double* steps);
  double GetDirection(int row, int column) const;
  /// @}

  /// Minimizes from Param; afterwards Param is the point reached and GetFunctionValue the value there.
  /// Lower limits not below their upper limits are first set to upper - 1.0, and the start is clamped.
  void MinimizeFunction();
  /// The function continued beyond the limits: inside, the function itself; outside, the value at the
  /// clamped point plus, per parameter outside, twice the finite-difference slope towards a point reflected
  /// inside times the distance to the limit.
  double CheckLimitsAndGetFunctionValue(const double* p);

  /// @{ Line search on the line through the last linmin point and direction (the textbook routines).
  /// The function along the line at abscissa x (counts a call).
  double f1dim(double x);
  /// Brackets a minimum of f1dim starting from ax, bx.
  void mnbrak(double& ax, double& bx, double& cx, double& fa, double& fb, double& fc);
  /// Golden-section search within the bracket; ends when |x3 - x0| <= Tolerance (|x1| + |x2|).
  double golden(double ax, double bx, double cx, double& xmin);
  /// Brent's parabolic search within the bracket (CGOLD 0.381966, ZEPS 1e-6); not used by linmin.
  double brent(double ax, double bx, double cx, double tolerance, double& xmin);
  /// Minimizes along xi from p: p moves to the minimum, xi becomes the step taken, fret the value there.
  void linmin(double* p, double* xi, double& fret);
  /// @}

  double Tolerance = 1e-6;
  int MaxIterations = 200;

  /// @{ Results of the last run.
  TMinimizerStatus GetStatus() const { return FStatus; }
  int GetIterations() const { return FIterations; }
  int GetFunctionCalls() const { return FFunctionCalls; }
  double GetFunctionValue() const { return FFunctionValue; }
  /// The words of a status.
  static std::string StatusText(TMinimizerStatus status);
  /// @}

private:
  bool Valid(int i) const { return i >= 0 && i < FDimension; }

  int FDimension = 0;
  std::vector<double> FParam;
  std::vector<double> FDirections; ///< n x n, row-major; column j is direction j
  std::vector<double> FLower, FUpper;
  std::vector<char> FCheckLower, FCheckUpper;
  std::vector<double> FPt, FPtt, FXit;       ///< working vectors of MinimizeFunction
  std::vector<double> FPCom, FXiCom, FXt;    ///< the line of the line search and its point
  std::vector<double> FClamped, FReflection; ///< working vectors of the limit continuation
  std::vector<char> FOutside;
  TMinimizerFunction FFunction = nullptr;
  TMinimizerClosure FClosure;
  void* FClosureUser = nullptr;
  TMinimizerHelperClosure FHelperClosure;
  TMinimizerStatus FStatus = msDone;
  bool FLostScale = false;
  int FIterations = 0;
  int FFunctionCalls = 0;
  double FFunctionValue = 0.0;
};

/// Front end of TMinimizer over named parameters: fixed parameters keep their values, the variable ones are
/// worked in the order of their Order values, each with its own initial step.
class TMinimizerHelper {
public:
  /// One parameter.
  struct TParameter {
    std::string Name;
    double Value = 0.0;
    double Vary = 1.0; ///< initial step
    bool Variable = true;
    double Order = 0.0;
  };

  explicit TMinimizerHelper(int numberOfParameters);
  // The minimizer's hook refers to this object.
  TMinimizerHelper(const TMinimizerHelper&) = delete;
  TMinimizerHelper& operator=(const TMinimizerHelper&) = delete;

  /// The function of the full parameter list (all n values in list order).
  void SetFunction(std::function<double(const double* values, int n)> function) {
    FFunction = std::move(function);
  }
  /// Runs the minimizer rounds times over the variable parameters and copies the values back.
  void MinimizeFunction(int rounds);
  /// The full parameter array from the minimizer's vector of variable parameters.
  void ResortParameters(const double* variable);

  std::vector<TParameter> Parameters;
  TMinimizer Minimizer;
  /// The full array that the function sees.
  const std::vector<double>& FullParameters() const { return FFull; }

private:
  std::function<double(const double*, int)> FFunction;
  std::vector<double> FFull;
  std::vector<int> FIndex; ///< full index of each variable parameter, in working order
};
