#!/usr/bin/env python3
"""Writes a binary COMTRADE (1999, BINARY32) recording for the analyser benchmark:
three phase voltages and three currents at 51.2 kHz, 230 V / 10 A at 50 Hz with a
harmonic mix. Usage: make_comtrade.py OUT_BASENAME [SECONDS]"""
import sys

import numpy as np

FS, F, SECONDS = 51200, 50.0, float(sys.argv[2]) if len(sys.argv) > 2 else 60.0


def main():
    base = sys.argv[1]
    n = int(FS * SECONDS)
    names = ["VA", "VB", "VC", "IA", "IB", "IC"]
    units = ["V", "V", "V", "A", "A", "A"]
    scale = [0.001, 0.001, 0.001, 0.0001, 0.0001, 0.0001]
    with open(base + ".cfg", "w", newline="\r\n") as cfg:
        cfg.write("benchmark,tarnel64,1999\n6,6A,0D\n")
        for k, (name, unit, a) in enumerate(zip(names, units, scale), 1):
            phase = name[1]
            cfg.write(f"{k},{name},{phase},,{unit},{a},0,0,-2147483647,2147483647,1,1,P\n")
        cfg.write(f"{F:g}\n1\n{FS},{n}\n01/01/2026,00:00:00.000000\n01/01/2026,00:00:00.000000\nBINARY32\n1\n")
    record = np.dtype([("n", "<u4"), ("t", "<u4"), ("v", "<i4", 6)])
    chunk = FS
    with open(base + ".dat", "wb") as dat:
        for first in range(0, n, chunk):
            k = np.arange(first, min(first + chunk, n))
            w = 2 * np.pi * F * k / FS
            rows = np.zeros(len(k), dtype=record)
            rows["n"] = k + 1
            rows["t"] = (k * 1e6 / FS).astype(np.uint32)
            for p in range(3):
                wp = w - p * 2 * np.pi / 3
                u = 230 * np.sqrt(2) * (np.sin(wp) + 0.03 * np.sin(5 * wp) + 0.02 * np.sin(3 * wp))
                i = 10 * np.sqrt(2) * np.sin(wp - np.pi / 8)
                rows["v"][:, p] = np.round(u / scale[p])
                rows["v"][:, 3 + p] = np.round(i / scale[3 + p])
            rows.tofile(dat)


if __name__ == "__main__":
    main()
