"""The package against the command-line analyser on the public records: the same report and
the same tables, value for value, as its CSV output; the console script prints the same."""

import math
import subprocess

import numpy as np
import pandas as pd
import pytest
from conftest import record_named

import tarnel64
from tarnel64 import cli

TABLES = ("blocks", "periods", "events", "harmonics")


def run_cli(analyser_cli, record, folder, *options):
    """The report tarnel-analyse prints and its CSV tables, read as a pandas user would."""
    done = subprocess.run([str(analyser_cli), str(record), "--backend", "cpu", "--csv", str(folder), *options],
                          capture_output=True, text=True, check=True)
    tables = {name: pd.read_csv(folder / f"{name}.csv") for name in (*TABLES, "header", "channels")}
    for name in TABLES:
        frame = tables[name].drop(columns=["record"], errors="ignore")
        for column in [c for c in frame.columns if c.endswith("_utc")]:
            frame[column] = pd.to_datetime(frame[column], utc=True, format="ISO8601")
        if name == "events":
            frame["phases"] = frame["phases"].str.split(";")
        tables[name] = frame
    return done.stdout, tables


def assert_same_table(ours: pd.DataFrame, written: pd.DataFrame, what: str):
    assert list(ours.columns) == list(written.columns), what
    if len(written) == 0:
        assert len(ours) == 0, what
        return
    pd.testing.assert_frame_equal(ours, written, check_dtype=False, check_exact=True, obj=what)


def assert_same_header(header: dict, written: pd.DataFrame, channels: pd.DataFrame):
    row = written.iloc[0].drop("record")
    for name, value in row.items():
        ours = header[name]
        if ours is None:
            assert isinstance(value, float) and math.isnan(value), name
        elif isinstance(ours, float):
            assert ours == float(value), name
        else:
            assert str(ours).lower() == str(value).lower(), name
    assert header["channels"] == channels.to_dict("records")


@pytest.mark.parametrize("part", ["pq_meter", "sel311", "earthfault", "ret670"])
def test_tables_and_report_match_the_command_line(records, analyser_cli, tmp_path, part):
    record = record_named(records, part)
    report, written = run_cli(analyser_cli, record, tmp_path)
    analysis = tarnel64.analyse(record, backend="cpu")
    assert analysis.summary() == report
    for name in TABLES:
        assert_same_table(getattr(analysis, name), written[name], f"{part} {name}")
    assert_same_header(analysis.header, written["header"], written["channels"])
    # The spectra arrays hold the harmonics table by block, phase and order.
    h = written["harmonics"]
    phase = h["phase"].str[1:].astype(int) - 1
    assert analysis.h_u_V.shape[:2] == (analysis.header["block_count"], analysis.header["phase_count"])
    np.testing.assert_array_equal(analysis.h_u_V[h["block_index"], phase, h["order"]], h["h_u_V"])
    np.testing.assert_array_equal(analysis.h_i_deg[h["block_index"], phase, h["order"]], h["h_i_deg"])


def test_options_reach_the_analysis_as_on_the_command_line(records, analyser_cli, tmp_path, capsys):
    record = record_named(records, "pq_meter")
    report, written = run_cli(analyser_cli, record, tmp_path, "--dip-threshold", "85", "--swell-threshold", "105",
                              "--interruption-threshold", "5", "--phase-order", "123")
    analysis = tarnel64.analyse(record, backend="cpu", dip_threshold=85, swell_threshold=105,
                                interruption_threshold=5, phase_order="L1-L2-L3")
    assert analysis.summary() == report
    assert_same_table(analysis.events, written["events"], "events")
    assert analysis.header["phase_order"] == "L1-L2-L3" and analysis.header["phase_order_given"]
    assert cli.main(["analyse", str(record), "--backend", "cpu", "--dip-threshold", "85", "--swell-threshold", "105",
                     "--interruption-threshold", "5", "--phase-order", "123"]) == 0
    assert capsys.readouterr().out == report


def test_ongoing_events_and_interruptions_read_as_the_records_show_them(records):
    # The meter's unbalanced dip is still in progress at the end; the relay's fault ends in an interruption.
    dip = tarnel64.analyse(record_named(records, "pq_meter"), backend="cpu").events.iloc[-1]
    assert (dip["kind"], dip["phases"], dip["ongoing"]) == ("dip", ["Vb", "Vc"], True)
    assert math.isnan(dip["t_end_s"]) and math.isnan(dip["duration_s"]) and pd.isna(dip["t_end_utc"])
    assert 55 < dip["residual_pct"] < 70 and dip["t_start_utc"].year == 2012
    fault = tarnel64.analyse(record_named(records, "sel311"), backend="cpu")
    kinds = list(fault.events["kind"])
    assert kinds[0] == "dip" and kinds[-1] == "interruption" and "swell" in kinds
    assert fault.events["ongoing"].tolist()[-1] and len(fault.events.iloc[-1]["phases"]) == 3
    assert "ongoing" in repr(fault)
