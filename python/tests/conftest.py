"""Fixtures: the build's samples and programs, and the loopback RTSP server
(tools/rtsp_server) as a child process."""

import os
import pathlib
import shutil
import subprocess
import threading

import pytest

SOURCE_DIR = pathlib.Path(__file__).resolve().parents[2]
BUILD_DIR = pathlib.Path(os.environ.get("QO_BUILD_DIR", SOURCE_DIR / "build" / "release"))
SAMPLES = {name: SOURCE_DIR / "data" / f"sample.{name}" for name in ("h264", "h265", "mjpeg")}


class RtspServer:
    """qo-rtsp-server on 127.0.0.1 and the URLs of its mounts."""

    def __init__(self, streams, user=None, password=None):
        program = BUILD_DIR / "tools" / "qo-rtsp-server"
        if not program.exists():
            pytest.skip(f"{program} is not built")
        self.user, self.password = user, password
        auth = ["--user", user, "--password", password] if user else []
        self.proc = subprocess.Popen([str(program), "--port", "0", *auth, *streams],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.DEVNULL, text=True)
        hung = threading.Timer(15, self.proc.kill)  # one that never listens fails the test
        hung.start()
        ready = next((line for line in self.proc.stdout if line.startswith("READY port=")), None)
        hung.cancel()
        assert ready, "qo-rtsp-server did not start"
        self.port = int(ready.split("=", 1)[1])

    def url(self, mount, password=None):
        auth = f"{self.user}:{password or self.password}@" if self.user else ""
        return f"rtsp://{auth}127.0.0.1:{self.port}/{mount}"

    def stop(self):
        self.proc.stdin.close()  # the server quits at the end of its input
        try:
            self.proc.wait(10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        self.proc.stdout.close()


@pytest.fixture
def rtsp_server():
    servers = []
    yield lambda *streams, **auth: servers.append(RtspServer(streams, **auth)) or servers[-1]
    for s in servers:
        s.stop()


@pytest.fixture(scope="session")
def gst_launch():
    program = shutil.which("gst-launch-1.0")
    if program is None:
        pytest.skip("gst-launch-1.0 missing (gstreamer1.0-tools, make deps-test)")
    return program


def process_status():
    """(resident MiB, thread count) of this process."""
    fields = dict(line.split(":", 1) for line in open("/proc/self/status"))
    return int(fields["VmRSS"].split()[0]) / 1024, int(fields["Threads"])
