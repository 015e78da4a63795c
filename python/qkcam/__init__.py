# SPDX-License-Identifier: MIT
"""Remote control of compact digital cameras over USB.

    import qkcam
    with qkcam.open() as cam:              # the one camera attached
        cam.properties["ISO Speed"] = "200"
        picture = cam.shoot()
        cam.download(picture, picture.name)

Every call that waits on a camera lets other Python threads run, so several
cameras can be driven from threads at once; Ctrl-C ends a long call at its
next step with KeyboardInterrupt and leaves the camera usable.
"""

import builtins
import os
import struct
from collections.abc import MutableMapping
from typing import TYPE_CHECKING, Any, Callable, Dict, Iterator, List, NamedTuple, Optional, Union

if TYPE_CHECKING:
    import numpy

from . import _qkcam
from .errors import (CameraNotFound, Error, LowBattery, NotReady, OldModule, RESULTS,
                     Unsupported, UnknownProperty, UnsupportedValue)

__version__: str = _qkcam.__version__

__all__ = ["CameraInfo", "File", "Camera", "Properties", "Rig", "Watch", "cameras", "open", "watch",
           "log_to", "Error", "UnknownProperty", "UnsupportedValue", "LowBattery", "OldModule",
           "NotReady", "CameraNotFound", "Unsupported", "RESULTS", "__version__"]


class CameraInfo(NamedTuple):
    """An attached camera: transport path, serial number, USB product string
    and model name (empty when no model record matches)."""
    path: str
    serial: str
    product: str
    model: str


class File(NamedTuple):
    """A file on the camera: handle (negative for a picture kept in camera
    memory), name and size in bytes."""
    id: int
    name: str
    size: int


FileLike = Union[File, int]


def _id(file: FileLike) -> int:
    return file.id if isinstance(file, File) else int(file)


def log_to(directory: str, console: bool = False) -> None:
    """Writes the engine's logs into `directory` (qkdll.log, qkdll_api.log)
    instead of /tmp, making the directory if needed. Call it before
    anything else of qkcam."""
    os.makedirs(directory, exist_ok=True)
    _qkcam.log_to(directory, console)


def cameras() -> List[CameraInfo]:
    """Every attached camera. A camera open in another process is listed
    with its path only."""
    return [CameraInfo(*camera) for camera in _qkcam.cameras()]


class Properties(MutableMapping[str, str]):
    """A camera's properties by display name; values are value names.

    Setting checks the value against what the camera's other settings allow
    now; a number is accepted for a value name made of digits ("200") or for
    the value's own number. Properties can't be deleted or added."""

    def __init__(self, camera: "_qkcam.Camera"):
        self._camera = camera

    def __getitem__(self, name: str) -> str:
        return self._camera.get(name)

    def __setitem__(self, name: str, value: Union[str, int]) -> None:
        self._camera.set(name, str(value))

    def __delitem__(self, name: str) -> None:
        raise TypeError("a camera's properties can't be deleted")

    def __iter__(self) -> Iterator[str]:
        return iter(self._camera.property_names())

    def __len__(self) -> int:
        return len(self._camera.property_names())

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and name.lower() in (n.lower() for n in self._camera.property_names())

    def __repr__(self) -> str:
        return "Properties(%r)" % dict(self.items())


Callback = Optional[Callable[..., None]]


def _hooks(on_property_changed: Callback, on_zoom_changed: Callback, on_focus_changed: Callback,
           on_property_list_changed: Callback, on_new_preview_frame: Callback) -> Optional["_qkcam.Hooks"]:
    given = (on_property_changed, on_zoom_changed, on_focus_changed, on_property_list_changed,
             on_new_preview_frame)
    if not any(given):
        return None
    hooks = _qkcam.Hooks()
    (hooks.property_changed, hooks.zoom_changed, hooks.focus_changed, hooks.property_list_changed,
     hooks.new_preview_frame) = given
    return hooks


class Camera:
    """One camera, ready for work. Use it as a context manager, or close()."""

    def __init__(self, engine: "_qkcam.Camera"):
        self._camera = engine
        self.path, self.serial, self.product, self.model = engine.identity
        self.properties = Properties(engine)

    def __enter__(self) -> "Camera":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._camera.closed else self.path
        return f"<qkcam.Camera {self.serial} {self.model or self.product} {state}>"

    def close(self) -> None:
        """Lets the camera go; later calls raise Error."""
        self._camera.close()

    @property
    def module_version(self) -> str:
        """The version of the camera's module."""
        return self._camera.module_version()

    @property
    def battery_level(self) -> str:
        """The battery level as the camera last reported it ("Level4", "DC", ...)."""
        return self._camera.battery()

    def values(self, name: str) -> List[str]:
        """Names of the values property `name` may take now."""
        return self._camera.values(name)

    @property
    def zoom(self) -> int:
        """The zoom position (0 is the widest); setting it moves the lens and
        returns once the lens stands there."""
        return self._camera.zoom()

    @zoom.setter
    def zoom(self, position: int) -> None:
        self._camera.set_zoom(position)

    @property
    def max_zoom(self) -> int:
        """The longest zoom position of the model."""
        return self._camera.max_zoom()

    @property
    def focus(self) -> int:
        """The manual focus position; setting it moves the lens (Unsupported
        on models without manual focus)."""
        return self._camera.focus()

    @focus.setter
    def focus(self, position: int) -> None:
        self._camera.set_focus(position)

    def focus_shift(self, shift: int) -> None:
        """Moves the focus by `shift` steps of the model's focus table."""
        self._camera.focus_shift(shift)

    def shoot(self, direct: bool = False) -> File:
        """Takes a picture onto the card, or into camera memory with `direct`."""
        return File(*self._camera.shoot(direct))

    def files(self) -> List[File]:
        """The files on the card, read afresh."""
        return [File(*f) for f in self._camera.files()]

    def download(self, file: FileLike, path: Union[str, "os.PathLike[str]"]) -> None:
        """Writes the file to `path`; on failure nothing new is left there."""
        self._camera.download(_id(file), os.fspath(path))

    def read(self, file: FileLike) -> bytes:
        """The file's bytes, without a file on disk."""
        return self._camera.read(_id(file))

    def remove(self, file: FileLike) -> None:
        """Deletes the file from the card (or camera memory)."""
        self._camera.remove(_id(file))

    def clean_card(self) -> None:
        """Removes the pictures IMG_0010 and later from the card."""
        self._camera.clean_card()

    def preview_bmp(self) -> bytes:
        """One live preview frame as a whole BMP file."""
        return self._camera.preview_bmp()

    def preview(self) -> "numpy.ndarray[Any, numpy.dtype[numpy.uint8]]":
        """One live preview frame as a NumPy array (height, width, 3) of
        uint8 in RGB order, top row first.

        The frame is copied once out of the camera's buffer (which is only
        lent); the array is a view on that copy, reading the BMP's
        bottom-up BGR rows through strides, with no further copy."""
        return bmp_to_array(self.preview_bmp())

    def start_video(self) -> None:
        """Starts recording a video."""
        self._camera.start_video()

    def stop_video(self) -> File:
        """Stops the video and gives its file."""
        return File(*self._camera.stop_video())


def bmp_to_array(bmp: bytes) -> "numpy.ndarray[Any, numpy.dtype[numpy.uint8]]":
    """A 24-bit uncompressed BMP as an RGB array (height, width, 3), top row
    first, viewing `bmp` without copying it."""
    import numpy
    if len(bmp) < 54 or bmp[:2] != b"BM":
        raise ValueError("not a BMP file")
    offset, = struct.unpack_from("<I", bmp, 10)
    width, height, _, bits, compression = struct.unpack_from("<iiHHI", bmp, 18)
    if bits != 24 or compression != 0 or width <= 0 or height == 0:
        raise ValueError(f"unsupported BMP: {bits} bits, compression {compression}, {width}x{height}")
    rows = abs(height)
    stride = (width * 3 + 3) & ~3
    if offset + stride * rows > len(bmp):
        raise ValueError(f"BMP of {len(bmp)} bytes is too short for {width}x{rows}")
    pixels = numpy.frombuffer(bmp, numpy.uint8, stride * rows, offset).reshape(rows, stride)
    if height > 0:  # bottom-up
        pixels = pixels[::-1]
    return pixels[:, :width * 3].reshape(rows, width, 3)[:, :, ::-1]


def open(serial: Optional[str] = None, path: Optional[str] = None, *,
         on_property_changed: Optional[Callable[[str, str], None]] = None,
         on_zoom_changed: Optional[Callable[[int], None]] = None,
         on_focus_changed: Optional[Callable[[int], None]] = None,
         on_property_list_changed: Optional[Callable[[], None]] = None,
         on_new_preview_frame: Optional[Callable[[], None]] = None) -> Camera:
    """Opens a camera and makes it ready (session, module version, record
    mode, flags, properties): the one with `serial`, the one at `path`, or
    with neither the only one attached (CameraNotFound otherwise).

    The callbacks run on the thread of the operation that raised them;
    on_property_changed gets (property name, value name)."""
    hooks = _hooks(on_property_changed, on_zoom_changed, on_focus_changed, on_property_list_changed,
                   on_new_preview_frame)
    return Camera(_qkcam.Camera.open(serial, path, hooks))


def _outcome(result: int, step: str, message: str) -> Error:
    from .errors import make
    return make(result, step, message)


class Rig:
    """Many cameras at once: those with the given serials, or every one
    attached. Cameras that could not be opened are in `failures`."""

    def __init__(self, serials: Optional[List[str]] = None):
        self._rig = _qkcam.Rig(serials)
        self.cameras: List[Camera] = [Camera(c) for c in self._rig.cameras]
        self.failures: Dict[str, Error] = {s: _outcome(r, st, m) for s, r, st, m, _ in self._rig.failures}
        self.last_spread_ms: Optional[float] = None

    def __enter__(self) -> "Rig":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        """Lets every camera go."""
        self._rig.close()

    def shoot(self, direct: bool = False) -> Dict[str, Union[File, Error]]:
        """Shoots every camera at the same instant; per serial the new File,
        or the Error of that camera. `last_spread_ms` then holds the spread
        of the shoot commands' arrival when the cameras report it (virtual
        cameras started with --trace)."""
        shots = self._rig.shoot(direct)
        self.last_spread_ms = _spread_from_trace([s for s, r, *_ in shots if r == 0], direct)
        return {s: (File(*f) if r == 0 else _outcome(r, st, m)) for s, r, st, m, f in shots}

    def set(self, name: str, value: Union[str, int]) -> Dict[str, Optional[Error]]:
        """Sets a property on every camera; per serial None or the Error."""
        return {s: (None if r == 0 else _outcome(r, st, m))
                for s, r, st, m, _ in self._rig.set(name, str(value))}

    def download_all(self, directory: Union[str, "os.PathLike[str]"],
                     files: Optional[Dict[str, FileLike]] = None) -> Dict[str, Optional[Error]]:
        """Downloads into DIRECTORY/<serial>/<name>, every camera at once:
        the files given per serial (a shoot's result), or all of each card."""
        ids = {s: [_id(f)] for s, f in (files or {}).items() if not isinstance(f, Error)}
        return {s: (None if r == 0 else _outcome(r, st, m))
                for s, r, st, m, _ in self._rig.download_all(os.fspath(directory), ids)}


def _spread_from_trace(serials: List[str], direct: bool) -> Optional[float]:
    """Latest minus earliest arrival of each camera's last shoot command, from
    the virtual cameras' trace (QKCAM_TRACE); None without one."""
    import json
    trace = os.environ.get("QKCAM_TRACE")
    if not trace or len(serials) < 2:
        return None
    command = _qkcam.SHOOT_COMMANDS[1 if direct else 0]
    last: Dict[str, int] = {}
    try:
        with builtins.open(trace) as lines:
            for line in lines:
                entry = json.loads(line)
                if entry.get("subCommand") == command and entry.get("serial") in serials:
                    last[entry["serial"]] = int(entry["ns"])
    except (OSError, ValueError):
        return None
    if len(last) < len(set(serials)):
        return None
    return (max(last.values()) - min(last.values())) / 1e6


class Watch:
    """A running watch; stop() ends it."""

    def __init__(self, engine: "_qkcam.Watch"):
        self._watch = engine

    def stop(self) -> None:
        """Stops watching; no callback runs after it returns (unless called
        from the callback itself, which then is the last)."""
        self._watch.stop()


def watch(callback: Callable[[str, CameraInfo], None]) -> Watch:
    """Calls callback("arrived" | "left", CameraInfo) for each camera plugged
    in or pulled out from now on, on a thread of the watch that holds the
    GIL only while the callback runs."""
    return Watch(_qkcam.Watch(lambda event, camera: callback(event, CameraInfo(*camera))))
