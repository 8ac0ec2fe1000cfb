"""tarnel64: power analysis and power quality of voltage and current samples.

Module: the streaming API (samples in, block results and period values out).
analyse: one recording (COMTRADE, CSV, WAV or arrays) as the command-line analyser runs it.
analyse_many: many recordings on a Dask cluster.
"""

from ._core import DeviceError, cuda_available
from .analysis import Analysis, analyse
from .fleet import Fleet, analyse_many
from .module import BlockResults, Module, PeriodValues, RingView

__all__ = ["Analysis", "BlockResults", "DeviceError", "Fleet", "Module", "PeriodValues", "RingView", "analyse",
           "analyse_many", "cuda_available"]
__version__ = "0.1.0"
