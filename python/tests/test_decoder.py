"""Decoder: the bundled samples to pictures, against GStreamer's own decode."""

import subprocess

import numpy as np
import pytest

import qosdkmm
from conftest import SAMPLES


def decode_all(codec, out="bgr"):
    decoder = qosdkmm.Decoder(codec, out)
    with qosdkmm.FileInput(SAMPLES[codec], framerate=0) as source:
        pictures = [p for p in map(decoder.decode, source) if p is not None]
    return pictures + decoder.flush()


def test_h264_pictures_match_gstreamers_decode(gst_launch, tmp_path):
    pictures = decode_all("h264")
    assert {(p.shape, p.dtype.name) for p in pictures} == {((240, 320, 3), "uint8")}
    raw = tmp_path / "bgr"
    subprocess.run(f"{gst_launch} -q filesrc location={SAMPLES['h264']} ! h264parse ! avdec_h264 "
                   f"! videoconvert ! video/x-raw,format=BGR ! filesink location={raw}",
                   shell=True, check=True, timeout=60)
    reference = np.fromfile(raw, np.uint8).reshape(-1, 240 * 320, 3)
    assert len(pictures) == len(reference) == 90
    ours = np.array([p.reshape(-1, 3).mean(axis=0) for p in pictures])
    np.testing.assert_allclose(ours, reference.mean(axis=1), atol=0.5)
    # The moving pattern makes every picture differ from the one before.
    assert all(np.any(a != b) for a, b in zip(pictures, pictures[1:]))


def test_other_codecs_outputs_and_reuse():
    for codec in ("h265", "mjpeg"):
        assert [p.shape for p in decode_all(codec)] == [(240, 320, 3)] * 90
    bgr, rgb, gray = (decode_all("mjpeg", out)[10] for out in ("bgr", "rgb", "gray"))
    np.testing.assert_array_equal(bgr[..., ::-1], rgb)
    assert gray.shape == (240, 320)
    # Bytes-like units work as frames do, and a flushed decoder goes on.
    units = [bytes(f.data) for f in qosdkmm.FileInput(SAMPLES["h264"], framerate=0)]
    decoder = qosdkmm.Decoder(31)
    for _ in range(2):
        assert sum(decoder.decode(u) is not None for u in units) + len(decoder.flush()) == 90
    for codec, out in (("vp9", "bgr"), ("h264", "yuv")):
        with pytest.raises(ValueError):
            qosdkmm.Decoder(codec, out=out)
