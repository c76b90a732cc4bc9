"""A client of the instrument server: commands, typed replies, streaming and file transfer.

    from vr480 import Instrument
    with Instrument("192.168.1.10") as inst:
        print(inst.command("#IDN?"))
        rec = inst.command("#GET_DATA")             # a Record
        with inst.stream() as records:               # records until the block ends
            for rec in records:
                print(rec.sweep, rec.wavelengths["1.1"])
"""
from __future__ import annotations

import select
import socket
import time
from typing import Iterator, Optional

from . import wire

PORT = 1852

# Commands whose replies are binary, by what they hold.
_RECORDS = {"#GET_DATA", "#GET_DATA_AND_LEVELS", "#GET_UNBUFFERED_DATA", "#GET_UNBUFFERED_DATA_AND_LEVELS"}
_SPECTRA = {"#GET_SPECTRUM", "#GET_RAW_SPECTRUM"}
_FILES = {"#DOWNLOAD", "#GET_LOC_MEAS_LOG_FILE", "#DOWNLOAD_CUSTOM_NTP_CONF"}
_NOT_FOUND = b"!File Not Found.\n"


class Vr480Error(Exception):
    """The server answered with a "!" reply; str(error) is the server's text."""

    def __init__(self, text: str, command: str = ""):
        super().__init__(text.rstrip("\n"))
        self.text = text
        self.command = command


class Vr480ConnectionError(ConnectionError):
    """The connection was lost, or a reply did not arrive in time."""


def _name(line: str) -> str:
    return line.strip().split(" ", 1)[0].split("=", 1)[0].strip().upper()


class Instrument:
    """One connection to the server (one of its ten client slots)."""

    def __init__(self, host: str = "127.0.0.1", port: int = PORT, timeout: float = 30.0):
        self.host, self.port, self.timeout = host, port, timeout
        try:
            self._sock = socket.create_connection((host, port), timeout=timeout)
        except OSError as e:
            raise Vr480ConnectionError(f"cannot connect to {host}:{port}: {e}") from e
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._in = self._sock.makefile("rb", buffering=1 << 20)
        self._streaming = False

    # ---- plumbing ------------------------------------------------------------------------------
    def close(self) -> None:
        try:
            self._in.close()
        finally:
            self._sock.close()

    def __enter__(self) -> "Instrument":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def send_line(self, line: str) -> None:
        """Sends one command line without reading its reply."""
        self._send(line.rstrip("\r\n").encode("latin-1") + b"\n")

    def _send(self, data: bytes) -> None:
        try:
            self._sock.sendall(data)
        except OSError as e:
            raise Vr480ConnectionError(f"send failed: {e}") from e

    def _exact(self, n: int) -> bytes:
        try:
            data = self._in.read(n)
        except socket.timeout as e:
            raise Vr480ConnectionError("no reply in time") from e
        except OSError as e:
            raise Vr480ConnectionError(f"receive failed: {e}") from e
        if data is None or len(data) < n:
            raise Vr480ConnectionError("the server closed the connection")
        return data

    def read_frame(self) -> bytes:
        """The body of the next frame."""
        digits = self._exact(10)
        if not digits.isdigit():
            raise Vr480ConnectionError(f"not a frame: {digits!r}")
        return self._exact(int(digits))

    # ---- commands ------------------------------------------------------------------------------
    def command(self, line: str):
        """Sends a command and returns its reply, typed by the command: a Record for the
        measurement commands, a Spectrum (None when spectra are off), a RawRecord for
        #GET_RAW_DATA, a list of samples for #GET_HIGH_SPEED_FS, bytes for downloads and str
        for everything else. A "!" reply raises Vr480Error carrying the server's text."""
        if self._streaming:
            raise RuntimeError("the connection is streaming; end the stream first")
        name = _name(line)
        self.send_line(line)
        body = self.read_frame()
        received = time.time()
        if name in _FILES:
            if body == _NOT_FOUND:
                raise Vr480Error(body.decode("latin-1"), line)
            return body
        if body[:1] == b"!" and (name not in _RECORDS or len(body) < wire.HEADER_BYTES):
            raise Vr480Error(body.decode("latin-1"), line)
        if name in _RECORDS:
            return wire.decode_record(body, received)
        if name == "#GET_WVL_LVL_CNTS":
            return wire.decode_record(body, received, with_counts=True)
        if name in _SPECTRA:
            return wire.decode_spectrum(body)
        if name == "#GET_RAW_DATA":
            return wire.decode_raw(body)
        if name == "#GET_HIGH_SPEED_FS":
            return wire.decode_samples(body)
        return body.decode("latin-1")

    def text(self, line: str) -> str:
        """A command whose reply is text, returned without its trailing line feed."""
        reply = self.command(line)
        if not isinstance(reply, str):
            raise TypeError(f"{line} does not answer with text")
        return reply.rstrip("\n")

    def ready(self) -> bool:
        return self.text("#READY?") == "1"

    def wait_ready(self, timeout: float = 60.0) -> None:
        deadline = time.monotonic() + timeout
        while not self.ready():
            if time.monotonic() > deadline:
                raise Vr480ConnectionError(f"not ready after {timeout} s")
            time.sleep(0.2)

    # ---- files ---------------------------------------------------------------------------------
    def download(self, path: str) -> bytes:
        """The file's bytes; Vr480Error when the server cannot send it."""
        return self.command(f"#DOWNLOAD {path}")

    def upload(self, path: str, data: bytes) -> str:
        """Writes data to path on the instrument; returns the server's confirmation."""
        if self._streaming:
            raise RuntimeError("the connection is streaming; end the stream first")
        self.send_line(f"#UPLOAD {len(data)} {path}")
        # A refusal comes at once, before the bytes; success waits for them.
        if select.select([self._sock], [], [], 0.3)[0]:
            body = self.read_frame()
            raise Vr480Error(body.decode("latin-1"), "#UPLOAD")
        self._send(data)
        reply = self.read_frame().decode("latin-1")
        if reply.startswith("!"):
            raise Vr480Error(reply, "#UPLOAD")
        return reply

    # ---- streaming -----------------------------------------------------------------------------
    def stream(self, tokens: bool = True, interleave: Optional[int] = None,
               buffered: bool = True, resume_after: Optional[int] = None) -> "Stream":
        """Turns streaming on and returns the stream of records; use it in a with block (or
        call close()) so that the stream is ended cleanly. resume_after=n first moves this
        client to the oldest record the server still holds after sweep n."""
        return Stream(self, tokens, interleave, buffered, resume_after)


class Stream:
    """Records as the server streams them. Iterating yields Records until the stream ends;
    stop() asks the server to end it (records already sent still arrive), close() stops and
    discards them."""

    def __init__(self, inst: Instrument, tokens: bool, interleave: Optional[int], buffered: bool,
                 resume_after: Optional[int]):
        self._inst = inst
        self.tokens = tokens
        self.resume_reply = None
        self.ended = False
        self._stopping = False
        inst.command(f"#SET_USE_STREAM_TOKENS {int(tokens)}")
        inst.command(f"#SET_BUFFER_ENABLE {int(buffered)}")
        if interleave is not None:
            inst.command(f"#SET_DATA_INTERLEAVE {interleave}")
        if resume_after is not None:
            self.resume_reply = inst.text(f"#RESUME_AFTER_SWEEP {resume_after}")
        inst.command("#SET_STREAMING_DATA 1")
        inst._streaming = True

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __iter__(self) -> Iterator[wire.Record]:
        return self

    def next_body(self) -> Optional[bytes]:
        """The next record's body as received (no decoding), or None when the stream ended."""
        if self.ended:
            return None
        body = self._inst.read_frame()
        if body == wire.TOKEN_END:                   # framed end token: no record to follow
            return self._end()
        if self.tokens:
            token, body = body[-8:], body[:-8]
            if token == wire.TOKEN_END:
                self._end()
                return body if len(body) >= wire.HEADER_BYTES else None
            if token != wire.TOKEN_MORE:
                # A server that stops sends its last record without a token before it closes.
                whole = body + token
                if not wire.is_record(whole):
                    raise Vr480ConnectionError(f"unexpected stream token {token!r}")
                return whole
        return body

    def __next__(self) -> wire.Record:
        body = self.next_body()
        if body is None:
            raise StopIteration
        return wire.decode_record(body, time.time())

    def _end(self):
        self.ended = True
        self._inst._streaming = False
        return None

    def stop(self) -> None:
        if not self.ended and not self._stopping:
            self._stopping = True
            self._inst.send_line("#SET_STREAMING_DATA 0")

    def close(self) -> None:
        """Ends the stream and reads what the server sent until its end token."""
        if self.ended:
            return
        try:
            self.stop()
            while self.next_body() is not None:
                pass
        except Vr480ConnectionError:
            self._end()
