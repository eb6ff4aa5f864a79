#!/usr/bin/python3
"""Checks the image filters against numpy on the random image the dump program prints.

Every reference pads the image with numpy's "reflect" rule (index -i for i below 0, 2n-2-i beyond the
end), then correlates or takes window statistics:
- average: the separable normalised binomial weights; with invalid lines the second pass uses the valid
  rows only and divides by their weights; median (odd windows) and variance (divisor = count);
- Laplace types 1..3, Sobel Gx and Gy times 0.125, and custom kernels without flipping, divided by the factor;
- Copy and Zero margins: the interior as with the mirror, the margin from the nearest interior pixel or 0;
- the neighbour averaging: the solution of the discrete Laplace equation with mirrored edges.
Prints one line per check and "N passed, N failed"; exit code 1 on any failure.
"""
import subprocess
import sys
from math import comb

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

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


def windows(img, s):
    return sliding_window_view(np.pad(img, s, mode="reflect"), (2 * s + 1, 2 * s + 1))


def correlate(img, kernel):
    s = kernel.shape[0] // 2
    return np.einsum("yxji,ji->yx", windows(img, s), kernel)


def binomial(s):
    b = np.array([comb(2 * s, k) for k in range(2 * s + 1)], dtype=float)
    return b / b.sum()


def average(img, s):
    b = binomial(s)
    return correlate(img, np.outer(b, b))


def with_margin(full, s, mode):
    out = full.copy()
    ny, nx = full.shape
    for y in range(ny):
        for x in range(nx):
            if s <= x < nx - s and s <= y < ny - s:
                continue
            out[y, x] = 0.0 if mode == "zero" else full[min(max(y, s), ny - 1 - s), min(max(x, s), nx - 1 - s)]
    return out


def main():
    text = subprocess.run([sys.argv[1]], check=True, capture_output=True, text=True).stdout
    im = read(text)
    a = im["input"].astype(np.float64)
    ny, nx = a.shape
    for s in range(4):
        check("average size %d" % s, im["average%d" % s], average(a, s), 2e-5)
        check("median size %d" % s, im["median%d" % s], np.median(windows(a, s), axis=(2, 3)), 0)
    check("variance size 2", im["variance2"], np.var(windows(a, 2), axis=(2, 3)), 2e-4)
    laplace = {1: [[0, 1, 0], [1, -4, 1], [0, 1, 0]], 2: [[1, 1, 1], [1, -8, 1], [1, 1, 1]],
               3: [[1, 2, 1], [2, -12, 2], [1, 2, 1]]}
    for t, k in laplace.items():
        check("Laplace type %d" % t, im["laplace%d" % t], correlate(a, np.array(k, dtype=float)), 1e-4)
    gx = 0.125 * np.array([[-1, 0, 1], [-2, 0, 2], [-1, 0, 1]], dtype=float)
    check("Sobel Gx", im["sobelgx"], correlate(a, gx), 1e-5)
    check("Sobel Gy", im["sobelgy"], correlate(a, gx.T), 1e-5)
    k1 = np.array([1, 2, 0, -1, 3, 0.5, 0, -2, 4], dtype=float).reshape(3, 3) / 2.5
    check("custom size 1", im["custom1"], correlate(a, k1), 1e-4)
    k2 = np.array([(i * 7) % 5 - 1.5 + 0.1 * i for i in range(25)], dtype=float).reshape(5, 5) / -3.0
    check("custom size 2", im["custom2"], correlate(a, k2), 1e-4)
    for mode in ("copy", "zero"):
        check("median size 2, %s margin" % mode, im["median2" + mode],
              with_margin(np.median(windows(a, 2), axis=(2, 3)), 2, mode), 0)
        check("average size 2, %s margin" % mode, im["average2" + mode], with_margin(average(a, 2), 2, mode),
              2e-5)

    invalid = {4, 5, 12}
    b = np.array([1.0, 2.0, 1.0])
    first = np.einsum("yxi,i->yx", sliding_window_view(np.pad(a, ((0, 0), (1, 1)), mode="reflect"), 3, axis=1), b) / 4
    ref = np.full_like(a, np.nan)
    med = np.full_like(a, np.nan)
    padded = np.pad(a, 1, mode="reflect")
    for y in range(ny):
        rows = [(abs(y + d) if y + d < ny else 2 * ny - 2 - (y + d), w) for d, w in zip((-1, 0, 1), b)]
        rows = [(r, w) for r, w in rows if r not in invalid]
        if rows:
            ref[y] = sum(w * first[r] for r, w in rows) / sum(w for _, w in rows)
            picked = padded[[r + 1 for r, _ in rows]]
            med[y] = [np.median(picked[:, x:x + 3]) for x in range(nx)]
    check("average size 1, invalid lines", im["average1invalid"], ref, 2e-5)
    check("median size 1, invalid lines", im["median1invalid"], med, 1e-5)  # even windows: mean of two floats

    mask = im["repairmask"] > 0.5
    cells = [(y, x) for y in range(ny) for x in range(nx) if mask[y, x]]
    index = {c: i for i, c in enumerate(cells)}
    m = np.zeros((len(cells), len(cells)))
    rhs = np.zeros(len(cells))
    for i, (y, x) in enumerate(cells):
        m[i, i] = 4.0
        for yy, xx in ((y, x - 1), (y, x + 1), (y - 1, x), (y + 1, x)):
            yy = -yy if yy < 0 else (2 * ny - 2 - yy if yy >= ny else yy)
            xx = -xx if xx < 0 else (2 * nx - 2 - xx if xx >= nx else xx)
            if mask[yy, xx]:
                m[i, index[(yy, xx)]] -= 1.0
            else:
                rhs[i] += a[yy, xx]
    solution = a.copy()
    for (y, x), v in zip(cells, np.linalg.solve(m, rhs)):
        solution[y, x] = v
    check("neighbour averaging converges to the Laplace solution", im["simpleinterpolation"], solution, 1e-3)

    print("%d passed, %d failed" % (results.count(True), results.count(False)))
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
