// Savitzky-Golay smoothing and derivative coefficients.
#pragma once

/// Savitzky-Golay coefficients for a window of nl points left and nr right, polynomial order m, derivative
/// order ld (0: smoothing; the coefficients give the polynomial's ld-th coefficient, so a derivative is
/// ld! times the filtered value). np = nl + nr + 1 at least. c receives them in wrap-around order: c[0] for
/// offset 0, c[k] for offset -k (k = 1..nl), c[np-k] for offset +k (k = 1..nr). Returns false for
/// inconsistent arguments or a singular design. Allocates its work arrays and frees them.
bool savgol(double* c, int np, int nl, int nr, int ld, int m);
/// The same coefficients in window order: kernel[k + nl] for offset k from -nl to nr, such that
/// filtered[i] = sum over k of kernel[k + nl] * data[i + k].
bool SavgolKernel(double* kernel, int nl, int nr, int ld, int m);
