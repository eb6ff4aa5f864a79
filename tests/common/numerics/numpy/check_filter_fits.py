#!/usr/bin/python3
"""Checks the Gauss and Lorentz filter objects against scipy.optimize.curve_fit on the same noisy spectra.

Runs the dump program given as the only argument into a temporary folder and fits, with scipy, the same
models over the same pixels (no background): a Gaussian y0 + A exp(-(x-c)^2 / (2 s^2)) and a Lorentzian
y0 + 2 A/pi w / (4 (x-c)^2 + w^2), started from crude estimates of their own. Both must reach the same
least-squares minimum: centre, width (FWHM) and intensity within 1e-5 of the fitted width or intensity,
the error figure sqrt(chi^2/n) within 1e-5 relative. Exit code 77 (skipped) without scipy, 1 on any
failure.
"""
import subprocess
import sys
import tempfile

import numpy as np

try:
    from scipy.optimize import curve_fit
except ImportError:
    print("scipy is not installed: skipped")
    sys.exit(77)

FWHM_PER_SIGMA = 2.3548200450309493
results = []


def check(name, ok, detail):
    results.append(bool(ok))
    print(("PASS " if ok else "FAIL ") + name + ": " + detail)


def gauss(x, y0, c, s, a):
    return y0 + a * np.exp(-0.5 * (x - c) ** 2 / s ** 2)


def lorentz(x, y0, c, w, a):
    return y0 + 2 * a / np.pi * w / (4 * (x - c) ** 2 + w ** 2)


def main():
    if len(sys.argv) != 2:
        print("usage: check_filter_fits.py DUMP_PROGRAM")
        return 2
    with tempfile.TemporaryDirectory() as tmp:
        out = subprocess.run([sys.argv[1], tmp], check=True, capture_output=True, text=True).stdout.split()
        n, count, start, stop = (int(v) for v in out)
        x = np.fromfile(f"{tmp}/x.f64", "<f8")
        spectra = {k: np.fromfile(f"{tmp}/{k}.f32", "<f4").reshape(count, n) for k in ("gauss", "lorentz")}
        got = {k: np.fromfile(f"{tmp}/{k}_out.f64", "<f8").reshape(count, 5) for k in ("gauss", "lorentz")}

    xr = x[start:stop + 1]
    worst = {"gauss": np.zeros(4), "lorentz": np.zeros(4)}
    for s in range(count):
        for kind in ("gauss", "lorentz"):
            y = spectra[kind][s, start:stop + 1].astype(np.float64)
            peak = int(np.argmax(y))
            base = float(np.median(y))
            height = float(y[peak] - base)
            if kind == "gauss":
                p, _ = curve_fit(gauss, xr, y, p0=[base, xr[peak], 8, height], ftol=1e-14, xtol=1e-14,
                                 maxfev=20000)
                y0, c, width, intensity = p[0], p[1], abs(p[2]) * FWHM_PER_SIGMA, p[3]
                residual = y - gauss(xr, *p)
            else:
                p, _ = curve_fit(lorentz, xr, y, p0=[base, xr[peak], 10, height * 15], ftol=1e-14, xtol=1e-14,
                                 maxfev=20000)
                y0, c, width, intensity = p[0], p[1], abs(p[2]), p[3]
                residual = y - lorentz(xr, *p)
            error = np.sqrt((residual ** 2).sum() / len(xr))
            g = got[kind][s]
            deviation = np.array([abs(g[1] - c) / width, abs(g[2] - width) / width,
                                  abs(g[0] - intensity) / abs(intensity), abs(g[4] - error) / error])
            worst[kind] = np.maximum(worst[kind], deviation)
    for kind in ("gauss", "lorentz"):
        for j, name in enumerate(("centre", "width", "intensity", "error")):
            check(f"{kind} {name}", worst[kind][j] <= 1e-5,
                  f"max relative deviation {worst[kind][j]:.1e} (limit 1e-5)")
    failed = results.count(False)
    print(f"{len(results) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
