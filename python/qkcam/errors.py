# SPDX-License-Identifier: MIT
"""The exceptions of qkcam: every failure of the engine is an Error that
carries the engine's result number and the step that failed."""

from typing import Dict, Optional, Type


class Error(Exception):
    """A camera operation failed.

    ``result`` is the engine's result number (see ``RESULTS``) and ``step`` names the engine step that failed
    ("PTPOpenSession", "SetPropertyData ISO Speed", ...)."""

    def __init__(self, message: str, result: int = 1, step: str = ""):
        super().__init__(message)
        self.result = result
        self.step = step


class UnknownProperty(Error, KeyError):
    """The camera has no property of that name."""

    def __str__(self) -> str:  # KeyError would quote the message
        return str(self.args[0]) if self.args else ""


class UnsupportedValue(Error, ValueError):
    """No such value, or a value the camera's other settings bar now."""


class LowBattery(Error):
    """The battery is too low for the operation."""


class OldModule(Error):
    """The camera's module is older than the version asked for."""


class NotReady(Error):
    """The camera is not ready (record mode, a busy preview, ...)."""


class CameraNotFound(Error):
    """No camera, or no single camera, answers the description."""


class Unsupported(Error):
    """The camera's model can't do that (manual focus on a model without it)."""


# The engine's result numbers and their names.
RESULTS = {0: "QK_OK", 1: "QK_ERROR", 4: "QK_NOT_READY", 6: "QK_UNKNOWN_PROPERTY",
           7: "QK_UNSUPPORTED_VALUE", 8: "QK_LOW_BATTERY", 13: "QK_OLD_MODULE"}

_BY_RESULT: Dict[int, Type[Error]] = {4: NotReady, 6: UnknownProperty, 7: UnsupportedValue, 8: LowBattery, 13: OldModule}
_BY_KIND: Dict[str, Type[Error]] = {"CameraNotFound": CameraNotFound, "Unsupported": Unsupported}


def make(result: int, step: str, message: str, kind: Optional[str] = None) -> Error:
    """The exception for an engine result (used by the engine module)."""
    cls = _BY_KIND.get(kind or "", _BY_RESULT.get(result, Error))
    name = RESULTS.get(result, str(result))
    if not message:
        message = f"{step} failed: {name}" if step else name
    elif not kind:
        message = f"{message}: {name}"
    return cls(message, result, step)
