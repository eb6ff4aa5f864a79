// Front end of the Powell minimizer for fits: named parameters with start steps, limits and a working
// order, minimized through a chi-square closure.
#pragma once

#include "common/numerics/Minimizer.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// One parameter of a TNLFit.
class TNLFitParam {
public:
  std::string Name;
  int Order = -1;       ///< position in the working order among the variable parameters
  bool Variable = true; ///< false: the value stays fixed
  double Vary = 1.0;    ///< initial step
  bool HasLowerLimit = false;
  double LowerLimit = 0.0;
  bool HasUpperLimit = false;
  double UpperLimit = 0.0;
  double Value = 0.0;
};

/// The chi-square of a fit: all parameter values in list order.
using TNLFitChiSqrClosure = std::function<double(const double* values, int n)>;

/// A fit by Powell's method over a list of parameters. InitFit prepares the minimizer, StartFit runs it from
/// the parameters' values and writes the result back into them.
class TNLFit {
public:
  explicit TNLFit(int numberOfParameters);
  TNLFit(const TNLFit&) = delete;
  TNLFit& operator=(const TNLFit&) = delete;
  virtual ~TNLFit() = default;

  int GetNumberOfParameters() const { return static_cast<int>(FParams.size()); }
  /// The parameter at index; null for an index out of range.
  TNLFitParam* GetParam(int index);
  /// Number of variable parameters.
  int GetNumberOfVariableParameters() const;

  /// Makes the minimizer for the variable parameters (replacing one of another size), sets tolerance,
  /// iteration limit and the chi-square hook, puts the orders in shape and copies the limits in working
  /// order.
  void InitFit();
  /// Runs the minimizer from the parameters' values; the reached values go back into the parameters and the
  /// chi-square into GetLastChiSqr. InitFit must have run since the last change of variability or order.
  void StartFit();
  /// Moves a variable parameter to the given place of the working order (clamped to 0 .. count-1); the
  /// parameters between the old and the new place shift by one, so the orders stay a permutation.
  void CheckOrder(int index, int order);
  /// Makes the orders of the variable parameters a permutation of 0 .. count-1, keeping their relative
  /// sequence (parameters without a valid order follow in list order); fixed parameters get -1.
  void CheckOrders();
  /// The chi-square hook of the minimizer: the variable values (in working order) go to their parameters,
  /// then the closure is called; 0 without a closure.
  double Chi2MM(const double* variable);

  void SetChiSqrClosure(TNLFitChiSqrClosure closure) { FChiSqr = std::move(closure); }
  double GetLastChiSqr() const { return FLastChiSqr; }
  const TMinimizer* GetMinimizer() const { return FMinimizer.get(); }

  double Tolerance = 0.1;
  int MaxNumberOfIterations = 20;

private:
  std::vector<std::unique_ptr<TNLFitParam>> FParams;
  std::unique_ptr<TMinimizer> FMinimizer;
  std::vector<int> FWorking; ///< parameter index of each working place
  std::vector<double> FValues;
  TNLFitChiSqrClosure FChiSqr;
  double FLastChiSqr = -1.0;
};
