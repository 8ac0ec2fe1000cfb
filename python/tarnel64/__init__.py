from . import _core
