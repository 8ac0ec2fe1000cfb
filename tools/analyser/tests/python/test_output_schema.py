"""The analyser's JSON Lines and CSV outputs, read the way a user reads them:
with pandas and no special handling, validated against the JSON Schema, and
checked against facts of the recordings (sample rates and start times from
their configuration files, the mains frequency, harmonics above half the
sample rate that cannot have been measured)."""

import json
import math
import os
import re
import subprocess
from pathlib import Path

import jsonschema
import numpy as np
import pandas as pd
import pytest

HERE = Path(__file__).resolve().parent
SCHEMA = HERE.parents[1] / "schema" / "tarnel64.analysis-1.schema.json"
ANALYSER = os.environ.get("TARNEL_ANALYSER", "tarnel-analyse")
DATA = Path(os.environ.get("TARNEL_COMTRADE_DATA_DIR", HERE.parents[1] / "recordings" / "testdata" / "comtrade"))

# name: (recording, extra options, sample rate and start time from the .cfg, mains frequency,
#        the system's phase voltage in volts before the event)
RECORDINGS = {
    "pq_meter": ("pq_meter_dip_60Hz/1999-ascii-pq.cfg", [], 7678.4833984375, "2012-07-11T08:44:21.051022Z", 60.0,
                 7870.0),
    # 1991 layout: the date is mm/dd/yy; no time zone, so the clock time is taken as UTC.
    "sel311": ("sel311l_CG_fault_1991/1991-ascii-sel.cfg", [], 960.0, "2011-02-12T11:41:11.081315Z", 60.0, 28700.0),
    # 2013 layout with time code +9: 09:19 on the recorder's clock is 00:19 UTC.
    "ret670": ("ret670_breaker_open_2013_float32/Comtrade1.cfg", [], 1200.0, "2023-07-27T00:19:53.156666511Z", 60.0,
               130400.0),
    # 83 sample-rate sections, put onto the highest of them; voltages only, secondary volts times the VT ratio.
    "earthfault": ("earthfault_swell_multirate_50Hz/1.cfg", [], 2410.745117, "2017-05-25T08:13:16.587Z", 50.0,
                   5860.0),
    "pq_meter_one_phase": ("pq_meter_dip_60Hz/1999-ascii-pq.cfg", ["--grid", "0", "--voltages", "Va"],
                           7678.4833984375, "2012-07-11T08:44:21.051022Z", 60.0, 7870.0),
}


def run_analyser(folder, recording=None, options=()):
    jsonl, csv = folder / "out.jsonl", folder / "csv"
    command = [ANALYSER, "--backend", "cpu", "--json", str(jsonl), "--csv", str(csv), *options]
    if recording:
        command.append(str(DATA / recording))
    done = subprocess.run(command, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    return {"jsonl": jsonl, "csv": csv, "report": done.stdout}


@pytest.fixture(scope="module", params=list(RECORDINGS))
def analysed(request, tmp_path_factory):
    assert DATA.is_dir(), f"the public recordings are missing: {DATA}"
    recording, options, rate, start, mains, voltage = RECORDINGS[request.param]
    out = run_analyser(tmp_path_factory.mktemp(request.param), recording, options)
    out.update(name=request.param, rate=rate, start=pd.Timestamp(start), mains=mains, voltage=voltage)
    return out


@pytest.fixture(scope="module")
def synthetic(tmp_path_factory):
    """The built-in recording: the one with scripted events (a dip, a swell, a voltage step)."""
    return run_analyser(tmp_path_factory.mktemp("synthetic"))


def json_records(out):
    with open(out["jsonl"], encoding="utf-8") as lines:
        return [json.loads(line) for line in lines]


def of_kind(records, kind):
    return [r for r in records if r["record"] == kind]


def test_every_json_line_follows_the_schema(analysed):
    validator = jsonschema.Draft202012Validator(json.loads(SCHEMA.read_text()))
    records = json_records(analysed)
    for number, record in enumerate(records, start=1):
        errors = sorted(validator.iter_errors(record), key=str)
        assert not errors, f"line {number}: {errors[0].message}"
    header = records[0]
    assert header["record"] == "header" and header["schema"] == "tarnel64.analysis/1"
    assert header["block_count"] == len(of_kind(records, "block")) > 0
    assert header["period_count"] == len(of_kind(records, "period"))
    assert header["event_count"] == len(of_kind(records, "event"))


def test_pandas_reads_json_lines_in_the_recordings_units(analysed):
    frame = pd.read_json(analysed["jsonl"], lines=True, precise_float=True)
    header = frame[frame.record == "header"].iloc[0]
    rate = analysed["rate"]
    assert header.sample_rate_Hz == rate  # every digit of the configuration's rate
    assert pd.Timestamp(header.start_time_utc) == analysed["start"]

    blocks = frame[frame.record == "block"]
    # Full precision: pandas reads the very doubles that the lines hold.
    assert blocks.t_end_s.tolist() == [b["t_end_s"] for b in of_kind(json_records(analysed), "block")]
    # Seconds from the first sample, to the last bit: the block's sample count at the sample rate.
    assert np.allclose(blocks.t_end_s - blocks.t_start_s, blocks.samples / rate, rtol=1e-12, atol=0)
    assert np.allclose(blocks.t_start_s, blocks.first_sample / rate, rtol=1e-12, atol=0)
    utc_offset = (pd.to_datetime(blocks.t_start_utc) - analysed["start"]).dt.total_seconds()
    assert np.allclose(utc_offset, blocks.t_start_s, atol=1e-9)
    assert blocks.freq_Hz.between(analysed["mains"] - 0.5, analysed["mains"] + 0.5).all()

    phases = pd.json_normalize(of_kind(json_records(analysed), "block"), record_path="per_phase", meta=["index"])
    assert phases.u_rms_V.dtype == np.float64
    # Volts, not kilovolts: the first block near the system's level (a fault may begin in it), none above a
    # swell of it (blocks of a dead line are near 0).
    first = phases[phases["index"] == 0]
    assert first.u_rms_V.between(0.5 * analysed["voltage"], 1.5 * analysed["voltage"]).all()
    assert (phases.u_rms_V < 1.5 * analysed["voltage"]).all()
    # The harmonic arrays are indexed by order: order 1 is the fundamental.
    fundamental = phases.h_u_V.map(lambda h: h[1])
    assert np.allclose(fundamental, phases.u_fund_V, rtol=1e-6)
    angles = np.array([a for row in phases.h_u_deg for a in row if a is not None])
    assert ((angles > -180) & (angles <= 180)).all()

    # Orders at or above half the sample rate cannot be measured: null, not 0.
    highest = header.harmonic_order_max
    for h_u, freq in zip(phases.h_u_V, np.repeat(blocks.freq_Hz.to_numpy(), len(phases) // len(blocks))):
        assert len(h_u) <= highest + 1
        assert all((value is None) == (order * freq >= rate / 2) for order, value in enumerate(h_u))


def test_quantities_not_measured_are_null(analysed):
    records = json_records(analysed)
    header = records[0]
    blocks = pd.json_normalize(of_kind(records, "block"))
    phases = pd.json_normalize(of_kind(records, "block"), record_path="per_phase")
    if header["phase_count"] == 1:
        # One phase: no unbalance, no line-to-line voltage, no totals.
        for column in ("u2_pct", "u0_pct", "i2_pct", "p_total_W", "pf_total"):
            assert blocks[column].isna().all(), column
        assert phases.ul_rms_V.isna().all()
    else:
        assert blocks.u2_pct.notna().all() and phases.ul_rms_V.notna().all()
    currents = any(c["quantity"] == "current" for c in header["channels"])
    assert phases.p_W.notna().all() == currents
    assert phases.h_i_A.notna().all() == currents
    if not currents:
        # Voltages only: every current quantity and power is null in blocks and periods alike.
        unmeasured = ["i_rms_A", "i_fund_A", "thd_i_pct", "p_W", "q1_var", "s_VA", "pf", "dpf", "h_i_A", "h_i_deg"]
        for column in unmeasured:
            assert phases[column].isna().all(), column
        for column in ("i2_pct", "i0_pct", "p_total_W", "s_total_VA"):
            assert blocks[column].isna().all(), column
        periods = pd.json_normalize(of_kind(records, "period"), record_path="per_phase")
        for column in ("i_rms_A", "p_W", "pf", "angle_ui_deg"):
            assert periods[column].isna().all(), column


def test_header_states_coverage_nominals_and_rotation(analysed):
    records = json_records(analysed)
    header = records[0]
    # Period values from the first whole cycle to the last; blocks to the last sample.
    cycle = 1.0 / analysed["mains"]
    assert header["periods_start_s"] <= 1.01 * cycle
    assert header["periods_end_s"] >= header["duration_s"] - 1.01 * cycle
    assert header["covered_end_s"] == pytest.approx(header["duration_s"], abs=1e-9)
    assert header["valid_period_count"] == sum(p["valid"] for p in of_kind(records, "period"))
    if analysed["name"] == "sel311":
        # The fault begins in the fourth cycle and the line goes dead: no period is confirmed, so the
        # frequency was not measured.
        assert header["valid_period_count"] == 0 and header["freq_measured_Hz"] is None
    else:
        assert header["freq_measured_Hz"] == pytest.approx(analysed["mains"], abs=0.05)
    # No nominal voltage was given: it is estimated from the cycles before the first disturbance.
    assert header["nominal_voltage_source"] == "estimated" and header["nominal_voltage_estimated"]
    assert header["nominal_voltage_V"] == pytest.approx(analysed["voltage"], rel=0.02)
    assert header["nominal_frequency_Hz"] == analysed["mains"]
    assert header["nominal_frequency_estimated"] == (header["nominal_frequency_source"] == "estimated")
    assert not header["phase_order_given"]
    if header["phase_count"] == 3:
        # The power-quality meter's phases follow each other A-C-B.
        assert header["phase_order"] == ("L1-L3-L2" if analysed["name"] == "pq_meter" else "L1-L2-L3")
    assert (header["resampling"] is not None) == (analysed["name"] == "earthfault")


def test_events_name_their_channels_and_agree_with_the_report(analysed):
    records = json_records(analysed)
    voltages = [c["name"] for c in records[0]["channels"] if c["quantity"] == "voltage"]
    events = of_kind(records, "event")
    for event in events:
        assert event["phases"] and set(event["phases"]) <= set(voltages), event["phases"]
        assert (event["t_end_s"] is None) == event["ongoing"] == (event["duration_s"] is None)
    expected = {
        # The dip in progress at the end of the recording, on Vb and Vc.
        "pq_meter": lambda e: e["kind"] == "dip" and e["ongoing"] and e["phases"] == ["Vb", "Vc"],
        # The breaker opens: every phase stays dead to the end.
        "sel311": lambda e: e["kind"] == "interruption" and e["ongoing"] and len(e["phases"]) == 3,
        # Re-strikes of the earth fault: dips of UB.
        "earthfault": lambda e: e["kind"] == "dip" and e["phases"] == ["UB"] and not e["ongoing"],
    }
    if analysed["name"] in expected:
        assert any(expected[analysed["name"]](e) for e in events), events
    if analysed["name"] == "ret670":
        assert not events
    expect_report_table_like_csv(analysed)


def test_csv_tables_hold_the_json_values_exactly(analysed):
    records = json_records(analysed)
    folder = analysed["csv"]
    header_csv = pd.read_csv(folder / "header.csv").iloc[0]
    header_json = {k: v for k, v in records[0].items() if k != "channels"}
    assert list(header_csv.index) == list(header_json)
    for name, value in header_json.items():
        assert pd.isna(header_csv[name]) if value is None else header_csv[name] == value, name
    channels = pd.read_csv(folder / "channels.csv")
    assert channels.to_dict("records") == records[0]["channels"]

    blocks = of_kind(records, "block")
    meta = [k for k in blocks[0] if k != "per_phase"]
    expected = pd.json_normalize(blocks, record_path="per_phase", meta=meta)
    table = pd.read_csv(folder / "blocks.csv")
    expected = expected[[c for c in table.columns]]  # scalar fields; the spectra are in harmonics.csv
    assert set(pd.json_normalize(blocks, record_path="per_phase").columns) - set(table.columns) == {
        "h_u_V", "h_u_deg", "ih_u_V", "h_i_A", "h_i_deg", "ih_i_A"}
    pd.testing.assert_frame_equal(table, expected.astype(table.dtypes.to_dict()), check_exact=True)

    harmonics = pd.read_csv(folder / "harmonics.csv")
    long = expected_harmonics(blocks)
    pd.testing.assert_frame_equal(harmonics[long.columns], long, check_exact=True, check_dtype=False)

    periods = of_kind(records, "period")
    if periods:
        meta = [k for k in periods[0] if k != "per_phase"]
        expected = pd.json_normalize(periods, record_path="per_phase", meta=meta)
        table = pd.read_csv(folder / "periods.csv")
        pd.testing.assert_frame_equal(table, expected[table.columns].astype(table.dtypes.to_dict()),
                                      check_exact=True)


def expected_harmonics(blocks):
    rows = []
    for block in blocks:
        for phase in block["per_phase"]:
            for order in range(len(phase["h_u_V"])):
                row = {"block_index": block["index"], "phase": phase["phase"], "order": order}
                for name in ("h_u_V", "h_u_deg", "ih_u_V", "h_i_A", "h_i_deg", "ih_i_A"):
                    values = phase[name]
                    row[name] = np.nan if values is None or values[order] is None else values[order]
                rows.append(row)
    return pd.DataFrame(rows)


def test_events_agree_in_json_csv_and_report(synthetic):
    records = json_records(synthetic)
    nominal = records[0]["nominal_voltage_V"]
    events = pd.json_normalize(of_kind(records, "event"))
    assert list(events.kind) == ["dip", "swell", "rvc"]
    assert list(events.phases) == [["U1"], ["U3"], ["U1", "U2", "U3"]]
    assert not events.ongoing.any()
    assert np.allclose(events.t_end_s - events.t_start_s, events.duration_s, atol=1e-12)
    assert np.allclose(events.extreme_pct, 100 * events.extreme_V / nominal, rtol=1e-12)
    dip, swell, rvc = (events.iloc[k] for k in range(3))
    assert math.isclose(dip.residual_V, dip.extreme_V) and math.isclose(dip.depth_pct, 100 - dip.residual_pct)
    assert pd.isna(swell.residual_V) and pd.isna(swell.depth_pct) and pd.isna(swell.step_V)
    assert rvc.step_V > 0 and pd.isna(rvc.residual_V)
    assert events.t_start_utc.isna().all()  # the synthetic recording has no start time

    table = pd.read_csv(synthetic["csv"] / "events.csv")
    assert list(table.phases) == ["U1", "U3", "U1;U2;U3"]
    scalar = events.drop(columns="phases")
    pd.testing.assert_frame_equal(table.drop(columns="phases")[scalar.columns], scalar, check_exact=True,
                                  check_dtype=False)
    expect_report_table_like_csv(synthetic)


def expect_report_table_like_csv(out):
    """The report's event table shows the events of events.csv, field for field."""
    table = pd.read_csv(out["csv"] / "events.csv", keep_default_na=False, na_values=[""])
    report = report_events(out["report"])
    assert len(report) == len(table)
    numbers = ["t_start_s", "t_end_s", "duration_s", "extreme_V", "extreme_pct", "residual_V", "residual_pct",
               "depth_pct", "step_V", "step_pct"]
    for (printed, ongoing), (_, row) in zip(report, table.iterrows()):
        assert printed[0] == row.kind and printed[1] == row.phases
        assert ongoing == row.ongoing
        for text, column in zip(printed[2:], numbers, strict=True):
            if text == "-":
                assert pd.isna(row[column]), column
            else:
                decimals = len(text.split(".")[1])
                assert float(text) == pytest.approx(row[column], abs=0.51 * 10 ** -decimals), column


def report_events(report):
    """The rows of the report's event table: [kind, phases, values...] and whether flagged ongoing."""
    lines = report[report.index("\nEvents ("):].splitlines()[3:]
    rows = []
    for line in lines:
        match = re.match(r"\s+(dip|swell|interruption|rvc)\s+(\S+)\s+(.*?)(  ongoing at end of recording)?$", line)
        if match:
            rows.append(([match.group(1), match.group(2), *match.group(3).split()], match.group(4) is not None))
    return rows
