#!/usr/bin/python3
"""Checks the image background subtraction against numpy.linalg.lstsq on the image the dump program prints.

Surface of order k: the least-squares fit of the monomials x^i y^j (i + j <= k, x and y the pixel indices,
mapped to [-1, 1], which spans the same polynomials)
over the pixels of the valid lines, subtracted from those lines. Lines of order k: each valid line fitted
alone by the powers x^0..x^k. Invalid lines must come out as they went in (NaN here).
Prints one line per check and "N passed, N failed"; exit code 1 on any failure.
"""
import subprocess
import sys

import numpy as np

results = []


def check(name, ours, ref, tol):
    ok = ours.shape == ref.shape and bool(np.all((np.isnan(ours) & np.isnan(ref)) | (np.abs(ours - ref) <= tol)))
    err = np.nanmax(np.abs(ours - ref)) if ours.shape == ref.shape else float("inf")
    results.append(ok)
    print(("PASS " if ok else "FAIL ") + name + ": max difference %.3g" % err)


def read(text):
    images, lines, i = {}, text.splitlines(), 0
    while i < len(lines):
        name, nx, ny = lines[i].split()
        nx, ny = int(nx), int(ny)
        images[name] = np.array([[float(v) for v in lines[i + 1 + y].split()] for y in range(ny)])
        i += 1 + ny
    return images


def surface(z, valid, k):
    ny, nx = z.shape
    y, x = np.mgrid[0:ny, 0:nx].astype(np.float64)
    # Any affine change of x and y spans the same polynomials; [-1, 1] keeps lstsq well conditioned.
    x, y = 2 * x / max(nx - 1, 1) - 1, 2 * y / max(ny - 1, 1) - 1
    terms = [(i, j) for i in range(k + 1) for j in range(k + 1 - i)]
    a = np.stack([x[valid].ravel() ** i * y[valid].ravel() ** j for i, j in terms], axis=1)
    c, *_ = np.linalg.lstsq(a, z[valid].ravel(), rcond=None)
    bg = sum(ci * x ** i * y ** j for ci, (i, j) in zip(c, terms))
    out = z.copy()
    out[valid] -= bg[valid]
    return out


def lines(z, valid, k):
    nx = z.shape[1]
    x = 2 * np.arange(nx, dtype=np.float64) / max(nx - 1, 1) - 1
    a = np.stack([x ** i for i in range(k + 1)], axis=1)
    out = z.copy()
    for row in np.nonzero(valid)[0]:
        c, *_ = np.linalg.lstsq(a, z[row], rcond=None)
        out[row] = z[row] - a @ c
    return out


def main():
    text = subprocess.run([sys.argv[1]], check=True, capture_output=True, text=True).stdout
    im = read(text)
    for prefix in ("narrow_", "wide_"):
        z = im[prefix + "input"]
        valid = im[prefix + "valid"][:, 0] > 0.5
        # A data set that makes the check meaningless must fail it, not pass it.
        ok = 1 <= np.count_nonzero(~valid) and np.all(np.isnan(z[~valid])) and np.all(np.isfinite(z[valid]))
        results.append(bool(ok))
        print(("PASS " if ok else "FAIL ") + prefix + "input has invalid lines of NaN and finite valid lines")
        # Values reach a few hundred; float output rounds at about 3e-5 of that.
        for k in range(4):
            tol = 2e-4 * np.nanmax(np.abs(z))
            check(prefix + "surface order %d" % k, im[prefix + "surface%d" % k], surface(z, valid, k), tol)
            check(prefix + "lines order %d" % k, im[prefix + "lines%d" % k], lines(z, valid, k), tol)
    passed = sum(1 for r in results if r)
    print("%d passed, %d failed" % (passed, len(results) - passed))
    return 0 if passed == len(results) else 1


if __name__ == "__main__":
    sys.exit(main())
