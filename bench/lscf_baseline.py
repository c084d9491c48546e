#!/usr/bin/python3
"""Baseline for bench_stability: the same order sweep written with numpy.

The common-denominator least-squares fit of every order nMin..nMax with the
Toeplitz sums taken once (as the library does), per order the Cholesky factor of
the numerator block applied to all channels in one solve, LU for the reduced system, and
the poles from numpy.linalg.eigvals of the companion matrix.

  lscf_baseline.py DATA NMIN NMAX RUNS

DATA: little-endian int64 lines, int64 channels, then lines float64 angular
frequencies and lines x channels complex128 values, column by column.
Prints the fastest and the median sweep time in seconds and the number of
poles of the highest order.
"""
import sys
import time

import numpy as np


def load(path):
    raw = open(path, "rb").read()
    lines, channels = np.frombuffer(raw[:16], dtype="<i8")
    omega = np.frombuffer(raw[16:16 + 8 * lines], dtype="<f8")
    h = np.frombuffer(raw[16 + 8 * lines:], dtype="<c16").reshape(channels, lines)
    return omega, h


def sweep(omega, h, n_min, n_max):
    f = omega / (2 * np.pi)
    f_min, f_max = f.min(), f.max()
    dt = 1.0 / (2.0 * (f_max - f_min))
    theta = 2 * np.pi * (f - f_min) * dt
    p = n_max + 1
    z = np.exp(1j * np.outer(theta, np.arange(p)))          # lines x p
    r = z.real.sum(axis=0)                                   # Re sum z^m
    plus = (h @ z).real                                      # C x p: Re sum H z^m
    minus = (h @ z.conj()).real                              # Re sum H z^-m
    power = (np.abs(h) ** 2).sum(axis=0) @ z.real            # Re sum |H|^2 z^m
    idx = np.arange(p)
    lag = idx[None, :] - idx[:, None]                        # l - j
    absl = np.abs(lag)
    last = None
    for n in range(n_min, n_max + 1):
        k = n + 1
        lg, al = lag[:k, :k], absl[:k, :k]
        big_r = r[al]
        t = power[al]
        s = -np.where(lg >= 0, plus[:, np.clip(lg, 0, None)], minus[:, np.clip(-lg, 0, None)])
        chol = np.linalg.cholesky(big_r)
        # L^-1 S_c for all channels in one solve: the S_c side by side.
        q = np.linalg.solve(chol, s.transpose(1, 0, 2).reshape(k, -1))
        stacked = q.reshape(k, -1, k).reshape(-1, k)         # every row of every Q_c
        m = t - stacked.T @ stacked
        a = np.empty(k)
        a[:n] = np.linalg.solve(m[:n, :n], -m[:n, n])
        a[n] = 1.0
        companion = np.zeros((n, n))
        companion[0, :] = -a[n - 1::-1][:n] / a[n]
        companion[np.arange(1, n), np.arange(n - 1)] = 1.0
        roots = np.linalg.eigvals(companion)
        s_poles = np.log(roots.astype(complex)) / dt
        last = s_poles[(s_poles.real < 0) & (s_poles.imag > 0)]
    return last


def main():
    path, n_min, n_max, runs = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
    omega, h = load(path)
    sweep(omega, h, n_min, min(n_max, n_min + 4))  # warm-up
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        poles = sweep(omega, h, n_min, n_max)
        times.append(time.perf_counter() - start)
    print("%.6f %.6f %d" % (min(times), float(np.median(times)), len(poles)))


if __name__ == "__main__":
    main()
