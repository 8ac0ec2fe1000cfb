"""The four report plots of an analysis and the self-contained HTML report."""

from __future__ import annotations

import base64
import html
import io
import warnings

import numpy as np

EVENT_COLOURS = {"dip": "tab:red", "swell": "tab:orange", "rvc": "tab:purple", "interruption": "black"}


def plot_analysis(analysis, figure=None):
    if figure is None:
        import matplotlib.pyplot as plt

        figure = plt.figure(figsize=(13, 9), layout="constrained")
    axes = figure.subplots(2, 2)
    figure.delaxes(axes[1, 0])
    phasor_axes = figure.add_subplot(2, 2, 3, projection="polar")
    _rms_trend(axes[0, 0], analysis)
    _spectrum(axes[0, 1], analysis)
    _phasors(phasor_axes, analysis)
    _frequency_trend(axes[1, 1], analysis)
    figure.suptitle(analysis.description)
    return figure


def _rms_trend(ax, analysis):
    periods = analysis.periods
    data, time = (periods, "t_end_s") if len(periods) else (analysis.blocks, "t_end_s")
    for phase, rows in data.groupby("phase"):
        ax.plot(rows[time], rows["u_rms_V"], label=f"U {phase}", lw=1)
    nominal = analysis.nominal_voltage
    estimated = " (estimated)" if analysis.header["nominal_voltage_estimated"] else ""
    for name, style in (("dip", "--"), ("swell", ":"), ("interruption", "-.")):
        pct = analysis.thresholds[name]
        ax.axhline(nominal * pct / 100.0, color="grey", ls=style, lw=0.8,
                   label=f"{name} {pct:g} % of {nominal:.5g} V{estimated}")
    shown = set()
    for event in analysis.events.itertuples():
        # An event still in progress is shaded to the end of the recording and hatched.
        end = analysis.duration if event.ongoing else event.t_end_s
        label = event.kind + (" (ongoing at end)" if event.ongoing else "")
        ax.axvspan(event.t_start_s, end, color=EVENT_COLOURS.get(event.kind, "tab:grey"), alpha=0.2,
                   hatch="//" if event.ongoing else None, label=None if label in shown else label)
        shown.add(label)
    ax.set(title="RMS voltage (events shaded)", xlabel="time / s", ylabel="U rms / V")
    ax.legend(fontsize="small")
    ax.grid(alpha=0.3)


def _spectrum(ax, analysis):
    harmonics = analysis.h_u_V
    if harmonics.size == 0 or harmonics.shape[2] < 3:
        ax.set_title("harmonic spectrum (none)")
        return
    fundamental = harmonics[:, :, 1:2]
    # Orders at or above half the sample rate are NaN in every block.
    with np.errstate(divide="ignore", invalid="ignore"), warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)
        share = np.nanmean(np.where(fundamental > 0, 100.0 * harmonics / fundamental, np.nan), axis=0)
    orders = np.arange(2, harmonics.shape[2])
    width = 0.8 / share.shape[0]
    for p in range(share.shape[0]):
        ax.bar(orders + (p - (share.shape[0] - 1) / 2) * width, share[p, 2:], width, label=f"U L{p + 1}")
    ax.set(title="voltage harmonics (mean over blocks)", xlabel="order", ylabel="% of fundamental")
    ax.legend(fontsize="small")
    ax.grid(alpha=0.3, axis="y")


def _phasors(ax, analysis):
    harmonics = analysis.h_u_V
    if harmonics.size == 0 or harmonics.shape[2] < 2:
        return
    # The first block: the system before the events. Angles are relative to L1's fundamental.
    magnitude, angle = harmonics[0, :, 1], np.radians(np.nan_to_num(analysis.h_u_deg[0, :, 1]))
    for p in range(len(magnitude)):
        ax.annotate("", xy=(angle[p], magnitude[p]), xytext=(0, 0),
                    arrowprops=dict(arrowstyle="->", color=f"C{p}", lw=2))
        ax.text(angle[p], magnitude[p] * 1.05, f"L{p + 1}", color=f"C{p}")
    ax.set_rmax(float(np.nanmax(magnitude)) * 1.2 or 1.0)
    title = "fundamental voltage phasors (first block)"
    if len(magnitude) == 3:
        s = analysis.sequences().iloc[0]
        order = analysis.header["phase_order"] or "rotation unknown"
        title += f", {order}\nU1 {s.u1_V:.4g} V, U2 {s.u2_V:.3g} V ({s.u2_pct:.2f} %), U0 {s.u0_V:.3g} V"
    ax.set_title(title, fontsize="medium")


def _frequency_trend(ax, analysis):
    periods = analysis.periods
    if len(periods):
        rows = periods[(periods["phase"] == "L1") & periods["valid"]]
        ax.plot(rows["t_end_s"], rows["freq_Hz"], lw=1, label="per period")
    blocks = analysis.blocks[analysis.blocks["phase"] == "L1"]
    ax.step(blocks["t_end_s"], blocks["freq_Hz"], where="pre", label="per block")
    ax.set(title="frequency", xlabel="time / s", ylabel="f / Hz")
    ax.legend(fontsize="small")
    ax.grid(alpha=0.3)


def figure_png(analysis) -> bytes:
    from matplotlib.figure import Figure

    figure = plot_analysis(analysis, Figure(figsize=(13, 9), layout="constrained"))
    buffer = io.BytesIO()
    figure.savefig(buffer, format="png", dpi=90)
    return buffer.getvalue()


def event_table(analysis) -> str:
    """The event table as the report shows it: "-" for what does not apply, ongoing events marked."""
    events = analysis.events
    if not len(events):
        return "<p>No events.</p>"
    shown = events.drop(columns=["index"]).assign(
        phases=events["phases"].map(" ".join),
        ongoing=events["ongoing"].map({True: "ongoing at end of recording", False: ""}))
    return shown.to_html(index=False, na_rep="-", float_format=lambda v: f"{v:.6g}")


def write_html(analysis, path) -> None:
    image = base64.b64encode(figure_png(analysis)).decode("ascii")
    title = html.escape(analysis.description)
    page = f"""<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>tarnel64: {title}</title>
<style>body{{font-family:sans-serif;margin:1.5em}} pre{{background:#f4f4f4;padding:1em}}
table{{border-collapse:collapse}} td,th{{border:1px solid #ccc;padding:2px 6px}}</style></head>
<body><h1>{title}</h1>
<img alt="RMS trend, harmonic spectrum, phasors and frequency" src="data:image/png;base64,{image}">
<h2>Events</h2>{event_table(analysis)}
<h2>Report</h2><pre>{html.escape(analysis.summary())}</pre>
</body></html>
"""
    with open(path, "w", encoding="utf-8") as out:
        out.write(page)
