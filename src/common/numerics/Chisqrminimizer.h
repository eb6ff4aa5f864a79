// Levenberg-Marquardt least-squares fitter of a model with analytic derivatives against points
// (x, y, sigma), with box limits, fixed parameters, start-value estimation and status codes.
#pragma once

#include <functional>
#include <memory>
#include <string>

class TChiSqrMinimizer;

/// A model: y and the derivatives dy/dp[i] (n of them) at x for the parameters p.
using TCSMModelFunction = void (*)(double x, const double* parameters, double& y, double* derivatives, int n,
                                   TChiSqrMinimizer* minimizer);
using TCSMModelClosure = std::function<void(double x, const double* parameters, double& y,
                                            double* derivatives, int n, TChiSqrMinimizer* minimizer)>;
/// A start-value estimator: writes only those parameters whose useEstimated flag is set. The two scratch
/// arrays hold numberOfPoints doubles each and belong to the minimizer.
using TCSMEstimatorFunction = void (*)(const double* x, const double* y, double* scratch1, double* scratch2,
                                       int numberOfParameters, const bool* useEstimated, double* parameters,
                                       int numberOfPoints, TChiSqrMinimizer* minimizer);
using TCSMEstimatorClosure = std::function<void(
    const double* x, const double* y, double* scratch1, double* scratch2, int numberOfParameters,
    const bool* useEstimated, double* parameters, int numberOfPoints, TChiSqrMinimizer* minimizer)>;

/// Number of points a block model evaluates in one call.
inline constexpr int kCSMBlockSize = 64;
/// A block model: for the kCSMBlockSize abscissae x it writes the values y[i] and the derivatives
/// derivatives[k * kCSMBlockSize + i] by parameter k. It stands beside a per-point model of the same
/// function: fits use the block form, single values the per-point form. A short last block is padded with
/// copies of the last point, so a block model always computes all kCSMBlockSize points and needs no tail
/// handling.
using TCSMBlockModelFunction = void (*)(const double* x, const double* parameters, double* y,
                                        double* derivatives, int n, TChiSqrMinimizer* minimizer);

// Loops over a block of points are compiled for the common vector extensions and chosen at load time
// (OX_NO_SIMD_CLONES builds the plain form only).
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) &&     \
    !defined(OX_NO_SIMD_CLONES)
#define OX_SIMD_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define OX_SIMD_CLONES
#endif

/// Status codes of a run (ErrorCode).
enum TCSMErrorCode : int {
  csmOk = 0,
  csmMissingFitFunction = 1,
  csmMaxIterations = 2,
  csmInvalidChiSqr = 3, ///< reserved
  csmSingularMatrix = 4,
  csmSingularMatrix2 = 5,
  csmWrongLimits = 6,
  csmException = 7,
};

/// Levenberg-Marquardt minimizer of chi-square. One object serves one thread; its working arrays are
/// allocated once and reused, so a fit allocates nothing except when the point count grows. Failures are
/// reported in ErrorCode and ErrorMessage, never by an exception.
class TChiSqrMinimizer {
public:
  explicit TChiSqrMinimizer(int numberOfParameters);
  TChiSqrMinimizer(const TChiSqrMinimizer&) = delete;
  TChiSqrMinimizer& operator=(const TChiSqrMinimizer&) = delete;
  virtual ~TChiSqrMinimizer();

  int GetNumberOfParameters() const { return FNumberOfParameters; }

  /// @{ The model: exactly one of the two forms may be set (both or none give code 1).
  void SetModelFunction(TCSMModelFunction model) { FModel = model; }
  void SetModelClosure(TCSMModelClosure model) { FModelClosure = std::move(model); }
  void SetEstimatorFunction(TCSMEstimatorFunction estimator) { FEstimator = estimator; }
  void SetEstimatorClosure(TCSMEstimatorClosure estimator) { FEstimatorClosure = std::move(estimator); }
  /// The block form of the per-point model; used by fits when set beside a per-point model (null: none).
  void SetBlockModelFunction(TCSMBlockModelFunction model) { FBlockModel = model; }
  TCSMBlockModelFunction GetBlockModelFunction() const { return FBlockModel; }
  /// @}

  /// @{ Per-parameter settings; an index out of range is ignored, a getter then returns 0 or false.
  bool GetVaryParameter(int i) const;
  void SetVaryParameter(int i, bool value);
  double GetStartParameter(int i) const;
  void SetStartParameter(int i, double value);
  double GetParameter(int i) const;
  void SetParameter(int i, double value);
  bool GetHasLowerLimit(int i) const;
  void SetHasLowerLimit(int i, bool value);
  double GetLowerLimit(int i) const;
  void SetLowerLimit(int i, double value);
  bool GetHasUpperLimit(int i) const;
  void SetHasUpperLimit(int i, bool value);
  double GetUpperLimit(int i) const;
  void SetUpperLimit(int i, double value);
  bool GetUseEstimatedParameter(int i) const;
  void SetUseEstimatedParameter(int i, bool value);
  /// @}

  void CopyStartParametersToParameters();
  /// Start parameters to Parameters, then the estimator (if any) for those flagged UseEstimatedParameter.
  void EstimateParameters(const double* x, const double* y, int n);
  /// Fits the model to n points; sigma may be null (all 1). Status in ErrorCode.
  void LevenbergMarquardtMinimize(const double* x, const double* y, const double* sigma, int n);
  /// False when a set lower limit lies above the value or a set upper limit below it.
  bool IsParamValueWithinLimits(int i, double value) const;
  /// Element of the covariance matrix of the last run; 0 for a fixed parameter or an invalid index.
  double GetCovariance(int i, int j) const;
  /// Chi-square / (points - fitted parameters); -1 when that divisor is 0 or less.
  double GetReducedChiSqr() const;
  /// sqrt(covariance(i,i) * reduced chi-square); 0 for an invalid index or fixed parameter, -1 when the
  /// reduced chi-square is negative or the variance below 1e-31.
  double GetParameterError(int i) const;
  /// The model's value at x for the current Parameters (used for residuals after a fit).
  double EvaluateModel(double x);

  /// @{ State of the last run.
  double GetChiSqr() const { return FChiSqr; }
  double GetLambda() const { return FLambda; }
  int GetNumberOfFittedParameters() const { return FMFit; }
  int GetNumberOfPoints() const { return FNumberOfPoints; }
  int GetIterations() const { return FIterations; }
  int GetErrorCode() const { return FErrorCode; }
  const std::string& GetErrorMessage() const { return FErrorMessage; }
  /// Lets a model or estimator report a failure; the current round ends.
  void SetError(int code, const std::string& message);
  /// @}

  int MaxIterations = 200;
  double Tolerance = 1e-8;
  /// Free for the model's per-thread data (a fit function keeps its argument block here).
  void* UserData = nullptr;

  /// Parameters (double, the current best values); NumberOfParameters elements.
  const double* Parameters() const { return FParameters; }
  double* Parameters() { return FParameters; }

private:
  void mrqmin(const double* x, const double* y, const double* sigma, int n);
  void mrqcof(const double* x, const double* y, const double* sigma, int n, const double* p, double* alpha,
              double* beta);
  void covsrt(double* covar);
  void CheckLimits(double* p);
  bool HasModel() const;
  void CallModel(double x, const double* p, double& y, double* derivatives);
  /// Model values and derivatives of the varied parameters for count points from x into the block buffers;
  /// false when the model failed (ErrorCode set).
  bool EvaluateBlock(const double* x, int count, const double* p);

  struct TAlignedDelete {
    void operator()(double* p) const;
  };

  int FNumberOfParameters;
  std::unique_ptr<double[], TAlignedDelete> FDoubleBlock;
  std::unique_ptr<int[]> FIntBlock;
  std::unique_ptr<bool[]> FBoolBlock;
  double* FParameters;
  double* FStartParameters;
  double* FUpperLimit;
  double* FLowerLimit;
  double* FDerivatives;
  double* FTrial;
  double* FBeta;
  double* FDa;
  double* FAlpha;
  double* FCovar;
  double* FOneDa;
  int* FIndxc;
  int* FIndxr;
  int* FIpiv;
  int* FVaried; ///< indices of the varied parameters, FMFit of them
  bool* FVary;
  bool* FUseEstimated;
  bool* FHasUpperLimit;
  bool* FHasLowerLimit;

  // Buffers of one block of points (kCSMBlockSize each, 64-byte aligned) for the normal equations.
  double* FBlockX;     ///< abscissae of a padded last block
  double* FBlockYData; ///< measured values of a padded last block
  double* FBlockY;     ///< model values
  double* FBlockW;     ///< weights 1/sigma^2, 0 for padding
  double* FBlockOnes;  ///< weights without sigma
  double* FBlockDy;    ///< residuals
  double* FBlockD;     ///< derivatives, kCSMBlockSize per parameter
  double* FBlockWt;    ///< weighted derivatives, kCSMBlockSize per fitted parameter
  double* FLaneSums;   ///< running sums of alpha, beta and chi-square, one vector of lanes each

  std::unique_ptr<double[]> FScratch; ///< two estimator arrays of FScratchSize each
  int FScratchSize = 0;

  TCSMModelFunction FModel = nullptr;
  TCSMModelClosure FModelClosure;
  TCSMBlockModelFunction FBlockModel = nullptr;
  TCSMEstimatorFunction FEstimator = nullptr;
  TCSMEstimatorClosure FEstimatorClosure;

  double FChiSqr = 0, FOChiSqr = 0, FLambda = -1;
  int FMFit = 0, FNumberOfPoints = 0, FIterations = 0;
  bool FAccepted = false;
  int FErrorCode = 0;
  std::string FErrorMessage;
};
