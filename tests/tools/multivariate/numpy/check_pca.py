#!/usr/bin/python3
"""Checks a whole principal component analysis against numpy in double precision.

Runs the dump program given as the only argument into a temporary folder; it writes a synthetic stack (one
invalid line of junk, a spectrum mask with gaps at the start, inside and at the end) and the result graphs of
the analysis. Compares with numpy.linalg.eigh of the double covariance (divisor N) of the valid pixels at the
selected points:
- eigenvalues above 1 % of the largest within 1e-5 relative; all within 1e-4 relative + 1e-8 of the largest;
- loadings (eigenvalue above 1e-6 of the largest, so above what single-precision products resolve, and at
  least 2 % from its neighbours) within 1e-3 rad; every eigenvector with its element of largest magnitude
  positive, and zero outside the mask;
- the average: the mean of the valid pixels, zero outside the mask;
- scores of PCs 0..K-1 and the reconstruction from PCs 0..R-1 to float precision, the reconstruction holding
  the value of the selected point before (or the first selected point) outside the mask;
- the invalid line stays invalid in the transformed spectra, the others are valid.
Prints one line per check and "N passed, N failed" at the end; exit code 1 on any failure.
"""
import subprocess
import sys
import tempfile

import numpy as np

results = []


def check(name, ok, detail):
    results.append(bool(ok))
    print(("PASS " if ok else "FAIL ") + name + ": " + detail)


def angles(ours, theirs):
    """Angle between matching columns, up to sign; from the chord, which keeps small angles exact."""
    a = ours / np.linalg.norm(ours, axis=0)
    b = theirs / np.linalg.norm(theirs, axis=0)
    b = b * np.where(np.sum(a * b, axis=0) < 0, -1.0, 1.0)
    return 2.0 * np.arcsin(np.clip(np.linalg.norm(a - b, axis=0) / 2.0, 0.0, 1.0))


def separated(values, relative):
    """Indices whose eigenvalue lies at least relative * |value| from both neighbours."""
    out = []
    for k, v in enumerate(values):
        gap = np.inf
        if k > 0:
            gap = min(gap, abs(v - values[k - 1]))
        if k + 1 < len(values):
            gap = min(gap, abs(values[k + 1] - v))
        if gap >= relative * abs(v) and abs(v) > 0:
            out.append(k)
    return np.array(out, dtype=int)


def hold(values_at_selected, mask):
    """P values: the selected ones in place, each unselected point holding the selected value before it."""
    out = np.empty(values_at_selected.shape[:-1] + (mask.size,))
    sel = np.flatnonzero(mask)
    index = np.maximum(np.searchsorted(sel, np.arange(mask.size), side="right") - 1, 0)
    out[...] = values_at_selected[..., index]
    return out


def main():
    if len(sys.argv) != 2:
        print("usage: check_pca.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        out = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True, text=True).stdout.split()
        sx, sy, p, m, k, r = (int(x) for x in out)

        def load(name, dtype, shape):
            return np.fromfile(f"{tmp}/{name}", dtype=dtype).reshape(shape)

        stack = load("stack.f32", "<f4", (sy, sx, p)).astype(np.float64)
        lines = load("lines.u8", "u1", (sy,)).astype(bool)
        mask = load("mask.u8", "u1", (p,)).astype(bool)
        evals = load("evals.f32", "<f4", (m,)).astype(np.float64)
        evecs = load("evecs.f32", "<f4", (m, p)).astype(np.float64)
        average = load("average.f32", "<f4", (p,)).astype(np.float64)
        transformed = load("transformed.f32", "<f4", (sy, sx, k)).astype(np.float64)
        tlines = load("tlines.u8", "u1", (sy,)).astype(bool)
        rebuilt = load("reconstructed.f32", "<f4", (sy, sx, p)).astype(np.float64)

    check("sizes", m == mask.sum(), f"{m} components for {mask.sum()} selected points")
    data = stack[lines][:, :, mask].reshape(-1, m)
    n = data.shape[0]
    mean = data.mean(axis=0)
    centred = data - mean
    cov = centred.T @ centred / n
    w, v = np.linalg.eigh(cov)
    w, v = w[::-1], v[:, ::-1]  # largest first, as the graphs hold them
    largest = np.abs(w).max()

    big = w > 0.01 * largest
    rel = np.abs(evals[big] - w[big]) / np.abs(w[big])
    check("eigenvalues above 1 % of the largest", rel.max() <= 1e-5,
          f"{big.sum()} values, worst relative error {rel.max():.2e} (limit 1e-5)")
    allerr = np.abs(evals - w) / (np.abs(w) * 1e-4 + 1e-8 * largest)
    check("all eigenvalues", allerr.max() <= 1.0,
          f"worst error in units of 1e-4 relative + 1e-8 of the largest: {allerr.max():.2e}")
    check("order", bool(np.all(np.diff(evals) <= 0)), "eigenvalues largest first")

    ours = evecs[:, mask].T  # columns: PC 0, 1, ...
    # Loadings: components above the noise that single-precision products resolve (1e-6 of the largest).
    sep = np.array([i for i in separated(w, 0.02) if w[i] >= 1e-6 * largest], dtype=int)
    ang = angles(ours[:, sep], v[:, sep])
    check("separated loadings", len(sep) >= 5 and ang.max() <= 1e-3,
          f"{len(sep)} vectors above 1e-6 of the largest and at least 2 % from their neighbours, worst angle "
          f"{ang.max():.2e} rad (limit 1e-3)")
    at = np.argmax(np.abs(ours), axis=0)
    check("sign rule", bool(np.all(ours[at, np.arange(m)] > 0)), "largest element of each vector positive")
    check("eigenvectors outside the mask", bool(np.all(evecs[:, ~mask] == 0)), "zero")

    aerr = np.abs(average[mask] - mean).max() / np.abs(mean).max()
    check("average", aerr <= 1e-6 and bool(np.all(average[~mask] == 0)),
          f"max relative error {aerr:.2e} (limit 1e-6), zero outside the mask")

    # Scores and reconstruction with the analysis's own (float) vectors and average: float precision.
    full = stack[:, :, mask]
    scale = np.linalg.norm(full[lines] - mean, axis=-1).max()
    scores = (full - average[mask]) @ ours[:, :k]
    serr = np.abs(transformed[lines] - scores[lines]).max() / scale
    check("scores", serr <= 1e-6, f"max error / largest centred spectrum {serr:.2e} (limit 1e-6)")
    check("line flags", bool(np.array_equal(tlines, lines)), "invalid source line invalid, the others valid")
    at_selected = average[mask] + scores[:, :, :r] @ ours[:, :r].T
    expected = hold(at_selected, mask)
    rerr = np.abs(rebuilt[lines] - expected[lines]).max() / np.abs(stack[lines]).max()
    check("reconstruction", rerr <= 1e-6, f"max error / largest value {rerr:.2e} (limit 1e-6)")
    sel = np.flatnonzero(mask)
    held = all(np.array_equal(rebuilt[lines][..., g], rebuilt[lines][..., sel[max(0, np.searchsorted(sel, g) - 1)]])
               for g in np.flatnonzero(~mask))
    check("held values outside the mask", held, "each equals the selected point before it (or the first)")
    fit = np.abs(rebuilt[lines][:, :, mask] - stack[lines][:, :, mask]).max() / np.abs(stack[lines]).max()
    check("five components rebuild the stack", fit <= 1e-4, f"max error / largest value {fit:.2e}")

    passed = sum(results)
    failed = len(results) - passed
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
