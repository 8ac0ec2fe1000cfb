"""Shared fixtures: where the public recordings and the command-line analyser are."""

import os
import pathlib

import pytest

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]


def recordings_folder() -> pathlib.Path:
    """The public COMTRADE records: TARNEL_COMTRADE_DIR, the repository's test data,
    or the shared folder beside the repository."""
    candidates = [os.environ.get("TARNEL_COMTRADE_DIR"), REPOSITORY / "tests" / "data" / "comtrade",
                  REPOSITORY.parent / "shared" / "data" / "comtrade"]
    for candidate in candidates:
        if candidate and pathlib.Path(candidate).is_dir():
            return pathlib.Path(candidate)
    raise FileNotFoundError("no folder of public COMTRADE records; set TARNEL_COMTRADE_DIR")


@pytest.fixture(scope="session")
def records() -> list[pathlib.Path]:
    found = sorted(recordings_folder().glob("*/*.cfg"))
    assert len(found) >= 4, f"expected the four public records, found {found}"
    return found


@pytest.fixture(scope="session")
def analyser_cli() -> pathlib.Path:
    """The command-line analyser built from this tree (TARNEL_ANALYSE overrides)."""
    path = pathlib.Path(os.environ.get("TARNEL_ANALYSE", REPOSITORY / "build" / "tools" / "analyser" / "tarnel-analyse"))
    assert path.is_file(), f"{path} is missing: build the project first (cmake --build build) or set TARNEL_ANALYSE"
    return path
