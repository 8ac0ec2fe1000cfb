"""analyse() on arrays and the console script, against closed-form signals."""

import numpy as np
import pytest

import tarnel64
from tarnel64 import cli

FS, F = 51200.0, 50.0


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
