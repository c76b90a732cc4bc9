"""Python client of the vr480 interrogator's instrument server."""
from .client import Instrument, Stream, Vr480ConnectionError, Vr480Error, PORT
from .wire import (Header, RawRecord, Record, Spectrum, channel_name, decode_raw, decode_record,
                   decode_spectrum, sensor_column, to_dot, to_legacy)

__all__ = ["Instrument", "Stream", "Vr480Error", "Vr480ConnectionError", "PORT", "Header", "Record",
           "RawRecord", "Spectrum", "channel_name", "decode_record", "decode_spectrum", "decode_raw",
           "sensor_column", "to_dot", "to_legacy"]
__version__ = "1.0.0"


def __getattr__(name):
    # The broker subscriber loads on first use, so that paho-mqtt stays optional.
    if name == "Subscriber":
        from .subscriber import Subscriber
        return Subscriber
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
