"""tarnel64 analyse FILE [--html report.html]: the report of a recording, and its plots."""

from __future__ import annotations

import argparse
import sys

from .analysis import PHASE_ORDERS, analyse


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="tarnel64", description="Power analysis of recordings.")
    commands = parser.add_subparsers(dest="command", required=True)
    one = commands.add_parser("analyse", help="analyse a COMTRADE, CSV or WAV recording")
    one.add_argument("file")
    one.add_argument("--html", help="write an HTML report with plots to this file")
    one.add_argument("--backend", choices=["auto", "cpu", "cuda"], default="auto")
    one.add_argument("--nominal-voltage", type=float, help="nominal phase voltage, V")
    one.add_argument("--frequency", dest="nominal_frequency", type=float, help="nominal frequency, Hz")
    one.add_argument("--sample-rate", type=float, help="for CSV recordings without a time column")
    one.add_argument("--dip-threshold", type=float, help="dip start level in %% of nominal (default 90)")
    one.add_argument("--swell-threshold", type=float, help="swell start level in %% of nominal (default 110)")
    one.add_argument("--interruption-threshold", type=float,
                     help="all channels below this %% of nominal make an interruption (default 10)")
    one.add_argument("--phase-order", choices=list(PHASE_ORDERS), help="phase rotation (default: detected)")
    args = parser.parse_args(argv)
    options = {"backend": args.backend}
    for name in ("nominal_voltage", "nominal_frequency", "sample_rate", "dip_threshold", "swell_threshold",
                 "interruption_threshold", "phase_order"):
        if getattr(args, name) is not None:
            options[name] = getattr(args, name)
    try:
        result = analyse(args.file, **options)
    except (OSError, ValueError, RuntimeError) as error:
        print(f"tarnel64: {error}", file=sys.stderr)
        return 2
    print(result.summary(), end="")
    if args.html:
        result.to_html(args.html)
        print(f"HTML report written to {args.html}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
