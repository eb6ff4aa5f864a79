// Principal component analysis of a spectra stack without any window: the covariance of the selected
// points over the used pixels, its eigen-decomposition, scores and reconstructions, and the result graphs.
// The tool dialog and the command line both drive this unit.
#pragma once

#include "data/Dcustom.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class IProgressAndCancel;
class TDGraph;
class TMCC;
class TSymmetricRankUpdate;

/// What a calculation uses besides the stack.
struct TPCASettings {
  /// One flag per point of a spectrum; empty means all points.
  std::vector<bool> SpectrumMask;
  /// With UseDrawField and at least 4 pixels set, only these pixels (index x + y * SizeX) take part;
  /// otherwise every pixel of a valid line does.
  bool UseDrawField = false;
  std::vector<bool> DrawField;
  /// 0 none, 1 Manhattan, 2 Euclidean: each centred spectrum is divided by its norm before it enters the
  /// covariance (scores and reconstructions never use the norm).
  int NormMode = 0;
};

enum class TPCAStatus : int {
  Ok = 0,
  Cancelled = 1, ///< stopped on request; the result is marked not done
  NoPixels = 2, ///< no pixel on a valid line (or in the draw field): nothing calculated, the old result stays
  Failed = 3,   ///< bad input (the old result stays) or non-finite data (the result is marked not done);
                ///< Error() says why
};

/// True when ids holds exactly one ID and it is a graph (class "TDGraph" itself) with more than one pixel in
/// x; a single line (size Y 1) is accepted.
bool IsPCAInputIDListOkay(const IDataProject& project, const TIntList& ids);

/// Seed of the draw-field command, so that runs repeat.
inline constexpr std::uint32_t kPCADrawFieldSeed = 19;

/// count distinct pixels of a sizeX x sizeY scan, drawn with x = random mod sizeX, y = random mod sizeY until
/// a pixel not yet set comes up. Index x + y * sizeX. Throws OrvexException unless 0 <= count <= sizeX *
/// sizeY.
std::vector<bool> RandomizeDrawField(int sizeX, int sizeY, int count, std::uint32_t seed = kPCADrawFieldSeed);

/// Bytes asked for when the tool starts: Y squared doubles (kept that way on purpose) and the square matrix
/// of P + 10 rows of P doubles.
std::int64_t PCAStartMemoryBytes(int sizeX, int sizeY, int pointCount);

/// The calculation and its result. Use Calculate, or, inside a controller the caller runs, Prepare, then
/// CalculateThread on every thread, then Finish.
class TPCACore {
public:
  /// Spectra of one block of the covariance: 512 keep the packed copies of a block (4 MiB for 1024 points)
  /// near the processor while every tile of the block reads them.
  static constexpr int MaxBlockLength = 512;

  TPCACore();
  ~TPCACore();
  TPCACore(const TPCACore&) = delete;
  TPCACore& operator=(const TPCACore&) = delete;

  /// The whole calculation on threadCount threads (below 1: all processors). progress (may be null) hears
  /// the captions of the steps and may cancel. Returns the status; the result is kept only after Ok.
  TPCAStatus Calculate(const TDGraph& graph, const TPCASettings& settings, IProgressAndCancel* progress,
                       int threadCount);

  ///@{ The same in three parts, for a caller that owns the controller and its progress view.
  /// Checks the input, takes the calculation mask and lists the pixels. Returns Ok when the threads
  /// should run, otherwise the final status.
  TPCAStatus Prepare(const TDGraph& graph, const TPCASettings& settings, IProgressAndCancel* progress);
  /// The four steps (average, norm, covariance, eigen-solve) on every thread of mcc.
  void CalculateThread(TMCC* mcc, int threadIndex);
  /// Sign rule and result state after the threads have ended; returns the final status.
  TPCAStatus Finish();
  ///@}

  /// The text of the last failure (empty after success).
  const std::string& Error() const { return FError; }
  /// True after a calculation that was neither cancelled nor failed.
  bool IsDone() const { return FDone; }

  ///@{ The result of the last finished calculation.
  /// M, the number of selected points and of components.
  int ComponentCount() const { return FM; }
  /// P, the points of a spectrum of the source.
  int PointCount() const { return FP; }
  /// N, the pixels used.
  std::int64_t PixelCount() const { return static_cast<std::int64_t>(FPixels.size()); }
  /// The spectrum mask as it was when the calculation started.
  const std::vector<bool>& CalculationMask() const { return FCalculationMask; }
  /// Source point of each selected point, ascending.
  const std::vector<int>& SelectedIndex() const { return FSelected; }
  /// The eigenvalues ascending (M values).
  const std::vector<double>& EigenValuesAscending() const { return FEigenValues; }
  /// Eigenvalue of component k; k = 0 is the largest.
  double EigenValueOfPC(int k) const { return FEigenValues[static_cast<std::size_t>(FM - 1 - k)]; }
  /// Element i (of the selected points) of the eigenvector of component k.
  double EigenVectorOfPC(int i, int k) const {
    return FEigenVectors[static_cast<std::size_t>(i) * FM + (FM - 1 - k)];
  }
  /// The average of each selected point (M values).
  const std::vector<double>& Average() const { return FAverage; }
  ///@}

  /// Scores of a source spectrum (P values) for the components pcs.
  void Scores(const float* spectrum, const std::vector<int>& pcs, double* scores) const;
  /// Reconstruction of a source spectrum from the components pcs: P values, the average plus the scored
  /// eigenvectors at the selected points; an unselected point holds the value of the selected point before
  /// it, and points before the first selected one hold the first selected value.
  void Reconstruct(const float* spectrum, const std::vector<int>& pcs, float* out) const;

  /// Wall-clock and processor seconds (of the whole process) of one stage of the last calculation.
  struct TStageTime {
    double Wall = 0;
    double Processor = 0;
  };
  ///@{ The stages of the last calculation, for benchmarks.
  TStageTime AverageTime;
  TStageTime NormTime;
  TStageTime CovarianceTime;
  TStageTime ReductionTime;
  TStageTime QLTime;
  ///@}

private:
  bool CancelRequested(const TMCC* mcc) const;
  void Fail(const std::string& message, std::int64_t item = -1);
  void ReadRange(std::int64_t first, std::int64_t last, std::vector<float>& buffer,
                 const std::function<bool(std::int64_t item, const float* spectrum)>& action) const;
  void EigenStep(TMCC* mcc, int threadCount);

  // Input of the running calculation.
  const TDGraph* FGraph = nullptr;
  IProgressAndCancel* FProgress = nullptr;
  int FNormMode = 0;
  int FSizeY = 0;
  std::vector<std::int64_t> FPixels; // storage index x * SizeY + y of each used pixel, ascending

  // Result.
  int FM = 0;
  int FP = 0;
  std::vector<bool> FCalculationMask;
  std::vector<int> FSelected;
  std::vector<double> FAverage;
  std::vector<double> FEigenValues;
  std::vector<double> FEigenVectors; // M x M, column j for eigenvalue j
  std::vector<double> FNorm;         // per listed pixel
  bool FDone = false;
  std::string FError;

  // Shared by the threads of one run.
  std::vector<std::vector<double>> FThreadSums;
  std::atomic<bool> FStop{false};
  std::atomic<bool> FCancelled{false};
  std::atomic<bool> FFailed{false};
  std::mutex FErrorLock;
  std::int64_t FFailItem = -1;
  std::unique_ptr<TSymmetricRankUpdate> FUpdate;
  std::vector<double> FCovariance;
};

/// Which results an extraction writes.
struct TPCAExtractOptions {
  bool PCAResult = true;
  bool PCGraphs = false;
  bool TransformedSpectra = false;
  bool ReconstructedSpectra = false;
  /// The components of the PC mask, ascending, each in 0 .. M-1.
  std::vector<int> PCs;
};

/// IDs of what an extraction added (0 for what it did not make).
struct TPCAExtractResult {
  TPCAStatus Status = TPCAStatus::Ok;
  std::string Error;
  int32_t EigenValuesID = 0;
  int32_t EigenVectorsID = 0;
  int32_t AverageID = 0;
  std::vector<int32_t> PCGraphIDs;
  int32_t TransformedID = 0;
  int32_t ReconstructedID = 0;
  int32_t PCTransformationID = 0;
};

/// Bytes an extraction needs, as the memory check asks for them: 4 M P for the PCA result, 4 X Y K + X Y
/// for transformed spectra, the source at float size + X Y for reconstructed spectra (K = PC count > 0).
std::int64_t PCAExtractBytes(const TDGraph& source, const TPCACore& core, const TPCAExtractOptions& options);

/// Makes the result graphs of a finished calculation of the graph sourceID and adds them to the project:
/// " (PCA)(EigenValues)", " (PCA)(EigenVectors)", " (PCA)(Average)", " (PCA)(EigenVector k)",
/// " (PCA)(Transformed)" and " (PCA)(Reconstructed)", with the "PC" linear transformation and the "PC" and
/// "Var" interpretations. The heavy parts run on threadCount threads; a cancel (through progress) or a
/// failure adds nothing to the project.
TPCAExtractResult ExtractPCAResults(IDataProject& project, int32_t sourceID, const TPCACore& core,
                                    const TPCAExtractOptions& options, IProgressAndCancel* progress,
                                    int threadCount);
