#!/usr/bin/env python3
"""Checks the Fourier and wavelet kernels against numpy.fft and PyWavelets.

Usage: check_fft_wavelets.py DUMP_PROGRAM
The program runs the kernels on data this script sends (see ReferenceDump.cpp); every comparison that
fails is printed, and the exit code is 1 when any did.
"""
import subprocess
import sys

import warnings

import numpy as np
import pywt

DUMP = sys.argv[1]
FAILURES = []
RNG = np.random.default_rng(20261123)
# PyWavelets warns when a level reaches the boundary everywhere; short signals are tested on purpose.
warnings.filterwarnings("ignore", message="Level value")

WAVELETS = ["haar", "db4", "db8", "db16", "db2", "sym4", "sym8", "sym16"]  # by kind 0..7
MODES = ["periodic", "symmetric", "zero"]  # by boundary policy 0..2


def run(args, data):
    out = subprocess.run([DUMP] + [str(a) for a in args], input=data, capture_output=True, check=False)
    if out.returncode != 0:
        raise RuntimeError(f"{args}: exit {out.returncode}: {out.stderr.decode()}")
    return out.stdout


def check(name, value, limit):
    if not value <= limit:
        FAILURES.append(f"{name}: {value:.3g} above {limit:.3g}")


def rel(a, b):
    den = np.linalg.norm(b)
    return np.linalg.norm(a - b) / (den if den > 0 else 1.0)


def check_fft():
    lengths = list(range(1, 129)) + [210, 1000, 1009, 2039, 4096, 4097]
    for n in lengths:
        x = RNG.uniform(-1, 1, n) + 1j * RNG.uniform(-1, 1, n)
        raw = np.frombuffer(run(["fft", n], x.astype(np.complex128).tobytes()), dtype=np.complex128)
        check(f"fft n={n}", rel(raw[:n], np.fft.fft(x)), 1e-13)
        check(f"ifft n={n}", rel(raw[n:], np.fft.ifft(x)), 1e-13)
    for n in list(range(1, 40)) + [1009, 1024, 4097]:
        x = RNG.uniform(-1, 1, n)
        half = RNG.uniform(-1, 1, n // 2 + 1) + 1j * RNG.uniform(-1, 1, n // 2 + 1)
        raw = run(["rfft", n], x.tobytes() + half.astype(np.complex128).tobytes())
        spectrum = np.frombuffer(raw[: 16 * (n // 2 + 1)], dtype=np.complex128)
        back = np.frombuffer(raw[16 * (n // 2 + 1):], dtype=np.float64)
        check(f"rfft n={n}", rel(spectrum, np.fft.rfft(x)), 1e-13)
        check(f"irfft n={n}", rel(back, np.fft.irfft(half, n)), 1e-13)
    for rows, cols in [(1, 1), (4, 6), (9, 7), (32, 50), (17, 64)]:
        x = RNG.uniform(-1, 1, (rows, cols)) + 1j * RNG.uniform(-1, 1, (rows, cols))
        raw = np.frombuffer(run(["fft2", rows, cols], x.astype(np.complex128).tobytes()), dtype=np.complex128)
        check(f"fft2 {rows}x{cols}", rel(raw.reshape(rows, cols), np.fft.fft2(x)), 1e-13)


def max_levels(n, taps):
    levels = 0
    while n >= taps:
        n = (n + taps - 1) // 2
        levels += 1
    return levels


def inverted(wavelet):
    """The wavelet whose scaling filter is the given one run backwards, as a PyWavelets filter bank."""
    rec_lo = list(reversed(wavelet.rec_lo))
    taps = len(rec_lo)
    rec_hi = [(-1) ** k * rec_lo[taps - 1 - k] for k in range(taps)]
    return pywt.Wavelet("inverted", filter_bank=[list(reversed(rec_lo)), list(reversed(rec_hi)), rec_lo, rec_hi])


def check_wavelets():
    for kind, name in enumerate(WAVELETS):
        table = np.frombuffer(run(["table", kind], b""), dtype=np.float64)
        reference = np.array(pywt.Wavelet(name).rec_lo)
        if table.shape != reference.shape:
            FAILURES.append(f"table {name}: {table.size} taps, PyWavelets {reference.size}")
            continue
        check(f"table {name}", np.abs(table - reference).max(), 1e-7)
    for kind, name in enumerate(WAVELETS):
        taps = pywt.Wavelet(name).dec_len
        for policy, mode in enumerate(MODES):
            for invert in (0, 1):
                wavelet = inverted(pywt.Wavelet(name)) if invert else pywt.Wavelet(name)
                for n in sorted({taps, taps + 1, 2 * taps + 3, 100, 257}):
                    levels = min(3, max_levels(n, taps))
                    x = RNG.normal(0, 1, n).astype(np.float32)
                    raw = run(["wavedec", kind, policy, invert, levels, n], x.tobytes())
                    count = int(np.frombuffer(raw[:4], dtype=np.int32)[0])
                    ours, pos = [], 4
                    for _ in range(count + 1):
                        size = int(np.frombuffer(raw[pos:pos + 4], dtype=np.int32)[0])
                        ours.append(np.frombuffer(raw[pos + 4:pos + 4 + 4 * size], dtype=np.float32))
                        pos += 4 + 4 * size
                    theirs = pywt.wavedec(x.astype(np.float64), wavelet, mode=mode, level=levels)
                    label = f"wavedec {name} {mode} invert={invert} n={n}"
                    if count != levels or [a.size for a in ours] != [b.size for b in theirs]:
                        FAILURES.append(f"{label}: sizes {[a.size for a in ours]}, PyWavelets "
                                        f"{[b.size for b in theirs]}")
                        continue
                    worst = max(np.abs(a - b).max() for a, b in zip(ours, theirs))
                    check(label, worst / np.abs(x).max(), 2e-6)


def noise_filter(x, name, factor):
    """The noise filter written with PyWavelets: full decomposition, mirrored ends, hard threshold."""
    wavelet = pywt.Wavelet(name)
    n = x.size
    coeffs = pywt.wavedec(x, wavelet, mode="symmetric", level=max_levels(n, wavelet.dec_len))
    sigma = np.median(np.abs(coeffs[-1])) / 0.6745
    threshold = factor * sigma * np.sqrt(2 * np.log(n))
    coeffs = [coeffs[0]] + [np.where(np.abs(d) < threshold, 0.0, d) for d in coeffs[1:]]
    return pywt.waverec(coeffs, wavelet, mode="symmetric")[:n]


def check_noise_filter():
    for kind, name in enumerate(WAVELETS):
        for n in (64, 1000, 1024):
            t = np.linspace(0, 1, n)
            clean = 50 * np.exp(-((t - 0.4) / 0.03) ** 2) + 10 * t
            x = (clean + RNG.normal(0, 1, n)).astype(np.float32)
            for factor in (0.5, 1.0):
                raw = run(["noise", kind, factor, n], x.tobytes())
                ours = np.frombuffer(raw, dtype=np.float32)
                theirs = noise_filter(x.astype(np.float64), name, factor)
                check(f"noise filter {name} n={n} factor={factor}", np.abs(ours - theirs).max() / np.abs(x).max(),
                      1e-5)


def main():
    check_fft()
    check_wavelets()
    check_noise_filter()
    for failure in FAILURES:
        print("FAIL", failure)
    print(f"{len(FAILURES)} failures")
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
