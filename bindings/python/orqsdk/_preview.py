"""Live-view frames."""

from __future__ import annotations

import ctypes
import struct
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Union

_HEADER = 54


@dataclass(frozen=True)
class Frame:
    """One live-view picture: ``data`` is the SDK's 24-bit BMP image (header included),
    ``width`` and ``height`` its size in pixels."""

    data: bytes
    width: int
    height: int

    @classmethod
    def from_sdk(cls, address: int, size: int) -> "Frame":
        if not address or size < _HEADER:
            raise ValueError("the SDK handed out an empty frame")
        header = ctypes.string_at(address, _HEADER)
        width, height = struct.unpack_from("<ii", header, 18)
        # Every row starts `pad` bytes in, so the top row ends `pad` bytes past the stated size;
        # the SDK allocates those bytes.
        pad = (4 - (width * 3) % 4) % 4
        return cls(ctypes.string_at(address, size + pad), width, height)

    @property
    def _pad(self) -> int:
        return (4 - (self.width * 3) % 4) % 4

    def rgb(self) -> bytes:
        """The pixels as rows of red, green, blue bytes, top row first."""
        stride = self.width * 3
        start = _HEADER + self._pad
        rows = [self.data[start + y * stride : start + (y + 1) * stride] for y in range(self.height)]
        out = bytearray()
        for row in reversed(rows):
            pixels = bytearray(row)
            pixels[0::3], pixels[2::3] = row[2::3], row[0::3]
            out += pixels
        return bytes(out)

    def to_numpy(self) -> Any:
        """The pixels as a (height, width, 3) uint8 RGB array, top row first; needs NumPy."""
        import numpy

        stride = self.width * 3
        start = _HEADER + self._pad
        pixels = numpy.frombuffer(self.data, numpy.uint8, self.height * stride, start)
        return pixels.reshape(self.height, self.width, 3)[::-1, :, ::-1].copy()

    def save(self, path: Union[str, Path]) -> Path:
        """Writes the BMP image; returns the path."""
        target = Path(path)
        target.write_bytes(self.data)
        return target
