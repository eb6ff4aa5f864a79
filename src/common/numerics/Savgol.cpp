// Savitzky-Golay coefficients by least squares over the window (normal equations with LU decomposition).
#include "common/numerics/Savgol.h"

#include "common/numerics/Linalg.h"

#include <cmath>
#include <vector>

bool SavgolKernel(double* kernel, int nl, int nr, int ld, int m) {
  if (nl < 0 || nr < 0 || ld < 0 || m < 0 || ld > m || nl + nr < m) return false;
  const int mm = m + 1;
  // Normal matrix of the design: sum over k of k^(i+j).
  std::vector<double> a(mm * mm, 0.0), b(mm, 0.0);
  std::vector<int> index(mm);
  for (int ipj = 0; ipj <= 2 * m; ++ipj) {
    double sum = (ipj == 0) ? 1.0 : 0.0;
    for (int k = 1; k <= nr; ++k) sum += std::pow(double(k), ipj);
    for (int k = 1; k <= nl; ++k) sum += std::pow(double(-k), ipj);
    const int mid = std::min(ipj, 2 * m - ipj);
    for (int imj = -mid; imj <= mid; imj += 2) a[((ipj + imj) / 2) * mm + (ipj - imj) / 2] = sum;
  }
  double d;
  if (!ludcmp(a.data(), mm, index.data(), &d) || !CheckLinearDependency(a.data(), mm)) return false;
  b[ld] = 1.0;
  lubksb(a.data(), mm, index.data(), b.data());
  for (int k = -nl; k <= nr; ++k) {
    double sum = b[0], fac = 1.0;
    for (int j = 1; j <= m; ++j) sum += b[j] * (fac *= k);
    kernel[k + nl] = sum;
  }
  return true;
}

bool savgol(double* c, int np, int nl, int nr, int ld, int m) {
  if (np < nl + nr + 1) return false;
  std::vector<double> kernel(nl + nr + 1);
  if (!SavgolKernel(kernel.data(), nl, nr, ld, m)) return false;
  for (int i = 0; i < np; ++i) c[i] = 0.0;
  for (int k = -nl; k <= nr; ++k) c[(np - k) % np] = kernel[k + nl];
  return true;
}
