#!/usr/bin/env python3
"""Times tarnel64.analyse against the command-line analyser and the numpy peer.

A 60 s, 51.2 kHz three-phase recording (three voltages, three currents, float
WAV) is analysed by `tarnel-analyse` and by `tarnel64.analyse` on the same
backend; the Python layer's share is the difference of the two wall times.
The numpy peer's block time (numpy_block.py) is scaled to the recording's
300 blocks. Exits with 1 when the Python layer adds more than 10 %.

    python3 python/bench/analyse_benchmark.py --cli build/tools/analyser/tarnel-analyse \
        --peer ../shared/bench/numpy_block.py
"""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import wave

import numpy as np

import tarnel64

FS, F, SECONDS = 51200, 50.0, 60.0
CHANNELS = {"voltages": ["channel 1", "channel 2", "channel 3"], "currents": ["channel 4", "channel 5", "channel 6"]}


def write_recording(path: pathlib.Path) -> None:
    """Float32 WAV (format 3) of physical values, written in one-second pieces."""
    frames = int(FS * SECONDS)
    with open(path, "wb") as out:
        data_bytes = frames * 6 * 4
        out.write(b"RIFF" + (36 + data_bytes).to_bytes(4, "little") + b"WAVEfmt ")
        out.write((16).to_bytes(4, "little") + (3).to_bytes(2, "little") + (6).to_bytes(2, "little"))
        out.write(FS.to_bytes(4, "little") + (FS * 24).to_bytes(4, "little") + (24).to_bytes(2, "little"))
        out.write((32).to_bytes(2, "little") + b"data" + data_bytes.to_bytes(4, "little"))
        for second in range(int(SECONDS)):
            t = (second * FS + np.arange(FS)) / FS
            w = 2 * np.pi * F * t
            shifts = [k * 2 * np.pi / 3 for k in range(3)]
            u = [230 * np.sqrt(2) * (np.sin(w - s) + 0.05 * np.sin(5 * (w - s))) for s in shifts]
            i = [10 * np.sqrt(2) * np.sin(w - s - np.pi / 6) for s in shifts]
            out.write(np.stack(u + i, axis=1).astype("<f4").tobytes())


def best_of(runs: int, action) -> float:
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        action()
        times.append(time.perf_counter() - start)
    return min(times)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cli", default="build/tools/analyser/tarnel-analyse")
    parser.add_argument("--peer", help="numpy_block.py of the shared benchmarks")
    parser.add_argument("--backend", default="cpu", choices=["auto", "cpu", "cuda"])
    parser.add_argument("--runs", type=int, default=3)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        recording = pathlib.Path(folder) / "three_phase_60s.wav"
        write_recording(recording)
        options = {"voltages": CHANNELS["voltages"], "currents": CHANNELS["currents"], "nominal_voltage": 230.0,
                   "nominal_frequency": F, "backend": args.backend}
        command = [args.cli, str(recording), "--backend", args.backend, "--nominal-voltage", "230",
                   "--frequency", "50", "--voltages", ",".join(CHANNELS["voltages"]),
                   "--currents", ",".join(CHANNELS["currents"]), "--no-progress"]
        subprocess.run(command, check=True, capture_output=True)  # warm the file cache
        cli_time = best_of(args.runs, lambda: subprocess.run(command, check=True, capture_output=True))
        analyses = []
        python_time = best_of(args.runs, lambda: analyses.append(tarnel64.analyse(recording, **options)))
    analysis = analyses[-1]
    blocks = len(analysis.block_records)
    print(f"recording: {SECONDS:g} s, {FS} Hz, 3 voltages + 3 currents; {blocks} blocks, "
          f"{len(analysis.period_records)} period values; backend {analysis.backend}")
    print(f"tarnel-analyse        {cli_time:8.3f} s")
    print(f"tarnel64.analyse      {python_time:8.3f} s  (analysis run inside: {min(a.run_seconds for a in analyses):.3f} s)")
    overhead = python_time / cli_time - 1.0
    print(f"Python layer adds     {100 * overhead:8.1f} %")
    if args.peer:
        output = subprocess.run([sys.executable, args.peer], check=True, capture_output=True, text=True).stdout
        per_block = float(re.findall(r"[-+]?\d*\.?\d+(?:[eE][-+]?\d+)?", output)[0])
        unit = 1e-3 if "ms" in output else 1.0
        print(f"numpy peer            {per_block * unit * blocks:8.3f} s  ({output.strip()})")
    return 0 if overhead <= 0.10 else 1


if __name__ == "__main__":
    sys.exit(main())
