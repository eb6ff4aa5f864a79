#!/usr/bin/python3
"""Checks the polynomial, constant and minimum background kernels against numpy.

Runs the dump program given as the only argument into a temporary folder, then compares:
- the polynomial backgrounds of orders 0, 3 and 9 with numpy.polynomial.Polynomial.fit over the same
  fit-mask pixels (index from 1, in double), evaluated at every pixel: within 2e-6 of the largest |y|,
  which is float precision;
- the polynomial results: y - b inside the change mask to float rounding, exactly 0 outside;
- the constant method (2.5 + reference) and the minimum method (fit-mask minimum - 1.25): exact in float.
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


def main():
    if len(sys.argv) != 2:
        print("usage: check_background_kernels.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        out = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True, text=True).stdout.split()
        n, count = (int(x) for x in out)

        def load(name, dtype, shape):
            return np.fromfile(f"{tmp}/{name}", dtype=dtype).reshape(shape)

        spectra = load("spectra.f32", "<f4", (count, n))
        fit = load("fitmask.u8", "u1", (n,)).astype(bool)
        change = load("changemask.u8", "u1", (n,)).astype(bool)
        poly = {k: load(f"poly_{k}.f32", "<f4", (count, n)) for k in (0, 3, 9)}
        polyresult = {k: load(f"polyresult_{k}.f32", "<f4", (count, n)) for k in (0, 3, 9)}
        reference = load("reference.f32", "<f4", (n,))
        constant = load("constant.f32", "<f4", (count, n))
        minimum = load("minimum.f32", "<f4", (count, n))

    x = np.arange(1, n + 1, dtype=np.float64)
    scale = np.abs(spectra).max()
    for k in (0, 3, 9):
        worst = 0.0
        for s in range(count):
            y = spectra[s].astype(np.float64)
            p = np.polynomial.Polynomial.fit(x[fit], y[fit], k)
            worst = max(worst, np.abs(poly[k][s] - p(x)).max() / scale)
        check(f"polynomial order {k}", worst <= 2e-6, f"max |b - numpy| / max |y| = {worst:.2e} (limit 2e-6)")
        expected = np.where(change, spectra - poly[k], 0).astype(np.float32)
        check(f"polynomial order {k} result", np.array_equal(polyresult[k], expected),
              "y - b inside the change mask, 0 outside")
    expected = np.where(change, spectra - (np.float32(2.5) + reference), 0).astype(np.float32)
    check("constant", np.array_equal(constant, expected), "2.5 + reference subtracted exactly")
    m = spectra[:, fit].min(axis=1, keepdims=True) + np.float32(-1.25)
    expected = np.where(change, spectra - m.astype(np.float32), 0).astype(np.float32)
    check("minimum", np.array_equal(minimum, expected), "fit-mask minimum - 1.25 subtracted exactly")

    failed = results.count(False)
    print(f"{len(results) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
