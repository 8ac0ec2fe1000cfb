"""Closed-form signals through the streaming module."""

import numpy as np
import pytest

import tarnel64

FS, F = 51200.0, 50.0
BLOCK = 10240  # ten periods


def three_phase(seconds, u_rms=230.0, i_rms=10.0, fifth=0.05, shift=np.pi / 6, envelope=None):
    t = np.arange(int(seconds * FS)) / FS
    scale = np.ones_like(t) if envelope is None else envelope(t)
    u = np.stack([u_rms * np.sqrt(2) * scale * (np.sin(2 * np.pi * F * t - k * 2 * np.pi / 3)
                                                + fifth * np.sin(5 * (2 * np.pi * F * t - k * 2 * np.pi / 3)))
                  for k in range(3)])
    i = np.stack([i_rms * np.sqrt(2) * np.sin(2 * np.pi * F * t - k * 2 * np.pi / 3 - shift) for k in range(3)])
    return u, i


def stream(module, u, i, chunk):
    """Writes in chunks and schedules each whole block as soon as it is in the ring."""
    scheduled = 0
    for start in range(0, u.shape[1], chunk):
        module.write(np.ascontiguousarray(u[:, start:start + chunk]), np.ascontiguousarray(i[:, start:start + chunk]))
        while scheduled + BLOCK <= module.written:
            module.schedule(scheduled, BLOCK, F)
            scheduled += BLOCK
            module.sync()  # the ring is short: collect before its samples are overwritten
            yield module.results()


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_block_values_match_the_closed_form(dtype):
    u, i = three_phase(1.0)
    module = tarnel64.Module(backend="cpu", rvc=False)
    module.write(u.astype(dtype), i.astype(dtype))
    for b in range(5):
        module.schedule(b * BLOCK, BLOCK, F)
    results = module.results()
    phases = results.to_pandas()
    assert len(results) == 5 and len(phases) == 15 and list(phases["phase"][:3]) == ["L1", "L2", "L3"]
    np.testing.assert_allclose(phases["u_rms_V"], 230.0 * np.sqrt(1 + 0.05**2), rtol=1e-5)
    np.testing.assert_allclose(phases["thd_u_pct"], 5.0, rtol=1e-3)
    np.testing.assert_allclose(phases["i_rms_A"], 10.0, rtol=1e-5)
    np.testing.assert_allclose(phases["p_W"], 2300.0 * np.cos(np.pi / 6), rtol=1e-5)
    np.testing.assert_allclose(phases["q1_var"], 2300.0 * np.sin(np.pi / 6), rtol=1e-4)
    np.testing.assert_allclose(phases["dpf"], np.cos(np.pi / 6), rtol=1e-5)
    np.testing.assert_allclose(phases["p_total_W"], 3 * 2300.0 * np.cos(np.pi / 6), rtol=1e-5)
    np.testing.assert_allclose(phases["u2_pct"], 0.0, atol=1e-3)
    assert phases["t_start_utc"].isna().all()
    # The columns are those of the analyser's block table.
    analysed = tarnel64.analyse((u, i), sample_rate=FS, grid="star", backend="cpu")
    assert list(phases.columns) == list(analysed.blocks.columns)
    # The structured records and the harmonic arrays carry the same values.
    np.testing.assert_array_equal(results.records["phases"]["rmsU"][:, :3].ravel(), phases["u_rms_V"])
    np.testing.assert_allclose(results.h_u_V[:, :, 5] / results.h_u_V[:, :, 1], 0.05, rtol=1e-3)
    assert np.isnan(results.h_u_V).sum() == 0
    np.testing.assert_allclose(results.sequences()["u2_pct"], 0.0, atol=1e-3)


def test_what_a_system_does_not_measure_is_nan():
    # One phase, voltages only: no currents, powers, line-to-line voltage or unbalance.
    u, _ = three_phase(0.5)
    module = tarnel64.Module(grid="single", currents=0, backend="cpu")
    module.write(u[:1])
    for b in range(2):
        module.schedule(b * BLOCK, BLOCK, F)
    frame = module.results().to_pandas()
    assert list(frame["phase"]) == ["L1", "L1"]
    absent = ["i_rms_A", "i_fund_A", "thd_i_pct", "p_W", "q1_var", "s_VA", "pf", "dpf", "ul_rms_V", "u2_pct",
              "i2_pct", "p_total_W", "pf_total"]
    assert frame[absent].isna().all().all()
    np.testing.assert_allclose(frame["thd_u_pct"], 5.0, rtol=1e-3)
    np.testing.assert_allclose(frame["u_fund_V"], 230.0, rtol=1e-5)


def test_writes_across_the_ring_end_keep_every_sample():
    # A ring of 0.5 s and chunks of a length that divides neither the ring nor a block.
    u, i = three_phase(3.0)
    module = tarnel64.Module(backend="cpu", ring_seconds=0.5, period_values=False)
    blocks = [r.to_pandas() for r in stream(module, u, i, chunk=7777)]
    frame = __import__("pandas").concat(blocks)
    assert module.written == u.shape[1] and len(blocks) == u.shape[1] // BLOCK
    np.testing.assert_allclose(frame["u_rms_V"], 230.0 * np.sqrt(1 + 0.05**2), rtol=1e-5)
    np.testing.assert_allclose(frame["p_W"], 2300.0 * np.cos(np.pi / 6), rtol=1e-5)


def test_period_values_follow_a_dip_and_report_it():
    # 230 V, then 40 % of it from 0.5 s to 0.7 s, then 230 V again.
    dip = lambda t: np.where((t >= 0.5) & (t < 0.7), 0.4, 1.0)  # noqa: E731
    u, i = three_phase(1.6, fifth=0.0, envelope=dip)
    module = tarnel64.Module(backend="cpu", dips=True)
    module.write(u, i)
    for b in range(u.shape[1] // BLOCK):
        module.schedule(b * BLOCK, BLOCK, F)
    module.sync()
    module.results()
    values = module.period_values()
    frame = values.to_pandas()
    steady = frame[frame["valid"] & ((frame["t_end_s"] < 0.45) | (frame["t_end_s"] > 0.8)) & (frame["t_end_s"] < 1.3)]
    assert len(steady) > 60
    np.testing.assert_allclose(steady["u_rms_V"], 230.0, rtol=1e-4)
    np.testing.assert_allclose(steady["freq_Hz"], 50.0, rtol=1e-4)
    # Periods near the steps sit on crossings the step itself shifts a little.
    inside = frame[(frame["t_end_s"] > 0.55) & (frame["t_end_s"] < 0.69)]
    assert len(inside) >= 18
    np.testing.assert_allclose(inside["u_rms_V"], 92.0, rtol=5e-3)
    # The columns are those of the analyser's period table, per phase row.
    analysed = tarnel64.analyse((u, i), sample_rate=FS, grid="star", nominal_voltage=230.0, backend="cpu")
    assert list(frame.columns) == list(analysed.periods.columns)
    assert frame["freq_Hz"].isna().equals(~frame["valid"]) and frame["u2_pct"].notna().all()
    events = values.events()
    assert sorted(p for ps in events["phases"] for p in ps) == ["L1", "L2", "L3"]
    assert (events["kind"] == "dip").all()
    np.testing.assert_allclose(events["t_start_s"], 0.5, atol=0.021)
    np.testing.assert_allclose(events["duration_s"], 0.2, atol=0.021)
    np.testing.assert_allclose(events["extreme_V"], 92.0, rtol=1e-2)


def test_record_dtypes_have_the_library_layout():
    block = tarnel64._records.record_dtype("block")
    period = tarnel64._records.record_dtype("period")
    assert (block.itemsize, period.itemsize) == (3808, 568)
    assert block.fields["phases"][1] == 56 and block.fields["symmetricalComponents"][1] == 3160
    assert period.fields["valid"][1] == 136 and period.fields["symmetricalComponent"][1] == 400


def test_ring_view_shares_the_ring_until_the_module_is_rebuilt():
    u, i = three_phase(0.1)
    module = tarnel64.Module(backend="cpu")
    view = module.ring_view("u", 1)
    module.write(u, i)
    np.testing.assert_array_equal(np.asarray(view)[: u.shape[1]], u[1].astype(np.float32))
    module.reconfigure()
    with pytest.raises(RuntimeError, match="rebuilt"):
        np.asarray(view)
