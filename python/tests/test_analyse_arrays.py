"""analyse() on arrays and the console script, against closed-form signals."""

import numpy as np
import pytest

import tarnel64
from tarnel64 import cli

FS, F = 51200.0, 50.0


def steps(seconds, levels, phases=3, f=F):
    """Three-phase 230 V with the level of every phase stepped: levels = [(from_s, factor), ...]."""
    t = np.arange(int(seconds * FS)) / FS
    level = np.ones_like(t)
    for start, factor in levels:
        level[t >= start] = factor
    return np.stack([230 * np.sqrt(2) * level * np.sin(2 * np.pi * f * t - k * 2 * np.pi / 3) for k in range(phases)])


def signal(seconds, phases=3, swell=None):
    t = np.arange(int(seconds * FS)) / FS
    level = np.where((t >= swell[0]) & (t < swell[1]), 1.2, 1.0) if swell is not None else 1.0
    u = np.stack([230 * np.sqrt(2) * level * np.sin(2 * np.pi * F * t - k * 2 * np.pi / 3) for k in range(phases)])
    i = np.stack([5 * np.sqrt(2) * np.sin(2 * np.pi * F * t - k * 2 * np.pi / 3) for k in range(phases)])
    return u, i


def test_arrays_give_closed_form_values_and_a_swell_event():
    u, i = signal(3.0, swell=(1.0, 2.0))
    analysis = tarnel64.analyse((u, i), sample_rate=FS, grid="star", nominal_voltage=230, backend="cpu")
    periods = analysis.periods
    before = periods[periods["valid"] & (periods["t_end_s"] > 0.1) & (periods["t_end_s"] < 0.95)]
    during = periods[periods["valid"] & (periods["t_end_s"] > 1.1) & (periods["t_end_s"] < 1.95)]
    np.testing.assert_allclose(before["u_rms_V"], 230.0, rtol=1e-4)
    np.testing.assert_allclose(during["u_rms_V"], 276.0, rtol=1e-4)
    np.testing.assert_allclose(before["p_W"], 1150.0, rtol=1e-4)
    blocks = analysis.blocks
    assert (blocks["pf"].dropna() > 0.9999).all()
    events = analysis.events
    assert list(events["kind"]) == ["swell"] and events["phases"][0] == ["U1", "U2", "U3"]
    assert not events["ongoing"][0]
    np.testing.assert_allclose(events[["t_start_s", "duration_s"]].to_numpy()[0], [1.0, 1.0], atol=0.021)
    np.testing.assert_allclose(events["extreme_V"], 276.0, rtol=1e-3)
    assert "arrays" in analysis.summary()


def test_arrays_without_nominals_get_them_estimated_and_keep_their_start_time():
    # 120 V at 60 Hz, single phase, voltages only: the estimates must find both.
    t = np.arange(int(2.0 * FS)) / FS
    u = 120 * np.sqrt(2) * np.sin(2 * np.pi * 60.0 * t)[np.newaxis, :]
    analysis = tarnel64.analyse((u, None), sample_rate=FS, grid="single", backend="cpu",
                                start_time="2024-03-01T12:00:00+01:00")
    header = analysis.header
    assert (header["nominal_frequency_Hz"], header["nominal_frequency_source"]) == (60.0, "estimated")
    assert header["nominal_voltage_source"] == "estimated"
    np.testing.assert_allclose(header["nominal_voltage_V"], 120.0, rtol=1e-3)
    assert header["periods_per_block"] == 12 and header["start_time_utc"] == "2024-03-01T11:00:00.000000000Z"
    blocks = analysis.blocks
    assert ((blocks["t_start_utc"] - analysis.start).dt.total_seconds() - blocks["t_start_s"]).abs().max() < 1e-9
    assert len(analysis.events) == 0


def test_voltage_only_recordings_leave_currents_empty():
    u, _ = signal(1.0, phases=1)
    analysis = tarnel64.analyse((u.astype(np.float32), None), sample_rate=FS, grid="single", backend="cpu")
    assert analysis.blocks["i_rms_A"].isna().all() and analysis.blocks["p_W"].isna().all()
    np.testing.assert_allclose(analysis.blocks["u_rms_V"], 230.0, rtol=1e-5)
    assert analysis.h_i_A.shape == analysis.h_u_V.shape
    assert np.isnan(analysis.h_i_A).all()


def test_console_script_reports_and_refuses(records, tmp_path, capsys):
    page = tmp_path / "r.html"
    record = next(r for r in records if "ret670" in str(r))
    assert cli.main(["analyse", str(record), "--backend", "cpu", "--html", str(page)]) == 0
    assert page.stat().st_size > 50_000 and f"HTML report written to {page}" in capsys.readouterr().out
    assert cli.main(["analyse", str(tmp_path / "none.cfg")]) == 2
    assert "none.cfg: no such file" in capsys.readouterr().err
    with pytest.raises(SystemExit):
        cli.main(["analyse", str(record), "--backend", "gpu"])


def test_a_fault_ending_in_an_interruption_is_reported_ongoing():
    # A dip to 50 % at 1 s, every phase down to 3 % from 1.5 s to the end of the recording.
    u = steps(3.0, [(1.0, 0.5), (1.5, 0.03)])
    analysis = tarnel64.analyse((u, None), sample_rate=FS, grid="star", nominal_voltage=230, backend="cpu")
    events = analysis.events
    assert list(events["kind"]) == ["dip", "interruption"]
    dip, interruption = events.iloc[0], events.iloc[1]
    assert not dip["ongoing"] and interruption["ongoing"] and interruption["phases"] == ["U1", "U2", "U3"]
    np.testing.assert_allclose(dip["t_start_s"], 1.0, atol=0.021)
    # Every channel must be below the level for a whole period: at most two cycles after the step.
    assert 1.5 <= interruption["t_start_s"] <= 1.541
    np.testing.assert_allclose(dip["residual_pct"], 50.0, atol=1.0)
    np.testing.assert_allclose(interruption["residual_V"], 0.03 * 230, rtol=0.05)
    assert np.isnan(interruption["t_end_s"]) and np.isnan(interruption["duration_s"])
    assert "ongoing at end of recording" in analysis.summary()


def test_thresholds_decide_what_is_an_event():
    # Every phase at 87 % for half a second: a dip below 90 %, none below 85 %.
    u = steps(2.0, [(0.5, 0.87), (1.0, 1.0)])
    default = tarnel64.analyse((u, None), sample_rate=FS, grid="star", nominal_voltage=230, backend="cpu")
    assert list(default.events["kind"]) == ["dip"]
    np.testing.assert_allclose(default.events["duration_s"], 0.5, atol=0.021)
    lower = tarnel64.analyse((u, None), sample_rate=FS, grid="star", nominal_voltage=230, backend="cpu",
                             dip_threshold=85)
    assert len(lower.events) == 0 and lower.thresholds["dip"] == 85.0


def test_delta_arrays_estimate_a_phase_nominal_and_reverse_rotation_is_found():
    # 400 V line to line, 50 Hz, phases in the order L1-L3-L2.
    t = np.arange(int(1.0 * FS)) / FS
    u = np.stack([400 * np.sqrt(2) * np.sin(2 * np.pi * F * t + k * 2 * np.pi / 3) for k in range(3)])
    analysis = tarnel64.analyse((u, None), sample_rate=FS, grid="delta", backend="cpu")
    np.testing.assert_allclose(analysis.nominal_voltage, 400 / np.sqrt(3), rtol=1e-3)
    assert analysis.header["phase_order"] == "L1-L3-L2" and not analysis.header["phase_order_given"]


def test_orders_at_or_above_half_the_sample_rate_are_not_measured():
    # 2 kHz at 50 Hz: orders from about 20 lie at or above 1 kHz, by each block's frequency.
    fs = 2000.0
    t = np.arange(int(2.0 * fs)) / fs
    u = 230 * np.sqrt(2) * np.sin(2 * np.pi * F * t)[np.newaxis, :]
    analysis = tarnel64.analyse((u, None), sample_rate=fs, grid="single", backend="cpu")
    harmonics = analysis.harmonics.merge(analysis.blocks[["index", "freq_Hz"]], left_on="block_index",
                                         right_on="index")
    above = harmonics["order"] * harmonics["freq_Hz"] >= fs / 2
    assert above.any() and harmonics.loc[above, "h_u_V"].isna().all()
    assert harmonics.loc[~above, "h_u_V"].notna().all()
    assert np.isnan(analysis.h_u_V[:, 0, 21:]).all()
    np.testing.assert_allclose(harmonics.loc[harmonics["order"] == 1, "h_u_V"], 230.0, rtol=1e-4)
