"""The package against the command-line analyser on the public records: the same report,
the same events, and the console script printing what tarnel-analyse prints."""

import subprocess

import numpy as np
import pytest

import tarnel64
from tarnel64 import cli


def cli_report(analyser_cli, record):
    return subprocess.run([str(analyser_cli), str(record), "--backend", "cpu"], capture_output=True, text=True)


def test_reports_and_events_match_the_command_line(records, analyser_cli, capsys):
    for record in records:
        expected = cli_report(analyser_cli, record)
        if expected.returncode != 0:
            # A recording the analyser refuses is refused here with the same message.
            message = expected.stderr.strip().removeprefix("tarnel-analyse: ")
            with pytest.raises(RuntimeError) as refused:
                tarnel64.analyse(record, backend="cpu")
            assert str(refused.value) == message
            continue
        analysis = tarnel64.analyse(record, backend="cpu")
        assert analysis.summary() == expected.stdout, record
        # The event table of the report lists as many events as the DataFrame.
        assert f"Events ({len(analysis.events)})" in expected.stdout, record
        assert cli.main(["analyse", str(record), "--backend", "cpu"]) == 0
        assert capsys.readouterr().out == expected.stdout


def test_tables_agree_with_the_records(records):
    for record in records:
        try:
            analysis = tarnel64.analyse(record, backend="cpu")
        except RuntimeError:
            continue  # refused recordings are covered above
        blocks, periods = analysis.blocks, analysis.periods
        phases = int(analysis.block_records["phasesCount"][0])
        rms = analysis.block_records["phases"]["rmsU"][:, :phases]
        np.testing.assert_allclose(blocks[blocks["phase"] != "total"]["u_rms_V"].to_numpy(), rms.ravel(), rtol=1e-12)
        # Blocks tile the recording: each starts where the previous one ended.
        first = blocks[blocks["phase"] == "L1"]
        np.testing.assert_allclose(first["t_s"].to_numpy()[1:], (first["t_s"] + first["duration_s"]).to_numpy()[:-1],
                                   atol=1e-9)
        assert analysis.harmonics_u.shape[:2] == (len(analysis.block_records), phases)
        if len(periods):
            assert periods["t_s"].is_monotonic_increasing
        if analysis.start is not None:
            assert (blocks["t_utc"] - analysis.start).dt.total_seconds().sub(blocks["t_s"]).abs().max() < 1e-6
        assert list(analysis.events.columns[:3]) == ["kind", "phases", "t_s"]
