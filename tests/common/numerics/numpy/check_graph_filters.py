#!/usr/bin/python3
"""Checks the spectrum filters against scipy and numpy.

Runs the dump program given as the only argument into a temporary folder, then compares:
- Savitzky-Golay (smoothing and derivatives, symmetric and one-sided windows, mirrored ends) with
  scipy.signal.savgol_coeffs(use='dot', pos=left) applied by scipy.ndimage.correlate1d(mode='reflect'), in
  double, within the rounding bound of a float sum of window-length terms plus what scipy's coefficients themselves are off by (their least squares
  on raw offset powers loses digits for long windows of high order: about 3e-7 for 65 points, order 9);
  the same correlation with coefficients from a QR least squares on offsets scaled to [-1, 1] within that
  bound alone; on a cubic, every setting of order 3 and up against the exact values and derivatives at
  every pixel whose window needs no mirroring;
- binomial averages: normalised binomial weights (rows of Pascal's triangle) summed over the channels and
  spectra that exist, divided by the weights used; spectra outside the map or on an invalid line left out;
- medians: numpy.median of the same available values (fewer than three: the pixel's own value);
- spike removal on synthetic spikes: the points found equal an independent detection (window of five
  shifted inside the spectrum, (y - min) / (median - min) > 8), every added spike is found, the linear
  repair equals numpy.interp over the points not found, the median repair takes numpy.median of the three
  spectra of the line, and the repaired spikes lie within 10 of the spectrum before the spikes were added
  (for the median, the spikes whose neighbour spectra have none at that channel).
Prints one line per check and "N passed, N failed" at the end; exit code 1 on any failure, 77 when scipy
is missing.
"""
import math
import subprocess
import sys
import tempfile

import numpy as np

try:
    from scipy.ndimage import correlate1d
    from scipy.signal import savgol_coeffs
except ImportError:
    print("SKIP: python3-scipy is not installed")
    sys.exit(77)

results = []


def check(name, ok, detail):
    results.append(bool(ok))
    print(("PASS " if ok else "FAIL ") + name + ": " + detail)


def binomial(size):
    row = np.array([1.0])
    for _ in range(2 * size):
        row = np.convolve(row, [1.0, 1.0])
    return row / row.sum()


def neighbourhood(spectra, valid, a, b, median):
    """spectra: (sy, sx, n) float64. Reference over the available neighbours, pixel by pixel: every value of
    the window as a row, NaN where channel or spectrum does not exist."""
    sy, sx, n = spectra.shape
    wa, wb = binomial(a), binomial(b)
    out = np.zeros_like(spectra)
    for y in range(sy):
        for x in range(sx):
            rows, weights = [], []
            for dy in range(-b, b + 1):
                for dx in range(-b, b + 1):
                    py, px = y + dy, x + dx
                    if not (0 <= py < sy and 0 <= px < sx):
                        continue
                    if not valid[py] and (dx, dy) != (0, 0):
                        continue
                    padded = np.concatenate([np.full(a, np.nan), spectra[py, px], np.full(a, np.nan)])
                    for k in range(-a, a + 1):
                        rows.append(padded[a + k:a + k + n])
                        weights.append(wa[k + a] * wb[dx + b] * wb[dy + b])
            values = np.array(rows)
            present = ~np.isnan(values)
            if median:
                counts = present.sum(axis=0)
                out[y, x] = np.where(counts < 3, spectra[y, x], np.nanmedian(values, axis=0))
            else:
                w = np.array(weights)[:, None] * present
                out[y, x] = np.nansum(values * w, axis=0) / w.sum(axis=0)
    return out


def qr_coefficients(nl, nr, ld, m):
    """Savitzky-Golay weights by QR least squares on the offsets scaled to [-1, 1]: the weights that give
    ld! times the polynomial's coefficient of k^ld at offset 0, in units per pixel."""
    s = max(nl, nr, 1)
    k = np.arange(-nl, nr + 1) / s
    q, r = np.linalg.qr(np.vander(k, m + 1, increasing=True))
    # Coefficients of the fit: r^-1 q^T y; row ld of r^-1 q^T gives the weights of coefficient ld.
    weights = np.linalg.solve(r, q.T)[ld]
    return weights * math.factorial(ld) / s**ld


def detect_spikes(y, w=2, factor=8.0):
    n = len(y)
    window = min(2 * w + 1, n)
    found = np.zeros(n, dtype=bool)
    for i in range(n):
        start = min(max(i - w, 0), n - window)
        s = np.sort(y[start:start + window].astype(np.float64))
        s0, sw = s[0], s[min(w, window - 1)]
        found[i] = (float(y[i]) - s0) / (1.0 if sw == s0 else sw - s0) > factor
    return found


def main():
    if len(sys.argv) != 2:
        print("usage: check_graph_filters.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        lines = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True,
                               text=True).stdout.splitlines()
        sx, sy, n = (int(v) for v in lines[0].split())
        entries = [line.split() for line in lines[1:]]

        def load(name, dtype="<f4", shape=None):
            data = np.fromfile(f"{tmp}/{name}", dtype=dtype)
            return data.reshape(shape if shape else (sy, sx, n))

        data = {e[1] + e[0]: load(f"{e[0]}_{e[1]}.f32") for e in entries}
        polysg = {e[1]: load(f"polysg_{e[1]}.f32", shape=(n,)) for e in entries if e[0] == "sg"}
        spectra = load("map.f32")
        valid = load("lines.u8", "u1", (sy,)).astype(bool)
        poly = load("poly.f32", shape=(n,))
        spiky = load("spiky.f32")
        spikes = load("spikes.u8", "u1").astype(bool)
        found = load("crr_found.u8", "u1").astype(bool)
        crr_linear = load("crr_linear.f32")
        crr_median = load("crr_median.f32")

    x64 = spectra.astype(np.float64)
    scale = np.abs(x64).max()
    t = np.arange(n) - 100.0
    exact = [3 + 0.5 * t - 0.02 * t**2 + 1e-4 * t**3, 0.5 - 0.04 * t + 3e-4 * t**2, -0.04 + 6e-4 * t,
             np.full(n, 6e-4)]
    for kind, name, *params in entries:
        if kind != "sg":
            continue
        nl, nr, ld, m = (int(v) for v in params)
        w = nl + nr + 1
        coeffs = savgol_coeffs(w, m, deriv=ld, pos=nl, use="dot")
        qr = qr_coefficients(nl, nr, ld, m)
        ref = correlate1d(x64, coeffs, axis=-1, mode="reflect", origin=nl - w // 2)
        # Float data summed in float over w terms: the bound of w + 2 roundings of the terms' magnitudes.
        limit = (w + 2) * 2.0**-24 * scale * np.abs(coeffs).sum()
        scipy_off = np.abs(coeffs - qr).sum() * scale
        err = np.abs(data[name + "sg"] - ref).max()
        check(f"savgol {nl},{nr} order {m} derivative {ld}", err <= limit + scipy_off,
              f"max |ours - scipy| = {err:.2e} (limit {limit:.2e} + scipy's own {scipy_off:.2e})")
        ref = correlate1d(x64, qr, axis=-1, mode="reflect", origin=nl - w // 2)
        err = np.abs(data[name + "sg"] - ref).max()
        check(f"savgol {nl},{nr} order {m} derivative {ld} (QR coefficients)", err <= limit,
              f"max |ours - reference| = {err:.2e} (limit {limit:.2e})")
        if m >= 3:
            inner = slice(nl, n - nr)
            err = np.abs(polysg[name][inner] - exact[ld][inner]).max()
            limit = (w + 2) * 2.0**-24 * np.abs(poly).max() * np.abs(coeffs).sum()
            check(f"savgol {nl},{nr} order {m} derivative {ld} on a cubic", err <= limit,
                  f"max |ours - exact| = {err:.2e} (limit {limit:.2e})")

    for kind, name, *params in entries:
        if kind not in ("avg", "median"):
            continue
        a, b = (int(v) for v in params)
        ref = neighbourhood(x64, valid, a, b, kind == "median")
        err = np.abs(data[name + kind] - ref).max()
        limit = 2e-7 * scale
        check(f"{'binomial average' if kind == 'avg' else 'median'} spectral {a} spatial {b}", err <= limit,
              f"max |ours - numpy| = {err:.2e} (limit {limit:.2e})")

    expected_found = np.array([[detect_spikes(spiky[y, x]) for x in range(sx)] for y in range(sy)])
    check("spike detection", np.array_equal(found, expected_found),
          f"{int(found.sum())} points found, {int((found != expected_found).sum())} differ from the reference")
    check("every added spike found", bool(found[spikes].all()),
          f"{int(spikes.sum())} added, {int((spikes & ~found).sum())} missed")
    idx = np.arange(n)
    linear = np.empty_like(x64)
    median = np.empty_like(x64)
    # Spikes whose two neighbour spectra have none at the same channel: there the median sees clean values.
    clean_neighbours = np.zeros_like(spikes)
    for y in range(sy):
        for x in range(sx):
            f = found[y, x]
            s = spiky[y, x].astype(np.float64)
            linear[y, x] = np.interp(idx, idx[~f], s[~f]) if (~f).any() else s[0]
            if sx < 5:
                median[y, x] = linear[y, x]
                continue
            left, right = {0: (1, 2), sx - 1: (sx - 2, sx - 3)}.get(x, (x - 1, x + 1))
            med = np.median(np.stack([s, spiky[y, left], spiky[y, right]]).astype(np.float64), axis=0)
            median[y, x] = np.where(f, med, s)
            clean_neighbours[y, x] = spikes[y, x] & ~spikes[y, left] & ~spikes[y, right]
    err = np.abs(crr_linear - linear).max()
    check("linear spike repair", err <= 2e-6 * scale, f"max |ours - numpy.interp| = {err:.2e}")
    err = np.abs(crr_median - median).max()
    check("median spike repair", err == 0, f"max |ours - numpy.median| = {err:.2e}")
    for label, repaired, at in (("linear", crr_linear, spikes), ("median", crr_median, clean_neighbours)):
        worst = np.abs(repaired[at] - spectra[at]).max()
        check(f"{label} repair near the spectrum without spikes", worst < 10,
              f"max |repaired - clean| at {int(at.sum())} spikes = {worst:.2f} (spikes 200 to 400 high)")

    passed = sum(results)
    print(f"{passed} passed, {len(results) - passed} failed")
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main())
