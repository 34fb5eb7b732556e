"""VideoInput on the loopback RTSP server: the sender's clock, the stream
type probe, failures raised with the library's reason, and the command line."""

import datetime
import gc
import subprocess
import sys

import numpy as np
import pytest

import qosdkmm
from conftest import SAMPLES, RtspServer


@pytest.fixture(scope="module")
def server():
    s = RtspServer(["h264=h264", f"clip=h265,file={SAMPLES['h265']}", "jpeg=mjpeg"],
                   user="viewer", password="s3cret")
    yield s
    s.stop()


def test_live_frames_carry_the_senders_wall_clock(server):
    assert [qosdkmm.stream_type(server.url(m)) for m in ("h264", "clip", "jpeg")] == \
        ["h264", "h265", "mjpeg"]
    with qosdkmm.VideoInput(server.url("clip"), tcp=True, stream_id=3) as source:
        frames = [next(source) for _ in range(45)]
        stats = source.stats()
    assert stats["frames"] >= 45 and stats["gaps"] == 0 and stats["reason_code"] == 0
    assert source.stats() is None
    assert {(f.format, f.width, f.height, f.kind, f.stream_id) for f in frames} == \
        {(32, 320, 240, "encoded", 3)}
    # Monotonic µs until the first sender report, then its wall clock, in order.
    stamped = [f for f in frames if f.wall_time is not None]
    assert stamped and all(f.time_stamp < 10**18 for f in frames[:frames.index(stamped[0])])
    assert [f.time_stamp for f in stamped] == sorted(f.time_stamp for f in stamped)
    now = datetime.datetime.now(datetime.timezone.utc)
    assert abs((now - stamped[-1].wall_time).total_seconds()) < 2
    assert stamped[-1].wall_time.microsecond == stamped[-1].time_stamp // 1000 % 10**6
    # Arrays of live frames stay valid after the stream is closed.
    shared = [np.from_dlpack(f) for f in frames]
    expected = [a.tobytes() for a in shared]
    del frames, stamped
    gc.collect()
    assert [a.tobytes() for a in shared] == expected


def test_a_refusal_raises_stream_timeout_and_ends_the_stream(server):
    source = qosdkmm.VideoInput(server.url("h264", password="wrong"), stream_type="h264",
                                timeout=1)
    with pytest.raises(qosdkmm.StreamTimeout) as refused:
        next(source)
    assert refused.value.code == 3 and "401" in refused.value.reason
    assert "3" in str(refused.value)
    with pytest.raises(StopIteration):
        next(source)
    source.close()


def test_cli_probes_and_plays_without_showing_passwords(server):
    def run(*args):
        return subprocess.run([sys.executable, "-m", "qosdkmm", *args], capture_output=True,
                              text=True, timeout=60)

    probe = run("probe", server.url("h264"))
    assert (probe.returncode, probe.stdout) == (0, "h264\n")
    play = run("play", server.url("h264"), "--frames", "20")
    assert play.returncode == 0, play.stderr
    assert "frames:      20," in play.stdout and "viewer:***@" in play.stdout
    bad = run("play", server.url("h264", password="wrong"), "--timeout", "1")
    assert bad.returncode == 1 and "401" in bad.stderr
    for out in (probe, play, bad):
        assert "s3cret" not in out.stdout + out.stderr and "wrong" not in out.stdout + out.stderr
    local = run("play", str(SAMPLES["mjpeg"]), "--framerate", "0", "-q")
    assert local.returncode == 0 and "frames:      90," in local.stdout
    assert local.stdout.startswith(str(SAMPLES["mjpeg"]))  # nothing of the layers' own texts
