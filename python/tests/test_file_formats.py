"""CSV and WAV recordings through analyse() and through tarnel-analyse give the same tables;
analyses in parallel threads give what they give one after the other."""

import threading
import wave

import numpy as np
from test_recordings import TABLES, assert_same_table, run_cli

import tarnel64

FS = 6400


def three_phase_with_dip(seconds=2.0):
    """Va, Vb, Vc at 230 V, 50 Hz; Vb at 60 % from 0.8 s to 1.2 s."""
    t = np.arange(int(seconds * FS)) / FS
    level = np.where((t >= 0.8) & (t < 1.2), 0.6, 1.0)
    return t, np.stack([230 * np.sqrt(2) * (level if k == 1 else 1.0) * np.sin(2 * np.pi * 50 * t - k * 2 * np.pi / 3)
                        for k in range(3)])


def test_csv_and_wav_recordings_agree_with_the_command_line(analyser_cli, tmp_path):
    t, u = three_phase_with_dip()
    csv = tmp_path / "rec.csv"
    np.savetxt(csv, np.column_stack([t, u.T]), delimiter=",", header="time,Va,Vb,Vc", comments="", fmt="%.9g")
    wav = tmp_path / "rec.wav"
    with wave.open(str(wav), "wb") as out:
        out.setnchannels(3)
        out.setsampwidth(2)
        out.setframerate(FS)
        out.writeframes(np.round(u.T / 400 * 32767).astype("<i2").tobytes())
    # A WAV file names no channels: they are chosen by number, as on the command line.
    for recording, voltages in ((csv, None), (wav, ["1", "2", "3"])):
        flags = ["--voltages", ",".join(voltages)] if voltages else []
        report, written = run_cli(analyser_cli, recording, tmp_path / f"{recording.suffix[1:]}-out", *flags)
        analysis = tarnel64.analyse(recording, backend="cpu", voltages=voltages)
        assert analysis.summary() == report
        for name in TABLES:
            assert_same_table(getattr(analysis, name), written[name], f"{recording.name} {name}")
        dips = analysis.events[analysis.events["kind"] == "dip"]
        assert len(dips) == 1 and dips.iloc[0]["phases"] == [analysis.header["channels"][1]["name"]]
        np.testing.assert_allclose(dips.iloc[0]["residual_pct"], 60.0, atol=1.0)


def test_analyses_in_parallel_threads_give_the_sequential_results(records):
    expected = {r: tarnel64.analyse(r, backend="cpu") for r in records}
    results = {}

    def analyse(record):
        results[record] = tarnel64.analyse(record, backend="cpu")

    threads = [threading.Thread(target=analyse, args=(r,)) for r in records]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for record, analysis in expected.items():
        assert results[record].summary() == analysis.summary()
        np.testing.assert_array_equal(results[record].blocks["u_rms_V"], analysis.blocks["u_rms_V"])
        assert results[record].events.equals(analysis.events)
