#!/usr/bin/python3
"""Checks the covariance and eigen kernels against numpy in double precision.

Runs the dump program given as the only argument into a temporary folder, then compares:
- the covariance (single-precision products, partial sums into double) with the double covariance of the
  same float spectra, divisor N;
- the eigenvalues with numpy.linalg.eigh of the double covariance: those above 1 % of the largest within
  1e-5 relative, all within 1e-4 relative + 1e-8 of the largest;
- the eigenvectors whose eigenvalue lies at least 2 % from its neighbours: within 1e-3 rad of numpy's;
- a random symmetric double matrix: eigenvalues within 1e-12 of its norm, vector angles within
  1e-12 |A| / gap to the nearest other eigenvalue, residuals within 1e-12 |A|.
Prints one line per check and "N passed, N failed" at the end; exit code 1 on any failure.
"""
import subprocess
import sys
import tempfile

import numpy as np

results = []


def check(name, ok, detail):
    results.append(ok)
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


def main():
    if len(sys.argv) != 2:
        print("usage: check_pca_kernels.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        out = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True, text=True).stdout.split()
        n, m, ns = (int(x) for x in out)

        def load(name, dtype, shape):
            return np.fromfile(f"{tmp}/{name}", dtype=dtype).reshape(shape)

        spectra = load("spectra.f32", "<f4", (n, m)).astype(np.float64)
        cov = load("covariance.f64", "<f8", (m, m))
        evals = load("evals.f64", "<f8", (m,))
        evecs = load("evecs.f64", "<f8", (m, m))
        sym = load("sym.f64", "<f8", (ns, ns))
        sym_evals = load("sym_evals.f64", "<f8", (ns,))
        sym_evecs = load("sym_evecs.f64", "<f8", (ns, ns))

    centred = spectra - spectra.mean(axis=0)
    truth = centred.T @ centred / n
    scale = np.abs(truth).max()
    err = np.abs(cov - truth).max() / scale
    check("covariance", err <= 1e-6, f"max |C - C_numpy| / max |C_numpy| = {err:.2e} (limit 1e-6)")

    w, v = np.linalg.eigh(truth)
    largest = np.abs(w).max()
    big = w > 0.01 * largest
    rel = np.abs(evals[big] - w[big]) / np.abs(w[big])
    check("eigenvalues above 1 % of the largest", rel.max() <= 1e-5,
          f"{big.sum()} values, worst relative error {rel.max():.2e} (limit 1e-5)")
    allerr = np.abs(evals - w) / (np.abs(w) * 1e-4 + 1e-8 * largest)
    check("all eigenvalues", allerr.max() <= 1.0,
          f"worst error in units of 1e-4 relative + 1e-8 of the largest: {allerr.max():.2e}")
    check("ascending order", bool(np.all(np.diff(evals) >= 0)), "eigenvalues sorted ascending")
    sep = separated(w, 0.02)
    ang = angles(evecs[:, sep], v[:, sep])
    check("separated eigenvectors", len(sep) > 0 and ang.max() <= 1e-3,
          f"{len(sep)} vectors at least 2 % from their neighbours, worst angle {ang.max():.2e} rad (limit 1e-3)")
    orth = np.linalg.norm(evecs.T @ evecs - np.eye(m))
    check("orthonormal eigenvectors", orth <= 1e-12 * m, f"|V^T V - I| = {orth:.2e}")

    ws, vs = np.linalg.eigh(sym)
    norm = np.abs(ws).max()
    serr = np.abs(sym_evals - ws).max() / norm
    check("symmetric matrix eigenvalues", serr <= 1e-12, f"worst error / |A| = {serr:.2e} (limit 1e-12)")
    # The angle error of a vector is about (n eps |A|) / gap to its nearest neighbour.
    gaps = np.minimum(np.abs(np.diff(ws, prepend=-np.inf)), np.abs(np.diff(ws, append=np.inf)))
    ang = angles(sym_evecs, vs)
    scaled = (ang * gaps / norm).max()
    check("symmetric matrix eigenvectors", scaled <= 1e-12,
          f"worst angle x gap / |A| = {scaled:.2e} (limit 1e-12), worst angle {ang.max():.2e} rad")
    res = np.linalg.norm(sym @ sym_evecs - sym_evecs * sym_evals, axis=0).max() / norm
    check("symmetric matrix residual", res <= 1e-12, f"max |A v - lambda v| / |A| = {res:.2e}")

    passed = sum(results)
    failed = len(results) - passed
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
