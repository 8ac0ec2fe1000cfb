"""The HTML report, rendered by headless Chromium, shows its plots."""

import base64
import re
import shutil
import struct
import subprocess

import numpy as np
import pytest
from matplotlib import image

import tarnel64

WIDTH, HEIGHT = 1280, 1600


def png_size(data: bytes):
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG"
    return struct.unpack(">II", data[16:24])


def chromium():
    for name in ("chromium", "chromium-browser", "google-chrome"):
        if shutil.which(name):
            return shutil.which(name)
    pytest.fail("no chromium on PATH: scripts/install-deps.sh installs it")


def test_html_report_renders_with_its_plots(records, tmp_path):
    analysis = tarnel64.analyse(next(r for r in records if "pq_meter" in str(r)), backend="cpu")
    page = tmp_path / "report.html"
    analysis.to_html(page)
    html = page.read_text()
    embedded = base64.b64decode(re.search(r'src="data:image/png;base64,([^"]+)"', html).group(1))
    assert png_size(embedded) == (1170, 810)
    assert "Events" in html and analysis.description in html

    shot = tmp_path / "report.png"
    subprocess.run([chromium(), "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                    f"--screenshot={shot}", f"--window-size={WIDTH},{HEIGHT}", page.as_uri()],
                   check=True, capture_output=True, timeout=120)
    assert png_size(shot.read_bytes()) == (WIDTH, HEIGHT)
    pixels = image.imread(shot)[..., :3]
    # The plots fill the upper part of the page: lines, bars and text in many colours
    # (a blank or broken image leaves it white).
    plots = pixels[150:900]
    colours = np.unique((plots * 255).astype(np.uint8).reshape(-1, 3), axis=0)
    assert len(colours) > 200
    assert (plots.min(axis=2) < 0.9).mean() > 0.02
    saturated = plots.max(axis=2) - plots.min(axis=2) > 0.4
    assert saturated.sum() > 5000


def test_rms_trend_shows_thresholds_and_shades_ongoing_events_to_the_end(records):
    from matplotlib.figure import Figure

    analysis = tarnel64.analyse(next(r for r in records if "sel311" in str(r)), backend="cpu",
                                interruption_threshold=8)
    trend = analysis.plot(Figure()).axes[0]
    nominal = analysis.nominal_voltage
    levels = sorted(line.get_ydata()[0] for line in trend.lines if line.get_label().split()[0] in
                    ("dip", "swell", "interruption"))
    np.testing.assert_allclose(levels, [0.08 * nominal, 0.9 * nominal, 1.1 * nominal])
    spans = {patch.get_label(): (patch.get_x(), patch.get_x() + patch.get_width()) for patch in trend.patches}
    assert set(spans) == {"dip", "swell", "interruption (ongoing at end)"}
    ongoing = analysis.events[analysis.events["ongoing"]].iloc[0]
    np.testing.assert_allclose(spans["interruption (ongoing at end)"], [ongoing["t_start_s"], analysis.duration])
    assert "ongoing at end of recording" in tarnel64.plots.event_table(analysis)
