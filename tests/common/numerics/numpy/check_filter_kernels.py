#!/usr/bin/python3
"""Checks the range reductions of the filters against an independent numpy computation.

Runs the dump program given as the only argument into a temporary folder. For every case (rising and
falling axis; background on both sides, on one side at either end of the field, on none; a single-pixel
range) and every spectrum it recomputes with numpy:
- the background: the mean value and mean x of up to `lower` and `upper` pixels beside the range (the low-x
  side first), the straight line through both means when both sides have pixels, else the mean of the sides;
- sum and average of the raw values less the mean background; extrema of the values less background and
  their x (first of equal values); centre of mass; the width at half the maximum from linear crossings over
  the whole field; average less minimum (in float); standard deviation; the regression line and the
  correlation (numpy.polyfit, numpy.corrcoef).
Within 1e-9 relative (1e-6 for the value that passes through float). Prints one line per check and
"N passed, N failed" at the end; exit code 1 on any failure.
"""
import subprocess
import sys
import tempfile

import numpy as np

results = []


def check(name, ok, detail):
    results.append(bool(ok))
    print(("PASS " if ok else "FAIL ") + name + ": " + detail)


def background(x, y, start, stop, lower, upper):
    n = len(x)
    falling = x[start] >= x[stop]
    left = np.arange(start - 1, start - 1 - (upper if falling else lower), -1)
    right = np.arange(stop + 1, stop + 1 + (lower if falling else upper))
    low_idx, up_idx = (right, left) if falling else (left, right)
    low_idx = low_idx[(low_idx >= 0) & (low_idx < n)]
    up_idx = up_idx[(up_idx >= 0) & (up_idx < n)]
    yd = y.astype(np.float64)
    sides = [(yd[i].mean(), x[i].mean()) for i in (low_idx, up_idx) if len(i) > 0]
    mean = np.mean([s[0] for s in sides]) if sides else 0.0
    if len(low_idx) > 0 and len(up_idx) > 0:
        (lv, lx), (uv, ux) = sides
        return yd - ((x - lx) * (uv - lv) / (ux - lx) + lv), mean
    return yd - mean, mean


def width(x, v, start, stop, fraction):
    p = start + int(np.argmax(v[start:stop + 1]))
    level = v[p] * fraction
    below_right = np.nonzero(v[p + 1:] < level)[0]
    if len(below_right) == 0:
        return 0.0
    r = p + below_right[0]
    below_left = np.nonzero(v[:p + 1] < level)[0]
    l = below_left[-1] if len(below_left) else 0
    xl = x[l] + (x[l + 1] - x[l]) * (level - v[l]) / (v[l + 1] - v[l])
    xr = x[r] + (x[r + 1] - x[r]) * (level - v[r]) / (v[r + 1] - v[r])
    return abs(xl - xr)


def reference(x, y, start, stop, lower, upper):
    v, mean = background(x, y, start, stop, lower, upper)
    r = slice(start, stop + 1)
    yr, vr, xr = y[r].astype(np.float64), v[r], x[r]
    n = stop - start + 1
    imin, imax = int(np.argmin(vr)), int(np.argmax(vr))
    s = vr.sum()
    com = (xr * vr).sum() / s if s != 0 else 0.0
    if n > 1:
        slope, offset = np.polyfit(xr, vr, 1)
        correlation = np.corrcoef(xr, vr)[0, 1]
    else:
        slope, offset, correlation = 0.0, 0.0, 0.0
    return np.array([yr.sum() - n * mean, yr.mean() - mean, vr[imin], xr[imin], vr[imax], xr[imax], com,
                     width(x, v, start, stop, 0.5), np.float32(vr.mean() - vr.min()), vr.std(), offset, slope,
                     correlation])


NAMES = ["sum", "average", "minimum", "minimum x", "maximum", "maximum x", "centre of mass", "width",
         "average - minimum", "std. deviation", "regression offset", "regression slope",
         "correlation"]


def main():
    if len(sys.argv) != 2:
        print("usage: check_filter_kernels.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        out = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True, text=True).stdout.split()
        n, count, ncases = (int(v) for v in out)
        axes = [np.fromfile(f"{tmp}/x_rising.f64", "<f8"), np.fromfile(f"{tmp}/x_falling.f64", "<f8")]
        spectra = np.fromfile(f"{tmp}/spectra.f32", "<f4").reshape(count, n)
        cases = np.fromfile(f"{tmp}/cases.i32", "<i4").reshape(ncases, 5)
        got = np.fromfile(f"{tmp}/results.f64", "<f8").reshape(ncases, count, len(NAMES))

    for k, (axis, start, stop, lower, upper) in enumerate(cases):
        want = np.array([reference(axes[axis], spectra[s], start, stop, lower, upper) for s in range(count)])
        for j, name in enumerate(NAMES):
            tol = 1e-6 if name == "average - minimum" else 1e-9
            scale = max(np.abs(want[:, j]).max(), 1.0)
            # A single-pixel range has no regression line: the kernel gives 0 like the reference.
            err = np.abs(got[k, :, j] - want[:, j]).max() / scale
            check(f"{'falling' if axis else 'rising'} {start}..{stop} bg {lower}/{upper} {name}", err <= tol,
                  f"max relative deviation {err:.1e} (limit {tol:g})")
    failed = results.count(False)
    print(f"{len(results) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
