"""Decoders for the server's binary replies.

Every reply reaches the client in a frame: ten decimal digits giving the body's length, then
the body. Measurement bodies are little-endian:

  measurement record   88-byte status header, one int32 wavelength per sensor in units of
                       1/granularity nm (DUT channel 0's sensors first, then 1, 2, 3), and,
                       for the "..._AND_LEVELS" forms, one uint16 level per peak
  spectrum             88-byte header, then int16 points from the start to the end wavelength
  raw record           the card's 6176-byte peaks record: header, peak positions per list

A record carries one multiplexer layer; its four DUT channels are named in dot notation
"c.m" (fibre c, multiplexer position m), so the sensors of a record with layer 2 are under
"1.2", "2.2", "3.2" and "4.2".
"""
from __future__ import annotations

import os
import struct
import sys
import time
from array import array
from dataclasses import dataclass, field
from typing import Dict, List, Optional, Sequence

try:  # numpy is optional: arrays when it is there, lists otherwise (or with VR480_NO_NUMPY=1)
    import numpy as _np
    if os.environ.get("VR480_NO_NUMPY"):
        _np = None
except ImportError:  # pragma: no cover - exercised where numpy is absent
    _np = None

HEADER_BYTES = 88
RAW_RECORD_BYTES = 6176
TOKEN_MORE = b"XXXXXXXX"
TOKEN_END = b"ZZZZZZZZ"

# Reply types in the high nibble of header byte 7.
TYPE_DATA, TYPE_SPECTRUM, TYPE_DATA_AND_LEVELS, TYPE_RAW_SPECTRUM = 1, 2, 5, 6
# Status codes in the top byte of the header's status word.
STATUS_PROCESSED, STATUS_NO_DATA = 0, 9

_LITTLE = sys.byteorder == "little"


def channel_name(channel: int, layer: int) -> str:
    """DUT channel 0-3 and multiplexer layer 0-3 as the dot notation "c.m"."""
    return f"{channel + 1}.{layer + 1}"


def to_dot(legacy: int) -> str:
    """Legacy channel number 1-16 to dot notation: 10 -> "2.3"."""
    return f"{(legacy - 1) % 4 + 1}.{(legacy - 1) // 4 + 1}"


def to_legacy(dot: str) -> int:
    """Dot notation to the legacy channel number: "2.3" -> 10."""
    c, _, m = dot.partition(".")
    return 4 * int(m) + int(c) - 4


def sensor_column(channel: str, sensor: int) -> str:
    """The column name of a sensor (numbered from 1) on a channel in dot notation: "1.1/1"."""
    return f"{channel}/{sensor}"


def _ints(body, offset: int, count: int, code: str):
    a = array(code)
    a.frombytes(body[offset: offset + count * a.itemsize])
    if not _LITTLE:
        a.byteswap()
    return a


@dataclass
class Header:
    """The fields of the 88-byte status header that clients use."""
    amplitude_list: int      # list whose levels follow: 0 grating, 1 comb, 2-5 DUT channels 0-3
    scale_warning: bool      # the comb coefficient was out of tolerance for this sweep
    layer: int               # multiplexer layer 0-3
    reply_type: int          # 1 data, 5 data and levels, 2 spectrum, 6 raw spectrum
    temperature: float       # internal temperature in degrees C
    counts: Sequence[int]    # sensors reported on DUT channels 0-3
    sweep: int               # sweep counter
    status: int              # 0 processed, 9 no new data, others see the manual
    buffer_free: int         # percentage of this client's ring still free
    granularity: int         # wavelength units per nm

    @classmethod
    def parse(cls, body) -> "Header":
        if len(body) < HEADER_BYTES:
            raise ValueError(f"a header needs {HEADER_BYTES} bytes, got {len(body)}")
        b = memoryview(body)
        counts = struct.unpack_from("<4H", b, 16)
        return cls(amplitude_list=b[3] & 7, scale_warning=bool(b[3] & 0x40), layer=b[6] & 3,
                   reply_type=b[7] >> 4, temperature=struct.unpack_from("<h", b, 10)[0] / 128.0,
                   counts=counts, sweep=struct.unpack_from("<I", b, 28)[0], status=b[47],
                   buffer_free=b[48], granularity=struct.unpack_from("<I", b, 72)[0] or 1)


@dataclass
class Record:
    """One sweep's processed record: its sensors' wavelengths in nm by channel."""
    sweep: int
    status: int
    timestamp: float                      # when the client received it (seconds since the epoch)
    layer: int
    granularity: int
    buffer_free: int
    wavelengths: Dict[str, object]        # "c.m" -> the channel's wavelengths in nm, in sensor order
    levels: Optional[object] = None       # peak levels of the amplitude channel (levels replies)
    counts: Optional[object] = None       # sweep counts per sensor (#GET_WVL_LVL_CNTS)
    header: Header = None
    raw: bytes = b""                      # the body as received

    def sensor(self, channel: str, sensor: int) -> float:
        """Wavelength in nm of sensor n (from 1) on channel "c.m"."""
        return float(self.wavelengths[channel][sensor - 1])

    def columns(self) -> Dict[str, float]:
        """Every sensor as column name "c.m/n" -> nm."""
        out = {}
        for ch, values in self.wavelengths.items():
            for i, v in enumerate(values):
                out[f"{ch}/{i + 1}"] = float(v)
        return out


def decode_record(body, timestamp: Optional[float] = None, with_counts: bool = False) -> Record:
    """Decodes a measurement record body (#GET_DATA, #GET_DATA_AND_LEVELS, their unbuffered
    forms, a streamed record without its token; with_counts for #GET_WVL_LVL_CNTS)."""
    h = Header.parse(body)
    total = sum(h.counts)
    after = len(body) - HEADER_BYTES - 4 * total
    if after < 0:
        raise ValueError(f"record of {len(body)} bytes cannot hold {total} sensors")
    scale = 1.0 / h.granularity
    wavelengths: Dict[str, object] = {}
    if _np is not None:
        values = _np.frombuffer(body, dtype="<i4", count=total, offset=HEADER_BYTES) * scale
    else:
        ints = _ints(body, HEADER_BYTES, total, "i")
        values = [v * scale for v in ints]
    at = 0
    for ch, n in enumerate(h.counts):
        if n:
            wavelengths[channel_name(ch, h.layer)] = values[at: at + n]
        at += n
    levels = counts = None
    rest = HEADER_BYTES + 4 * total
    if with_counts:
        after -= 4 * total
        counts = _ints(body, len(body) - 4 * total, total, "i").tolist()
    if after >= 2:
        n = after // 2
        levels = (_np.frombuffer(body, dtype="<u2", count=n, offset=rest) if _np is not None
                  else _ints(body, rest, n, "H").tolist())
    return Record(sweep=h.sweep, status=h.status, timestamp=time.time() if timestamp is None else timestamp,
                  layer=h.layer, granularity=h.granularity, buffer_free=h.buffer_free,
                  wavelengths=wavelengths, levels=levels, counts=counts, header=h, raw=bytes(body))


def is_record(body) -> bool:
    """True when body has exactly the length its header announces for a measurement record
    (its sensors, and perhaps levels of the amplitude channel)."""
    if len(body) < HEADER_BYTES:
        return False
    sensors = HEADER_BYTES + 4 * sum(struct.unpack_from("<4H", body, 16))
    return len(body) == sensors or (len(body) > sensors and (len(body) - sensors) % 2 == 0
                                     and body[7] >> 4 == TYPE_DATA_AND_LEVELS)


@dataclass
class Spectrum:
    """An optical spectrum: points evenly spaced from start to end (nm; a raw spectrum's axis is
    in sweep counts 0-32767 instead)."""
    start: float
    end: float
    points: object
    header: Header = None

    def axis(self) -> List[float]:
        n = len(self.points)
        step = (self.end - self.start) / (n - 1) if n > 1 else 0.0
        return [self.start + i * step for i in range(n)]


def decode_spectrum(body) -> Optional[Spectrum]:
    """#GET_SPECTRUM / #GET_RAW_SPECTRUM; None for the empty body (full-spectrum acquisition off)."""
    if len(body) == 0:
        return None
    h = Header.parse(body)
    start, end = struct.unpack_from("<ii", body, 80)
    n = (len(body) - HEADER_BYTES) // 2
    pts = (_np.frombuffer(body, dtype="<i2", count=n, offset=HEADER_BYTES) if _np is not None
           else _ints(body, HEADER_BYTES, n, "h").tolist())
    return Spectrum(start=start / h.granularity, end=end / h.granularity, points=pts, header=h)


@dataclass
class RawRecord:
    """The card's peaks record as delivered (#GET_RAW_DATA): peak positions in sweep counts."""
    sweep: int
    layer: int
    grating: List[int]
    comb: List[int]
    channels: List[List[int]] = field(default_factory=list)   # DUT channels 0-3
    header: Header = None


def decode_raw(body) -> RawRecord:
    if len(body) != RAW_RECORD_BYTES:
        raise ValueError(f"a raw record has {RAW_RECORD_BYTES} bytes, got {len(body)}")
    h = Header.parse(body)
    n = struct.unpack_from("<6H", body, 12)
    grating = _ints(body, 88, min(n[0], 16), "I").tolist()
    comb = _ints(body, 152, min(n[1], 250), "I").tolist()
    chans = [_ints(body, 1152 + 1000 * c, min(n[2 + c], 250), "I").tolist() for c in range(4)]
    return RawRecord(sweep=h.sweep, layer=h.layer, grating=grating, comb=comb, channels=chans, header=h)


def decode_samples(body) -> List[int]:
    """#GET_HIGH_SPEED_FS: 256 uint16 samples (empty when full-spectrum acquisition is off)."""
    return _ints(body, 0, len(body) // 2, "H").tolist()
