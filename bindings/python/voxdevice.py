"""VoxDevice from Python: voice mice, older hardware, microphones and the speaker. The standard library alone.

    import voxdevice

    with voxdevice.Hub(desk="desk.json") as hub:
        mouse = hub.wait_for_device("Wren")
        hub.wait_for(lambda event: event.is_button("left", "down"))
        with hub.recording(mouse) as recording:
            hub.wait_for(lambda event: event.is_button("left", "up"))
        voxdevice.write_wav("take.wav", recording.samples)

The library is libVoxDeviceC.so or VoxDeviceC.dll: the one that VOXDEVICE_LIBRARY names, the one beside this file, or the
system's. On Linux it comes with a simulated desk, which `desk` chooses (a desk file; the first Hub of the process
decides). Every function of the flat interface is there as voxdevice.library.vox_..., and raises Error for a result
below zero. Objects may be used from any thread.
"""

from __future__ import annotations

import array
import ctypes
import ctypes.util
import os
import sys
import threading
import time
import wave
from pathlib import Path
from types import TracebackType
from typing import Callable, Iterator, NamedTuple, Optional

LINKS = ("", "Bluetooth LE", "USB", "receiver")
EVENTS = ("", "connect", "disconnect", "mouse_connect", "voice", "dpi", "mouse_state", "dongle_state", "power", "url",
          "update", "update_progress", "mkeys", "main_menu", "main_window", "audio_end", "button", "lost",
          "speech_lost")
BUTTONS = ("left", "right", "key1", "key2")
BUTTON_EVENTS = ("up", "down", "short_press", "double_click", "double_click_no_net")
RATE = 16000  # Hz

END = -14


class Error(Exception):
    """A function's result below zero: `code`, and its text."""

    def __init__(self, code: int, text: str, what: str) -> None:
        super().__init__(f"{what}: {text}")
        self.code = code


class _Event(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("kind", ctypes.c_int32), ("device", ctypes.c_int32),
                ("value", ctypes.c_int32 * 6)]


class Event(NamedTuple):
    """What the library tells: `kind` is one of EVENTS, `values` are those that voxdevice.h lists for it."""

    kind: str
    device: int
    values: tuple[int, ...]

    def is_button(self, button: str, what: str) -> bool:
        return self.kind == "button" and self.values[:2] == (BUTTONS.index(button), BUTTON_EVENTS.index(what))


class Device(NamedTuple):
    number: int
    model: str
    link: str


class _Library:
    """The functions of the flat interface, loaded when the first is used."""

    def __init__(self) -> None:
        self._library: Optional[ctypes.CDLL] = None

    @staticmethod
    def path() -> str:
        name = "VoxDeviceC.dll" if sys.platform == "win32" else "libVoxDeviceC.so"
        beside = Path(__file__).resolve().with_name(name)
        found = os.environ.get("VOXDEVICE_LIBRARY") or (str(beside) if beside.exists() else None)
        found = found or ctypes.util.find_library("VoxDeviceC")
        if not found:
            raise OSError(f"{name} is not installed, not beside {__file__}, and VOXDEVICE_LIBRARY names none")
        return found

    @property
    def is_loaded(self) -> bool:
        return self._library is not None

    def __getattr__(self, name: str) -> Callable[..., int]:
        if not name.startswith("vox_"):
            raise AttributeError(name)
        if self._library is None:
            self._library = ctypes.CDLL(self.path())
        function = getattr(self._library, name)
        if name in ("vox_version", "vox_error_text"):
            function.restype = ctypes.c_char_p
            return function
        function.restype = ctypes.c_int32

        def call(*arguments: object) -> int:
            encoded = [a.encode() if isinstance(a, str) else a for a in arguments]
            result: int = function(*encoded)
            if result < 0 and name != "vox_api_version":
                raise Error(result, self.vox_error_text(result).decode(), name)
            return result

        setattr(self, name, call)
        return call

    def text(self, name: str, *arguments: object) -> str:
        """A text that a function of (..., text, capacity) gives."""
        room = ctypes.create_string_buffer(getattr(self, name)(*arguments, None, 0) or 1)
        getattr(self, name)(*arguments, room, len(room))
        return room.value.decode()


library = _Library()


class Source:
    """Something that records: 16 kHz, mono, signed 16 bits. A context manager, which destroys it."""

    def __init__(self, handle: int) -> None:
        self.handle = handle

    def destroy(self) -> None:
        if self.handle:
            handle, self.handle = self.handle, 0
            library.vox_destroy(handle)

    def __enter__(self):  # -> Self
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.destroy()

    def read(self, samples: int = 4096, seconds: float = 1.0) -> Optional[array.array]:
        """So many samples at most, an empty array when none come in time, None at the end of the recording."""
        room = (ctypes.c_int16 * samples)()
        try:
            count = library.vox_read(self.handle, room, samples, int(seconds * 1000))
        except Error as error:
            if error.code == END:
                return None
            raise
        return array.array("h", room[:count])

    def blocks(self) -> Iterator[array.array]:
        """What is recorded, as it comes, until somebody stops."""
        while (block := self.read()) is not None:
            if block:
                yield block


class Recording:
    """From `with` to its end. `samples` has what was recorded, whole after the end. Read on a thread of its own."""

    def __init__(self, source: Source) -> None:
        self.source = source
        self.samples = array.array("h")
        self._reader = threading.Thread(target=self._read)

    def _read(self) -> None:
        for block in self.source.blocks():
            self.samples.extend(block)

    def __enter__(self) -> Recording:
        library.vox_record_start(self.source.handle)
        self._reader.start()
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        try:
            library.vox_record_stop(self.source.handle)
        finally:
            self._reader.join()


class Hub(Source):
    """Every current model. Opened when it is made, closed and destroyed at the end of `with`."""

    def __init__(self, desk: Optional[str | os.PathLike[str]] = None) -> None:
        if desk is not None:
            if library.is_loaded:
                raise RuntimeError("the desk is chosen by the first Hub of the process")
            os.environ["VOXDEVICE_DESK"] = os.fspath(desk)
        super().__init__(library.vox_hub_create())
        library.vox_hub_open(self.handle)

    def devices(self) -> list[Device]:
        room = (ctypes.c_int32 * 64)()
        count = min(library.vox_hub_devices(self.handle, room, len(room)), len(room))
        return [self.device(number) for number in room[:count]]

    def device(self, number: int) -> Device:
        model = library.text("vox_model_name", library.vox_hub_model(self.handle, number))
        return Device(number, model.removeprefix("VoxMouse "), LINKS[library.vox_hub_link(self.handle, number)])

    def next_event(self, seconds: float = 1.0) -> Optional[Event]:
        """The next event of the process, or None."""
        event = _Event(size=ctypes.sizeof(_Event))
        if not library.vox_next_event(ctypes.byref(event), int(seconds * 1000)):
            return None
        kind = EVENTS[event.kind] if event.kind < len(EVENTS) else str(event.kind)
        return Event(kind, event.device, tuple(event.value))

    def wait_for(self, wanted: Callable[[Event], bool], seconds: float = 60.0) -> Event:
        """The first event that is wanted; those before it are dropped. TimeoutError."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            event = self.next_event(min(left, 3600))
            if event and wanted(event):
                return event
        raise TimeoutError(f"nothing of that kind within {seconds} s")

    def wait_for_device(self, model: Optional[str] = None, seconds: float = 60.0) -> Device:
        """The first live device (of that model)."""
        end = time.monotonic() + seconds
        while True:
            for device in self.devices():
                if model in (None, device.model):
                    return device
            if time.monotonic() > end:
                raise TimeoutError(f"no {model or 'device'} within {seconds} s")
            time.sleep(0.05)

    def recording(self, device: Device | int) -> Recording:
        number = device if isinstance(device, int) else device.number
        library.vox_hub_choose(self.handle, number)
        return Recording(self)

    def set_dpi(self, device: Device, dpi: int) -> None:
        library.vox_hub_set_dpi(self.handle, device.number, dpi)

    def update(self, device: Device, first: str = "", second: str = "") -> None:
        """Starts an update with the files that are given; events "update" tell how it goes, 11 that it is over."""
        kind = (1 if first else 0) + (2 if second else 0)
        library.vox_hub_update(self.handle, device.number, kind, first or None, second or None)


def microphone() -> Source:
    """The microphone of an older device."""
    return Source(library.vox_microphone_create())


def speaker() -> Source:
    """What the computer plays."""
    return Source(library.vox_speaker_create())


def log_lines() -> Iterator[tuple[int, str]]:
    """(category, text) of every log line that nobody has asked for yet."""
    kind, category = ctypes.c_int32(), ctypes.c_int32()
    room = ctypes.create_string_buffer(1)
    while needed := library.vox_next_text(ctypes.byref(kind), ctypes.byref(category), room, len(room), 0):
        if needed > len(room):
            room = ctypes.create_string_buffer(needed)
        elif kind.value == 1:
            yield category.value, room.value.decode()


def write_wav(path: str | os.PathLike[str], samples: array.array) -> None:
    with wave.open(os.fspath(path), "wb") as file:
        file.setnchannels(1)
        file.setsampwidth(2)
        file.setframerate(RATE)
        file.writeframes(samples.tobytes())
