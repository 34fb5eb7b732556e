"""FileInput against the C++ host of the same node (qomm; the node's own tests
hold its bytes to the parser's), the zero-copy contract of Frame, and
parameters by keyword."""

import ctypes
import gc
import json
import subprocess

import numpy as np
import pytest

import qosdkmm
from conftest import BUILD_DIR, SAMPLES

@pytest.mark.parametrize("codec", ["h264", "h265", "mjpeg"])
def test_frames_equal_the_cpp_node(codec):
    qomm = BUILD_DIR / "tools" / "qomm"
    if not qomm.exists():
        pytest.skip(f"{qomm} is not built")
    with qosdkmm.FileInput(SAMPLES[codec], framerate=0) as source:
        frames = list(source)
    got = [(f.nbytes, f.time_stamp, f.format, f.width, f.height) for f in frames]
    out = subprocess.run([str(qomm), "play", str(SAMPLES[codec]), "--framerate", "0", "--json",
                          "-q"], capture_output=True, text=True, timeout=60, check=True).stdout
    tasks = [json.loads(line) for line in out.splitlines() if line.startswith("{")]
    want = [(t["bytes"], t["pts"], t["format"], t["width"], t["height"])
            for t in tasks if t["status"] == 0]
    if codec == "mjpeg":  # JPEG carries no time: the stamps are the reading clock's
        got, want = ([g[:1] + g[2:] for g in x] for x in (got, want))
    assert len(got) == 90 and got == want
    assert {f.kind for f in frames} == {"encoded"}
    assert all(f.wall_time is None for f in frames)  # file stamps are not wall clock


def test_lists_loops_and_keyword_parameters():
    h264 = SAMPLES["h264"]
    with qosdkmm.FileInput([h264, h264], framerate=0, stream_id=7) as source:
        assert [f.stream_id for f in source] == [7] * 180
    with qosdkmm.FileInput(h264, loop=2, framerate=0) as source:
        assert sum(1 for _ in source) == 180
    # The codec comes from the file's first bytes unless given.
    with qosdkmm.FileInput(SAMPLES["h265"], framerate=0) as source:
        assert {f.format for f in source} == {32}
    with pytest.raises(TypeError, match="unknown node parameter"):
        qosdkmm.FileInput(h264, no_such_thing=1)
    with pytest.raises(ValueError, match="framerate"):
        qosdkmm.FileInput(h264, framerate=500)
    with pytest.raises(TypeError):
        qosdkmm.FileInput(h264, start_index="one")


def test_frames_are_shared_not_copied_and_outlive_the_input():
    source = qosdkmm.FileInput(SAMPLES["h264"], framerate=0)
    frame = next(source)
    view = np.asarray(frame)  # buffer protocol
    shared = np.from_dlpack(frame)
    assert shared.dtype == np.uint8 and shared.shape == (frame.nbytes,)
    assert shared.ctypes.data == view.ctypes.data == np.from_dlpack(frame).ctypes.data
    assert shared.ctypes.data != ctypes.addressof(ctypes.c_char.from_buffer_copy(b"x"))
    assert frame.data.readonly and frame.data.nbytes == frame.nbytes
    assert frame.__dlpack_device__() == (1, 0)
    expected = bytes(frame.data)
    assert expected[:4] == b"\x00\x00\x00\x01"
    # The array keeps the node's buffer after the frame, the input and its
    # node are gone, and while the node reuses its other buffers.
    assert len([bytes(f.data) for f in source]) == 89
    source.close()
    del frame, view, source
    gc.collect()
    assert shared.tobytes() == expected
    # A capsule nobody consumed frees its reference by itself.
    with qosdkmm.FileInput(SAMPLES["h264"], framerate=0) as source:
        capsule = list(source)[0].__dlpack__()
        assert "dltensor" in repr(capsule)
        del capsule
