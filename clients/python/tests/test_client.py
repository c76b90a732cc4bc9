"""The client against a real server on the simulated card: every reply type, streaming in both
token modes, a stream cut by the server's stop, file round trips and "!" replies as errors."""
import os

import pytest

from vr480 import Instrument, Record, Spectrum, RawRecord, Vr480ConnectionError, Vr480Error, to_dot, to_legacy
from conftest import Server


def test_every_reply_type(inst, server):
    assert inst.text("#IDN?")
    assert inst.command("#GET_DOT_NOTATION 10") == "2.3" and to_dot(10) == "2.3" and to_legacy("2.3") == 10

    rec = inst.command("#GET_DATA")
    assert isinstance(rec, Record) and rec.status == 0 and rec.granularity == 1000000
    assert rec.levels is None and rec.header.reply_type == 1
    # The built-in scene: three gratings on each fibre of the first layer, 1530-1560 nm.
    assert sorted(rec.wavelengths) == ["1.1", "2.1", "3.1", "4.1"]
    for values in rec.wavelengths.values():
        assert len(values) == 3 and all(1520 < v < 1570 for v in values)
    assert rec.columns()["1.1/1"] == rec.sensor("1.1", 1)
    assert rec.raw[28:32] == rec.sweep.to_bytes(4, "little")

    lev = inst.command("#GET_UNBUFFERED_DATA_AND_LEVELS")
    assert lev.header.reply_type == 5 and len(lev.levels) > 0

    cnts = inst.command("#GET_WVL_LVL_CNTS")
    assert len(cnts.counts) == sum(len(v) for v in cnts.wavelengths.values())

    spectrum = inst.command("#GET_SPECTRUM")
    assert isinstance(spectrum, Spectrum), spectrum
    assert len(spectrum.points) == 32768 and spectrum.start < spectrum.end, (spectrum.start, spectrum.end)
    raw = inst.command("#GET_RAW_DATA")
    assert isinstance(raw, RawRecord) and len(raw.channels) == 4 and len(raw.grating) == 1
    assert len(inst.command("#GET_HIGH_SPEED_FS")) in (0, 256)


def test_bang_replies_raise_with_the_servers_text(inst):
    with pytest.raises(Vr480Error) as e:
        inst.command("#FOO 1")
    assert e.value.text == "!Invalid command or argument: #FOO 1." == str(e.value)
    with pytest.raises(Vr480Error, match="File Not Found"):
        inst.download("/tmp/no-such-file")
    assert inst.ready()  # the session goes on


@pytest.mark.parametrize("tokens", [True, False])
def test_stream_in_both_token_modes(inst, tokens):
    with inst.stream(tokens=tokens) as records:
        sweeps = [next(records).sweep for _ in range(500)]
        records.stop()
        tail = [r.sweep for r in records]  # what was on the way, up to the end token
    got = sweeps + tail
    assert got == list(range(got[0], got[0] + len(got)))
    assert records.ended
    assert inst.text("#GET_STREAMING_DATA") == "0"  # the connection takes commands again


def test_resume_after_a_reconnect_loses_nothing_the_ring_holds(server):
    with server.connect() as a, a.stream() as records:
        last = [next(records).sweep for _ in range(200)][-1]
    with server.connect() as b:
        with b.stream(resume_after=last) as records:
            assert b"records held" in records.resume_reply.encode()
            assert [next(records).sweep for _ in range(100)] == list(range(last + 1, last + 101))
        with pytest.raises(Vr480Error, match="Illegal sweep counter"):
            b.command("#RESUME_AFTER_SWEEP x")


def test_upload_and_download_round_trip(inst):
    data = bytes(range(256)) * 400 + os.urandom(1234)
    assert inst.upload("/tmp/roundtrip.bin", data) == f"{len(data)} bytes received.\n"
    assert inst.download("/tmp/roundtrip.bin") == data
    with pytest.raises(Vr480Error, match="Failed to open output file"):
        inst.upload("/tmp/../../escape.bin", b"abc")
    assert inst.ready()


def test_a_stream_cut_by_the_servers_stop_raises(tmp_path):
    srv = Server(tmp_path)
    try:
        srv.wait_ready()  # a stream turned on while the server starts is ended by its acquisition
        with srv.connect() as inst:
            records = inst.stream()
            next(records)
            srv.proc.terminate()
            with pytest.raises(Vr480ConnectionError):
                for _ in records:
                    pass
    finally:
        assert srv.stop() == 0
