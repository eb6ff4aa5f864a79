// Principal component analysis of a spectra stack without any window.
//
// The stack is read in its storage order (x-major: the spectra of one column x follow each other), a run
// of neighbouring spectra at a time, three passes at most: average, norm (only with a norm mode) and
// covariance. The covariance is summed block by block (at most MaxBlockLength spectra) by the blocked
// rank-k update, whose tiles the threads share; the eigen-solve runs on thread 0 with the other processors
// helping through a parallel-for.
#include "tools/multivariate/Pcacore.h"

#include "common/OrvexException.h"
#include "common/Saveandload.h"
#include "common/numerics/Eigensystem.h"
#include "common/numerics/Rankupdate.h"
#include "common/numerics/Vectorunits.h"
#include "common/threads/Multicorecalc.h"
#include "common/threads/Progressandcancel.h"
#include "data/Datafield.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>

#include <time.h>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define OX_PCA_X86 1
#endif

namespace {

using TClock = std::chrono::steady_clock;

double ProcessSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// A point in time by the wall clock and by the processor time of the process.
struct TStamp {
  TClock::time_point Wall = TClock::now();
  double Processor = ProcessSeconds();
};

TPCACore::TStageTime Since(const TStamp& start, const TStamp& end = TStamp()) {
  return {std::chrono::duration<double>(end.Wall - start.Wall).count(), end.Processor - start.Processor};
}

// Spectra read in one go by a reading thread.
constexpr int kRunSpectra = 32;

// Reads count spectra from storage index e on (e = x * SizeY + y); they are contiguous in the field.
void ReadSpectra(const TDGraph& graph, std::int64_t e, int count, float* values) {
  // Reading only; the data field is reached through the non-const accessor of the data object.
  TDataField* field = const_cast<TDGraph&>(graph).GetDataField();
  const int sizeY = graph.GetSizeY(), p = graph.GetSizeGraph();
  const int32_t index[2] = {static_cast<int32_t>(e / sizeY), static_cast<int32_t>(e % sizeY) * p};
  field->GetValueArray(index, values, static_cast<std::int64_t>(count) * p);
}

std::string PixelText(std::int64_t e, int sizeY) {
  return "(" + std::to_string(e / sizeY) + ", " + std::to_string(e % sizeY) + ")";
}

} // namespace

bool IsPCAInputIDListOkay(const IDataProject& project, const TIntList& ids) {
  if (ids.size() != 1 || project.GetClassNameByID(ids[0]) != TDGraph::kClassName) return false;
  const auto* graph = dynamic_cast<const TDGraph*>(project.FindData(ids[0]));
  return graph && graph->GetSizeX() > 1;
}

std::vector<bool> RandomizeDrawField(int sizeX, int sizeY, int count, std::uint32_t seed) {
  const std::int64_t pixels = static_cast<std::int64_t>(std::max(0, sizeX)) * std::max(0, sizeY);
  if (count < 0 || count > pixels)
    throw OrvexException("RandomizeDrawField: " + std::to_string(count) + " pixels asked of a scan of " +
                         std::to_string(pixels));
  std::vector<bool> field(static_cast<std::size_t>(pixels), false);
  std::mt19937 random(seed);
  for (int i = 0; i < count; ++i) {
    for (;;) {
      const int x = static_cast<int>(random() % static_cast<std::uint32_t>(sizeX));
      const int y = static_cast<int>(random() % static_cast<std::uint32_t>(sizeY));
      const std::size_t index = static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sizeX;
      if (field[index]) continue;
      field[index] = true;
      break;
    }
  }
  return field;
}

std::int64_t PCAStartMemoryBytes(int /*sizeX*/, int sizeY, int pointCount) {
  return static_cast<std::int64_t>(sizeY) * sizeY * 8 +
         (static_cast<std::int64_t>(pointCount) + 10) * pointCount * 8;
}

TPCACore::TPCACore() = default;
TPCACore::~TPCACore() = default;

TPCAStatus TPCACore::Calculate(const TDGraph& graph, const TPCASettings& settings,
                               IProgressAndCancel* progress, int threadCount) {
  const TPCAStatus status = Prepare(graph, settings, progress);
  if (status != TPCAStatus::Ok) return status;
  TMCC mcc(graph.GetCaption() + " (Calculate)", nullptr, threadCount < 1 ? -1 : threadCount);
  mcc.MCCInit([this](TMCC* m, int t) { CalculateThread(m, t); }, nullptr, 4);
  mcc.StartThreadsWait(threadCount < 1 ? 0 : threadCount);
  return Finish();
}

void TPCACore::Fail(const std::string& message, std::int64_t item) {
  // Of several threads that fail, the one at the earliest pixel of the list speaks.
  std::lock_guard lock(FErrorLock);
  if (!FFailed.load() || item < FFailItem) {
    FError = message;
    FFailItem = item;
  }
  FFailed = true;
}

bool TPCACore::CancelRequested(const TMCC* mcc) const {
  return (mcc && mcc->GetCancel()) || IsCancelled(FProgress);
}

TPCAStatus TPCACore::Prepare(const TDGraph& graph, const TPCASettings& settings,
                             IProgressAndCancel* progress) {
  FError.clear();
  const int sizeX = graph.GetSizeX(), sizeY = graph.GetSizeY(), p = graph.GetSizeGraph();
  const std::string name = graph.GetCaption();
  if (sizeX < 1 || sizeY < 1 || p < 1 || !const_cast<TDGraph&>(graph).GetDataField()) {
    FError = name + ": the graph holds no spectra";
    return TPCAStatus::Failed;
  }
  std::vector<bool> mask = settings.SpectrumMask.empty() ? std::vector<bool>(p, true) : settings.SpectrumMask;
  if (static_cast<int>(mask.size()) != p) {
    FError = "Spectrum Mask: " + std::to_string(mask.size()) + " flags for spectra of " + std::to_string(p) +
             " points";
    return TPCAStatus::Failed;
  }
  std::vector<int> selected;
  for (int g = 0; g < p; ++g)
    if (mask[g]) selected.push_back(g);
  if (selected.size() < 2) {
    FError = "Spectrum Mask: " + std::to_string(selected.size()) + " point(s) selected; at least 2 of 0.." +
             std::to_string(p - 1) + " are needed";
    return TPCAStatus::Failed;
  }
  bool drawField = false;
  if (settings.UseDrawField) {
    if (static_cast<std::int64_t>(settings.DrawField.size()) != static_cast<std::int64_t>(sizeX) * sizeY) {
      FError = "Draw Field: " + std::to_string(settings.DrawField.size()) + " flags for a scan of " +
               std::to_string(sizeX) + " x " + std::to_string(sizeY) + " pixels";
      return TPCAStatus::Failed;
    }
    // A draw field of fewer than 4 pixels is taken as none.
    drawField = std::count(settings.DrawField.begin(), settings.DrawField.end(), true) >= 4;
  }
  std::vector<std::int64_t> pixels;
  for (int x = 0; x < sizeX; ++x)
    for (int y = 0; y < sizeY; ++y) {
      if (!graph.GetLineValid(y)) continue;
      if (drawField && !settings.DrawField[static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sizeX])
        continue;
      pixels.push_back(static_cast<std::int64_t>(x) * sizeY + y);
    }
  if (pixels.empty()) return TPCAStatus::NoPixels;
  if (pixels.size() > static_cast<std::size_t>(INT32_MAX)) {
    FError = name + ": too many pixels for one calculation";
    return TPCAStatus::Failed;
  }

  FGraph = &graph;
  FProgress = progress;
  FNormMode = std::clamp(settings.NormMode, 0, 2);
  FSizeY = sizeY;
  FPixels = std::move(pixels);
  FM = static_cast<int>(selected.size());
  FP = p;
  FCalculationMask = std::move(mask);
  FSelected = std::move(selected);
  FAverage.assign(FM, 0.0);
  FEigenValues.assign(FM, 0.0);
  FEigenVectors.clear();
  FNorm.assign(FPixels.size(), 1.0);
  FCovariance.clear();
  FThreadSums.clear();
  FDone = false;
  FStop = false;
  FCancelled = false;
  FFailed = false;
  AverageTime = NormTime = CovarianceTime = ReductionTime = QLTime = TStageTime();
  return TPCAStatus::Ok;
}

void TPCACore::ReadRange(std::int64_t first, std::int64_t last, std::vector<float>& buffer,
                         const std::function<bool(std::int64_t, const float*)>& action) const {
  buffer.resize(static_cast<std::size_t>(kRunSpectra) * FP);
  std::int64_t item = first;
  while (item <= last) {
    // A run: list entries whose storage indices follow each other.
    int run = 1;
    while (run < kRunSpectra && item + run <= last && FPixels[item + run] == FPixels[item] + run) ++run;
    ReadSpectra(*FGraph, FPixels[item], run, buffer.data());
    for (int r = 0; r < run; ++r)
      if (!action(item + r, buffer.data() + static_cast<std::size_t>(r) * FP)) return;
    item += run;
  }
}

void TPCACore::CalculateThread(TMCC* mcc, int t) {
  const int threads = mcc ? mcc->GetNumberOfThreads() : 1;
  auto barrier = [mcc, t]() {
    if (mcc) mcc->WaitForNextStep(t);
  };
  const std::int64_t n = PixelCount();
  const int m = FM;
  std::vector<float> buffer;
  std::vector<double> centred(m);
  const auto share = [threads, t](std::int64_t count, std::int64_t& first, std::int64_t& last) {
    first = count * t / threads;
    last = count * (t + 1) / threads - 1;
  };
  std::int64_t first, last;
  TStamp stepStart;

  // Step 1: average, and the check for values that would spoil every sum.
  if (t == 0) {
    FThreadSums.assign(threads, std::vector<double>(m, 0.0));
    if (FProgress) {
      FProgress->SetProgressCaption("Calculating Average Spectrum");
      FProgress->SetProgress(0, 4);
    }
  }
  barrier();
  {
    std::vector<double>& sum = FThreadSums[t];
    share(n, first, last);
    std::int64_t done = 0;
    ReadRange(first, last, buffer, [&](std::int64_t item, const float* x) {
      for (int i = 0; i < m; ++i) {
        const float v = x[FSelected[i]];
        if (!std::isfinite(v)) {
          Fail(FGraph->GetCaption() + ": non-finite value at pixel " + PixelText(FPixels[item], FSizeY) +
                   ", point " + std::to_string(FSelected[i]),
               item);
          return false;
        }
        sum[i] += v;
      }
      if (t == 0 && ++done % 256 == 0 && CancelRequested(mcc)) FStop = true;
      return !FStop.load(std::memory_order_relaxed);
    });
  }
  barrier();
  if (t == 0) {
    if (FFailed || CancelRequested(mcc)) FStop = true;
    if (!FStop) {
      for (int k = 0; k < threads; ++k)
        for (int i = 0; i < m; ++i) FAverage[i] += FThreadSums[k][i];
      for (double& a : FAverage) a /= static_cast<double>(n);
    }
    AverageTime = Since(stepStart);
    stepStart = TStamp();
  }
  barrier();
  if (FStop) return;

  // Step 2: one norm per pixel, only in the norm modes.
  if (FNormMode != 0) {
    if (t == 0 && FProgress) {
      FProgress->SetProgressCaption("Calculating Norm");
      FProgress->SetProgress(1, 4);
    }
    share(n, first, last);
    ReadRange(first, last, buffer, [&](std::int64_t item, const float* x) {
      double s = 0.0;
      for (int i = 0; i < m; ++i) {
        const double c = x[FSelected[i]] - FAverage[i];
        s += FNormMode == 1 ? std::fabs(c) : c * c;
      }
      FNorm[item] = FNormMode == 1 ? s / m : std::sqrt(s / m);
      return !FStop.load(std::memory_order_relaxed);
    });
    barrier();
    if (t == 0) {
      if (CancelRequested(mcc)) FStop = true;
      NormTime = Since(stepStart);
      stepStart = TStamp();
    }
    barrier();
    if (FStop) return;
  }

  // Step 3: the covariance, block by block; the threads share the loading and the tiles of each block.
  const int blockLength =
      static_cast<int>(std::max<std::int64_t>(1, std::min<std::int64_t>(n, MaxBlockLength)));
  const std::int64_t blocks = (n + blockLength - 1) / blockLength;
  if (t == 0) {
    if (FProgress) {
      FProgress->SetProgressCaption("Filling Covariance Matrix");
      FProgress->SetProgress(2, 4);
      FProgress->SubLevel().SetProgress(0, blocks);
    }
    FUpdate = std::make_unique<TSymmetricRankUpdate>(m, blockLength);
    FCovariance.assign(static_cast<std::size_t>(m) * m, 0.0);
  }
  barrier();
  int tileFirst, tileLast;
  FUpdate->ThreadTileRange(t, threads, tileFirst, tileLast);
  for (std::int64_t b = 0; b < blocks; ++b) {
    const std::int64_t b0 = b * blockLength;
    const int length = static_cast<int>(std::min<std::int64_t>(blockLength, n - b0));
    if (t == 0) FUpdate->SetBlockLength(length);
    barrier();
    share(length, first, last);
    ReadRange(b0 + first, b0 + last, buffer, [&](std::int64_t item, const float* x) {
      const double norm = FNorm[item];
      const bool zero = FNormMode != 0 && !(std::fabs(norm) > 1e-30);
      const double scale = FNormMode != 0 && !zero ? 1.0 / norm : 1.0;
      for (int i = 0; i < m; ++i) centred[i] = zero ? 0.0 : (x[FSelected[i]] - FAverage[i]) * scale;
      FUpdate->LoadSpectrum(static_cast<int>(item - b0), centred.data());
      return true;
    });
    barrier();
    for (int tile = tileFirst; tile <= tileLast; ++tile) FUpdate->UpdateTile(tile, FCovariance.data(), m);
    if (t == 0) {
      if (FProgress) FProgress->SubLevel().SetProgress(b + 1, blocks);
      if (CancelRequested(mcc)) FStop = true;
    }
    barrier();
    if (FStop) return;
  }
  if (t != 0) return;
  FUpdate.reset();
  const double scale = 1.0 / static_cast<double>(n); // the biased covariance, divisor N
  for (int r = 0; r < m; ++r)
    for (int c = 0; c <= r; ++c) FCovariance[static_cast<std::size_t>(r) * m + c] *= scale;
  TSymmetricRankUpdate::MirrorLowerToUpper(FCovariance.data(), m, m);
  CovarianceTime = Since(stepStart);

  // Step 4: the eigen-solve on this thread, the others' processors helping through the parallel-for.
  if (FProgress) {
    FProgress->SetProgressCaption("Matrix Calculation");
    FProgress->SetProgress(3, 4);
  }
  EigenStep(mcc, threads);
  if (FProgress && !FStop) FProgress->SetProgress(4, 4);
}

void TPCACore::EigenStep(TMCC* mcc, int threadCount) {
  const int m = FM;
  const TStamp start;
  TStamp reductionEnd = start;
  bool inQL = false;
  std::vector<double> d(m);
  TEigenHooks hooks;
  hooks.ParallelFor = MakeThreadParallelFor(threadCount);
  hooks.Cancel = [this, mcc]() { return CancelRequested(mcc); };
  IProgressAndCancel* sub = FProgress ? &FProgress->SubLevel() : nullptr;
  if (sub) sub->SetProgressCaption("Reducing Matrix to tridiagonal form");
  hooks.Progress = [&](long long done, long long) {
    const long long reduction = 3LL * m;
    if (!inQL && done >= reduction) {
      inQL = true;
      reductionEnd = TStamp();
      if (sub) sub->SetProgressCaption("Determining Eigenvalues and Eigenvectors");
    }
    if (!sub) return;
    if (inQL)
      sub->SetProgress(done - reduction, m);
    else
      sub->SetProgress(done, reduction);
  };
  const TEigenStatus status = SymmetricEigensystem(FCovariance.data(), m, m, d.data(), hooks);
  if (!inQL) reductionEnd = TStamp();
  ReductionTime = Since(start, reductionEnd);
  QLTime = Since(reductionEnd);
  if (status == TEigenStatus::Cancelled) {
    FStop = true;
    return;
  }
  if (status != TEigenStatus::Ok) {
    Fail(FGraph->GetCaption() + ": the eigenvalues did not converge");
    FStop = true;
    return;
  }
  FEigenValues = std::move(d);
  FEigenVectors = std::move(FCovariance);
  FCovariance.clear();
}

TPCAStatus TPCACore::Finish() {
  FThreadSums.clear();
  FUpdate.reset();
  FCovariance.clear();
  if (FFailed) {
    FDone = false;
    return TPCAStatus::Failed;
  }
  if (FStop || FEigenVectors.size() != static_cast<std::size_t>(FM) * FM) {
    FDone = false;
    FCancelled = true;
    return TPCAStatus::Cancelled;
  }
  // Each eigenvector is turned so that its element of largest magnitude (the first of equals) is positive.
  const int m = FM;
  for (int j = 0; j < m; ++j) {
    int best = 0;
    double largest = -1.0;
    for (int i = 0; i < m; ++i) {
      const double v = std::fabs(FEigenVectors[static_cast<std::size_t>(i) * m + j]);
      if (v > largest) {
        largest = v;
        best = i;
      }
    }
    if (FEigenVectors[static_cast<std::size_t>(best) * m + j] < 0.0)
      for (int i = 0; i < m; ++i) FEigenVectors[static_cast<std::size_t>(i) * m + j] *= -1.0;
  }
  FDone = true;
  return TPCAStatus::Ok;
}

void TPCACore::Scores(const float* spectrum, const std::vector<int>& pcs, double* scores) const {
  const int m = FM;
  for (std::size_t n = 0; n < pcs.size(); ++n) {
    const int column = m - 1 - pcs[n];
    double s = 0.0;
    for (int i = 0; i < m; ++i)
      s += (spectrum[FSelected[i]] - FAverage[i]) * FEigenVectors[static_cast<std::size_t>(i) * m + column];
    scores[n] = s;
  }
}

void TPCACore::Reconstruct(const float* spectrum, const std::vector<int>& pcs, float* out) const {
  const int m = FM;
  std::vector<double> s(pcs.size());
  Scores(spectrum, pcs, s.data());
  std::vector<double> y(FAverage);
  for (std::size_t n = 0; n < pcs.size(); ++n) {
    const int column = m - 1 - pcs[n];
    for (int i = 0; i < m; ++i) y[i] += s[n] * FEigenVectors[static_cast<std::size_t>(i) * m + column];
  }
  double held = y[0];
  int j = 0;
  for (int g = 0; g < FP; ++g) {
    if (FCalculationMask[g]) held = y[j++];
    out[g] = SafeDoubleToFloat(held);
  }
}

// ---- Extraction ------------------------------------------------------------------------------------------

namespace {

// The components of the PC list as rows of contiguous vectors, and the average: scores and reconstructions
// of many pixels without reaching across the eigenvector matrix's columns.
// out[r] = c . v_r for the k rows v_r of m values (row stride m). Four partial sums per row keep the adds
// apart.
void DotRowsPlain(const double* c, const double* v, int m, int k, double* out) {
  for (int r = 0; r < k; ++r) {
    const double* row = v + static_cast<std::size_t>(r) * m;
    double s0 = 0, s1 = 0, s2 = 0, s3 = 0;
    int i = 0;
    for (; i + 4 <= m; i += 4) {
      s0 += c[i] * row[i];
      s1 += c[i + 1] * row[i + 1];
      s2 += c[i + 2] * row[i + 2];
      s3 += c[i + 3] * row[i + 3];
    }
    for (; i < m; ++i) s0 += c[i] * row[i];
    out[r] = (s0 + s1) + (s2 + s3);
  }
}

#ifdef OX_PCA_X86
__attribute__((target("avx2,fma"))) inline double Sum4(__m256d v) {
  const __m128d s = _mm_add_pd(_mm256_castpd256_pd128(v), _mm256_extractf128_pd(v, 1));
  return _mm_cvtsd_f64(_mm_add_sd(s, _mm_unpackhi_pd(s, s)));
}

// The same on 256-bit vectors, four rows at a time, so that every load of c serves four multiply-adds.
__attribute__((target("avx2,fma"))) void DotRowsVector(const double* c, const double* v, int m, int k,
                                                       double* out) {
  int r = 0;
  for (; r + 4 <= k; r += 4) {
    const double* v0 = v + static_cast<std::size_t>(r) * m;
    const double* v1 = v0 + m;
    const double* v2 = v1 + m;
    const double* v3 = v2 + m;
    __m256d a0 = _mm256_setzero_pd(), a1 = _mm256_setzero_pd(), a2 = _mm256_setzero_pd(),
            a3 = _mm256_setzero_pd();
    int i = 0;
    for (; i + 4 <= m; i += 4) {
      const __m256d x = _mm256_loadu_pd(c + i);
      a0 = _mm256_fmadd_pd(x, _mm256_loadu_pd(v0 + i), a0);
      a1 = _mm256_fmadd_pd(x, _mm256_loadu_pd(v1 + i), a1);
      a2 = _mm256_fmadd_pd(x, _mm256_loadu_pd(v2 + i), a2);
      a3 = _mm256_fmadd_pd(x, _mm256_loadu_pd(v3 + i), a3);
    }
    double s0 = Sum4(a0), s1 = Sum4(a1), s2 = Sum4(a2), s3 = Sum4(a3);
    for (; i < m; ++i) {
      s0 += c[i] * v0[i];
      s1 += c[i] * v1[i];
      s2 += c[i] * v2[i];
      s3 += c[i] * v3[i];
    }
    out[r] = s0;
    out[r + 1] = s1;
    out[r + 2] = s2;
    out[r + 3] = s3;
  }
  if (r < k) DotRowsPlain(c, v + static_cast<std::size_t>(r) * m, m, k - r, out + r);
}
#endif

// The components of the PC list as rows of contiguous vectors, and the average: scores and reconstructions
// of many pixels without reaching across the eigenvector matrix's columns.
class TPCProjection {
public:
  TPCProjection(const TPCACore& core, const std::vector<int>& pcs)
      : M(core.ComponentCount()), K(static_cast<int>(pcs.size())), Selected(core.SelectedIndex()),
        Mask(core.CalculationMask()), Average(core.Average()), Vector(UseVectorPath(TKernelPath::Auto)) {
    Vectors.resize(static_cast<std::size_t>(K) * M);
    for (int k = 0; k < K; ++k)
      for (int i = 0; i < M; ++i)
        Vectors[static_cast<std::size_t>(k) * M + i] = core.EigenVectorOfPC(i, pcs[k]);
  }

  /// Scratch values Scores and Reconstruct need.
  int ScratchSize() const { return 2 * M + K; }

  // scores[k] = sum over i of (x[sel(i)] - a_i) v_k[i]. Uses scratch[0..M-1].
  void Scores(const float* x, double* scratch, double* scores) const {
    for (int i = 0; i < M; ++i) scratch[i] = x[Selected[i]] - Average[i];
#ifdef OX_PCA_X86
    if (Vector) {
      DotRowsVector(scratch, Vectors.data(), M, K, scores);
      return;
    }
#endif
    DotRowsPlain(scratch, Vectors.data(), M, K, scores);
  }

  // out gets P values: the reconstruction at the selected points, held across the others. y needs M values.
  void Reconstruct(const double* scores, double* y, float* out, int p) const {
    std::copy(Average.begin(), Average.end(), y);
    for (int k = 0; k < K; ++k) {
      const double* v = Vectors.data() + static_cast<std::size_t>(k) * M;
      const double s = scores[k];
      for (int i = 0; i < M; ++i) y[i] += s * v[i];
    }
    double held = y[0];
    int j = 0;
    for (int g = 0; g < p; ++g) {
      if (Mask[g]) held = y[j++];
      out[g] = SafeDoubleToFloat(held);
    }
  }

  const int M;
  const int K;

private:
  const std::vector<int>& Selected;
  const std::vector<bool>& Mask;
  const std::vector<double>& Average;
  const bool Vector;
  std::vector<double> Vectors; // K rows of M
};

// Fills a graph of the source's scan pixel by pixel on threadCount threads: write(x, y, spectrum, out) gives
// the values of one pixel. Pixels of invalid source lines are skipped; a line of the result is valid when
// every pixel of it was written. False after a cancel.
bool FillPerPixel(const TDGraph& source, TDGraph& result, const std::string& caption, const std::string& text,
                  IProgressAndCancel* progress, int threadCount,
                  const std::function<void(const float* spectrum, float* out, double* scratch)>& pixel,
                  int scratchSize) {
  const int sizeX = source.GetSizeX(), sizeY = source.GetSizeY(), p = source.GetSizeGraph();
  const int outPoints = result.GetSizeGraph();
  const std::int64_t elements = static_cast<std::int64_t>(sizeX) * sizeY;
  std::vector<std::uint8_t> doneMap(static_cast<std::size_t>(elements), 0);
  std::atomic<bool> stop{false};
  if (progress) {
    progress->SetProgressCaption(text);
    progress->SetProgress(0, elements);
  }
  TMCC mcc(source.GetCaption() + caption, nullptr, threadCount < 1 ? -1 : threadCount);
  mcc.MCCInit(
      [&](TMCC* m, int t) {
        const int threads = m->GetNumberOfThreads();
        const std::int64_t first = elements * t / threads, last = elements * (t + 1) / threads - 1;
        std::vector<float> in(static_cast<std::size_t>(kRunSpectra) * p);
        std::vector<float> out(static_cast<std::size_t>(outPoints));
        std::vector<double> scratch(static_cast<std::size_t>(scratchSize));
        for (std::int64_t e = first; e <= last && !stop.load(std::memory_order_relaxed);) {
          const int run = static_cast<int>(std::min<std::int64_t>(kRunSpectra, last - e + 1));
          ReadSpectra(source, e, run, in.data());
          for (int r = 0; r < run; ++r) {
            const int x = static_cast<int>((e + r) / sizeY), y = static_cast<int>((e + r) % sizeY);
            if (!source.GetLineValid(y)) continue;
            pixel(in.data() + static_cast<std::size_t>(r) * p, out.data(), scratch.data());
            result.SetSpectrum(x, y, out.data());
            doneMap[static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sizeX] = 1;
          }
          e += run;
          if (progress) progress->AddProgress(run);
          if (m->GetCancel() || (t == 0 && IsCancelled(progress))) stop = true;
        }
      },
      nullptr, 0);
  mcc.StartThreadsWait(threadCount < 1 ? 0 : threadCount);
  if (stop) return false;
  for (int y = 0; y < sizeY; ++y) {
    bool valid = source.GetLineValid(y);
    for (int x = 0; x < sizeX && valid; ++x)
      valid = doneMap[static_cast<std::size_t>(x) + static_cast<std::size_t>(y) * sizeX] != 0;
    result.SetLineValid(y, valid);
  }
  return true;
}

TResultInfo ResultInfo(const std::string& suffix) {
  TResultInfo info;
  info.CaptionSuffix = suffix;
  info.HistoryText = "Principal Component Analysis";
  return info;
}

// A result graph of the given scan and point count, made from the source as template without allocating the
// source's size first.
std::unique_ptr<TDGraph> MakeResultGraph(IDataProject& project, int32_t sourceID, const TDGraph& source,
                                         int sizeX, int sizeY, int points, const std::string& suffix) {
  auto graph = TDGraph::CreateResultGraph(project, sourceID, true, TDataFieldKind::Float, ResultInfo(suffix));
  if (!graph) return graph;
  graph->SetFieldSize(sizeX, sizeY, TDataFieldKind::Float, points);
  if (sizeX != 1 || sizeY != 1) graph->SetSpaceTransformationID(source.GetSpaceTransformationID());
  return graph;
}

// P values from M selected ones, zero at the points outside the calculation mask.
void ExpandZero(const TPCACore& core, const std::function<double(int i)>& value, std::vector<float>& out) {
  const std::vector<int>& selected = core.SelectedIndex();
  std::fill(out.begin(), out.end(), 0.0f);
  for (int i = 0; i < core.ComponentCount(); ++i) out[selected[i]] = SafeDoubleToFloat(value(i));
}

} // namespace

std::int64_t PCAExtractBytes(const TDGraph& source, const TPCACore& core, const TPCAExtractOptions& options) {
  const std::int64_t xy = static_cast<std::int64_t>(source.GetSizeX()) * source.GetSizeY();
  const std::int64_t k = static_cast<std::int64_t>(options.PCs.size());
  std::int64_t bytes = 0;
  if (options.PCAResult) bytes += 4LL * core.ComponentCount() * source.GetSizeGraph();
  if (options.TransformedSpectra && k > 0) bytes += 4 * xy * k + xy;
  if (options.ReconstructedSpectra && k > 0) bytes += 4 * xy * source.GetSizeGraph() + xy;
  return bytes;
}

TPCAExtractResult ExtractPCAResults(IDataProject& project, int32_t sourceID, const TPCACore& core,
                                    const TPCAExtractOptions& options, IProgressAndCancel* progress,
                                    int threadCount) {
  TPCAExtractResult result;
  const auto* source = dynamic_cast<const TDGraph*>(project.FindData(sourceID));
  if (!source) {
    result.Status = TPCAStatus::Failed;
    result.Error = "PCA: no graph with ID " + std::to_string(sourceID);
    return result;
  }
  const int m = core.ComponentCount(), p = source->GetSizeGraph();
  if (!core.IsDone() || core.PointCount() != p) {
    result.Status = TPCAStatus::Failed;
    result.Error = source->GetCaption() + ": no finished calculation for this graph";
    return result;
  }
  for (int k : options.PCs)
    if (k < 0 || k >= m) {
      result.Status = TPCAStatus::Failed;
      result.Error = "PC Mask: component " + std::to_string(k) + " not in 0.." + std::to_string(m - 1);
      return result;
    }
  const int sizeX = source->GetSizeX(), sizeY = source->GetSizeY();
  const int k = static_cast<int>(options.PCs.size());
  const TPCProjection projection(core, options.PCs);

  // The heavy results first; a cancel drops them before anything reaches the project.
  std::unique_ptr<TDGraph> transformed, reconstructed;
  if (options.TransformedSpectra && k > 0) {
    transformed = MakeResultGraph(project, sourceID, *source, sizeX, sizeY, k, " (PCA)(Transformed)");
    const bool finished = FillPerPixel(
        *source, *transformed, " (Extract Transformed Spectra)", "Calculating Transformed Spectra", progress,
        threadCount,
        [&](const float* x, float* out, double* scratch) {
          double* scores = scratch + m;
          projection.Scores(x, scratch, scores);
          for (int n = 0; n < k; ++n) out[n] = SafeDoubleToFloat(scores[n]);
        },
        projection.ScratchSize());
    if (!finished) {
      result.Status = TPCAStatus::Cancelled;
      return result;
    }
  }
  if (options.ReconstructedSpectra && k > 0) {
    reconstructed = MakeResultGraph(project, sourceID, *source, sizeX, sizeY, p, " (PCA)(Reconstructed)");
    const bool finished = FillPerPixel(
        *source, *reconstructed, " (Extract Reconstructed Spectra)", "Calculating Reconstructed Spectra",
        progress, threadCount,
        [&](const float* x, float* out, double* scratch) {
          double* scores = scratch + m;
          projection.Scores(x, scratch, scores);
          projection.Reconstruct(scores, scratch, out, p);
        },
        projection.ScratchSize());
    if (!finished) {
      result.Status = TPCAStatus::Cancelled;
      return result;
    }
  }

  // Axes of the results: the "PC" transformation, the "PC" and "Var" interpretations.
  int32_t pcTransformation = 0, pcInterpretation = 0, varInterpretation = 0;
  if (options.PCAResult || transformed) {
    auto transformation = std::make_unique<TDLinearTransformation>();
    transformation->SetParameters(0.0, 0.0, 1.0);
    transformation->SetStandardUnit("PC");
    transformation->SetCaption("PC");
    transformation->SetID(project.GetNewDataID());
    pcTransformation = transformation->GetID();
    project.AddData(std::move(transformation));
    pcInterpretation = GetOrMakeStandardZInterpretation(project, "PC", "PC");
    varInterpretation = GetOrMakeStandardZInterpretation(project, "Var", "Var");
    result.PCTransformationID = pcTransformation;
  }

  std::vector<float> values(static_cast<std::size_t>(std::max(m, p)));
  if (options.PCAResult) {
    auto eigenValues = MakeResultGraph(project, sourceID, *source, 1, 1, m, " (PCA)(EigenValues)");
    for (int n = 0; n < m; ++n) values[n] = SafeDoubleToFloat(core.EigenValueOfPC(n));
    eigenValues->SetSpectrum(0, 0, values.data());
    eigenValues->SetXTransformationID(pcTransformation);
    eigenValues->SetXInterpretationID(pcInterpretation);
    eigenValues->SetZInterpretationID(varInterpretation);
    eigenValues->SetSpaceTransformationID(0);
    eigenValues->SetAllLinesValid();
    result.EigenValuesID = eigenValues->GetID();

    auto eigenVectors = MakeResultGraph(project, sourceID, *source, m, 1, p, " (PCA)(EigenVectors)");
    std::vector<float> spectrum(static_cast<std::size_t>(p));
    for (int pc = 0; pc < m; ++pc) {
      ExpandZero(
          core, [&](int i) { return core.EigenVectorOfPC(i, pc); }, spectrum);
      eigenVectors->SetSpectrum(pc, 0, spectrum.data());
    }
    eigenVectors->SetSpaceTransformationID(pcTransformation);
    eigenVectors->SetAllLinesValid();
    result.EigenVectorsID = eigenVectors->GetID();

    auto average = MakeResultGraph(project, sourceID, *source, 1, 1, p, " (PCA)(Average)");
    ExpandZero(
        core, [&](int i) { return core.Average()[i]; }, spectrum);
    average->SetSpectrum(0, 0, spectrum.data());
    average->SetAllLinesValid();
    result.AverageID = average->GetID();

    AddResultToProject(project, std::move(eigenValues));
    AddResultToProject(project, std::move(eigenVectors));
    AddResultToProject(project, std::move(average));
  }
  if (options.PCGraphs) {
    std::vector<float> spectrum(static_cast<std::size_t>(p));
    for (int pc : options.PCs) {
      auto graph = MakeResultGraph(project, sourceID, *source, 1, 1, p,
                                   " (PCA)(EigenVector " + std::to_string(pc) + ")");
      ExpandZero(
          core, [&](int i) { return core.EigenVectorOfPC(i, pc); }, spectrum);
      graph->SetSpectrum(0, 0, spectrum.data());
      graph->SetAllLinesValid();
      result.PCGraphIDs.push_back(graph->GetID());
      AddResultToProject(project, std::move(graph));
    }
  }
  if (transformed) {
    transformed->SetXTransformationID(pcTransformation);
    transformed->SetXInterpretationID(pcInterpretation);
    result.TransformedID = transformed->GetID();
    AddResultToProject(project, std::move(transformed));
  }
  if (reconstructed) {
    result.ReconstructedID = reconstructed->GetID();
    AddResultToProject(project, std::move(reconstructed));
  }
  return result;
}
