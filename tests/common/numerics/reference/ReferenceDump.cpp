// Runs the Fourier and wavelet kernels on data read from stdin and writes the results to stdout, raw and
// little-endian, for the script that checks them against numpy and PyWavelets.
//   fft N            N complex doubles in; forward, then inverse, N complex doubles each out
//   rfft N           N doubles and N/2+1 complex doubles in; forward (N/2+1 complex), inverse (N doubles) out
//   fft2 ROWS COLS   ROWS*COLS complex doubles (row-major) in; the forward 2-D transform out
//   table KIND       the scaling filter as doubles
//   wavedec KIND POLICY INVERT LEVELS N   N floats in; int32 count, then the approximation and the details
//                    from coarsest to finest, each as int32 size and floats
//   noise KIND FACTOR N   N floats in; the noise-filtered floats out
#include "common/numerics/Fft.h"
#include "common/numerics/Wavelets.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

template <typename T>
std::vector<T> Read(std::size_t count) {
  std::vector<T> v(count);
  if (count > 0 && std::fread(v.data(), sizeof(T), count, stdin) != count) {
    std::fprintf(stderr, "short input\n");
    std::exit(2);
  }
  return v;
}

template <typename T>
void Write(const T* data, std::size_t count) {
  if (count > 0) std::fwrite(data, sizeof(T), count, stdout);
}

void WriteInt(int v) {
  const std::int32_t i = v;
  Write(&i, 1);
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s fft|rfft|fft2|table|wavedec|noise ARGS...\n", argv[0]);
    return 2;
  }
  const char* command = argv[1];
  auto arg = [&](int i) { return i < argc ? std::atoi(argv[i]) : 0; };
  if (std::strcmp(command, "fft") == 0) {
    const int n = arg(2);
    std::vector<TComplex> x = Read<TComplex>(n), y = x;
    TFFT fft(n);
    fft.Forward(x.data());
    fft.Inverse(y.data());
    Write(x.data(), x.size());
    Write(y.data(), y.size());
  } else if (std::strcmp(command, "rfft") == 0) {
    const int n = arg(2);
    TRealFFT rfft(n);
    std::vector<double> x = Read<double>(n), back(n);
    std::vector<TComplex> half = Read<TComplex>(rfft.SpectrumLength()), out(rfft.SpectrumLength());
    rfft.Forward(x.data(), out.data());
    rfft.Inverse(half.data(), back.data());
    Write(out.data(), out.size());
    Write(back.data(), back.size());
  } else if (std::strcmp(command, "fft2") == 0) {
    const int rows = arg(2), cols = arg(3);
    std::vector<TComplex> x = Read<TComplex>(static_cast<std::size_t>(rows) * cols);
    TFFT2D(rows, cols).Forward(x.data());
    Write(x.data(), x.size());
  } else if (std::strcmp(command, "table") == 0) {
    const std::vector<double> h =
        TWaveletTransformation::CalculateWaveletFilter(static_cast<TWaveletKind>(arg(2)));
    Write(h.data(), h.size());
  } else if (std::strcmp(command, "wavedec") == 0) {
    const int n = arg(6);
    TWaveletTransformation wt;
    wt.SetWaveletKind(static_cast<TWaveletKind>(arg(2)));
    wt.SetWaveletBoundaryPolicy(static_cast<TWaveletBoundaryPolicy>(arg(3)));
    wt.SetInvertWaveletFilter(arg(4) != 0);
    wt.SetNumberOfIterations(arg(5));
    wt.SetNumberOfDataValues(n);
    wt.CalculateArrays();
    auto info = wt.CreateBufferInfo();
    const std::vector<float> x = Read<float>(n);
    wt.CalculateWT(x.data(), info.get());
    const int count = info->NumberOfIterations();
    WriteInt(count);
    WriteInt(info->Approximation().Size());
    Write(info->Approximation().Values(), info->Approximation().Size());
    for (int it = count - 1; it >= 0; --it) {
      WriteInt(info->Details(it).Size());
      Write(info->Details(it).Values(), info->Details(it).Size());
    }
  } else if (std::strcmp(command, "noise") == 0) {
    const int n = arg(4);
    TWaveletNoiseFilter filter(n, static_cast<TWaveletKind>(arg(2)), std::atof(argv[3]));
    std::vector<float> x = Read<float>(n), y(n);
    filter.DoFilter(x.data(), y.data());
    Write(y.data(), y.size());
  } else {
    std::fprintf(stderr, "unknown command %s\n", command);
    return 2;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
