"""Shared fixtures: where the public recordings and the command-line analyser are."""

import os
import pathlib

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
# The public COMTRADE records kept with the analyser's test data.
RECORDINGS = REPOSITORY / "tools" / "analyser" / "recordings" / "testdata" / "comtrade"


@pytest.fixture(scope="session")
def records() -> list[pathlib.Path]:
    """The four public records (TARNEL_COMTRADE_DATA_DIR overrides the repository's copy)."""
    folder = pathlib.Path(os.environ.get("TARNEL_COMTRADE_DATA_DIR", RECORDINGS))
    found = sorted(folder.glob("*/*.cfg"))
    assert len(found) == 4, f"expected the four public records in {folder}, found {found}"
    return found


def record_named(records, part: str) -> pathlib.Path:
    return next(r for r in records if part in str(r))


@pytest.fixture(scope="session")
def analyser_cli() -> pathlib.Path:
    """The command-line analyser built from this tree (TARNEL_ANALYSER overrides)."""
    path = pathlib.Path(os.environ.get("TARNEL_ANALYSER", REPOSITORY / "build" / "tools" / "analyser" / "tarnel-analyse"))
    assert path.is_file(), f"{path} is missing: build the project first (cmake --build build) or set TARNEL_ANALYSER"
    return path
