"""VideoInput on the loopback RTSP server: the sender's clock, the stream
type probe, transports, and failures raised with the library's reason."""

import datetime
import gc
import os
import signal
import subprocess
import sys
import time

import numpy as np
import pytest

import qosdkmm
from conftest import SAMPLES


def test_live_frames_carry_the_senders_wall_clock(rtsp_server):
    server = rtsp_server("h264=h264", f"clip=h265,file={SAMPLES['h265']}", "jpeg=mjpeg")
    assert [qosdkmm.stream_type(server.url(m)) for m in ("h264", "clip", "jpeg")] == \
        ["h264", "h265", "mjpeg"]
    for tcp in (False, True):
        with qosdkmm.VideoInput(server.url("clip"), tcp=tcp, stream_id=3) as source:
            frames = [next(source) for _ in range(45)]
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


def test_failures_raise_stream_timeout_with_the_reason(rtsp_server):
    server = rtsp_server("h264=h264", user="viewer", password="s3cret")
    with qosdkmm.VideoInput(server.url("h264"), stream_type="h264", timeout=1) as source:
        assert next(source).nbytes > 0
    with pytest.raises(qosdkmm.StreamTimeout) as refused:
        with qosdkmm.VideoInput(server.url("h264", password="wrong"), stream_type="h264",
                                timeout=1) as source:
            next(source)
    assert refused.value.code == 3 and "401" in refused.value.reason

    source = qosdkmm.VideoInput(server.url("h264"), stream_type="h264", timeout=1)
    assert next(source).nbytes > 0
    server.kill()
    started = time.monotonic()
    with pytest.raises(qosdkmm.StreamTimeout) as killed:
        for _ in source:
            pass
    # Three empty pulls of one second, and the reason of the last reconnect.
    assert time.monotonic() - started < 8
    assert killed.value.code in (1, 7, 8) and killed.value.reason
    assert str(killed.value.code) in str(killed.value)
    with pytest.raises(StopIteration):  # the stream is over
        next(source)
    source.close()


def test_cli_probes_and_plays_without_showing_passwords(rtsp_server):
    server = rtsp_server("h264=h264", user="viewer", password="s3cret")
    env = dict(os.environ)
    run = [sys.executable, "-m", "qosdkmm"]
    probe = subprocess.run(run + ["probe", server.url("h264")], capture_output=True, text=True,
                           timeout=60, env=env)
    assert (probe.returncode, probe.stdout) == (0, "h264\n")
    play = subprocess.run(run + ["play", server.url("h264"), "--frames", "20"],
                          capture_output=True, text=True, timeout=60, env=env)
    assert play.returncode == 0, play.stderr
    assert "frames:      20," in play.stdout and "viewer:***@" in play.stdout
    bad = subprocess.run(run + ["play", server.url("h264", password="wrong"), "--timeout", "1"],
                         capture_output=True, text=True, timeout=60, env=env)
    assert bad.returncode == 1 and "401" in bad.stderr
    for out in (probe, play, bad):
        assert "s3cret" not in out.stdout + out.stderr and "wrong" not in out.stdout + out.stderr
    local = subprocess.run(run + ["play", str(SAMPLES["mjpeg"]), "--framerate", "0", "-q"],
                           capture_output=True, text=True, timeout=60, env=env)
    assert local.returncode == 0 and "frames:      90," in local.stdout
    assert local.stdout.startswith(str(SAMPLES["mjpeg"]))  # nothing of the layers' own texts
