"""Fixtures: the build's samples and programs, and the loopback RTSP server
(tools/rtsp_server) as a child process."""

import os
import pathlib
import queue
import shutil
import subprocess
import threading
import time

import pytest

SOURCE_DIR = pathlib.Path(__file__).resolve().parents[2]
BUILD_DIR = pathlib.Path(os.environ.get("QO_BUILD_DIR", SOURCE_DIR / "build" / "release"))
SAMPLES = {name: SOURCE_DIR / "data" / f"sample.{name}" for name in ("h264", "h265", "mjpeg")}


class RtspServer:
    """qo-rtsp-server on 127.0.0.1: url(mount) and the commands of its stdin."""

    def __init__(self, streams, user=None, password=None):
        program = BUILD_DIR / "tools" / "qo-rtsp-server"
        if not program.exists():
            pytest.skip(f"{program} is not built")
        args = [str(program), "--port", "0"]
        if user:
            args += ["--user", user, "--password", password]
        self.user, self.password = user, password
        self.proc = subprocess.Popen(args + list(streams), stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.lines = queue.Queue()
        self.reader = threading.Thread(target=self._read, name="rtsp-server-out", daemon=True)
        self.reader.start()
        self.port = None
        deadline = time.monotonic() + 15
        while self.port is None:
            line = self._line(deadline)
            if line.startswith("READY port="):
                self.port = int(line.split("=", 1)[1])

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.strip())
        self.lines.put(None)

    def _line(self, deadline):
        try:
            line = self.lines.get(timeout=max(0, deadline - time.monotonic()))
        except queue.Empty:
            self.kill()
            raise RuntimeError("qo-rtsp-server did not answer") from None
        if line is None:
            raise RuntimeError("qo-rtsp-server ended")
        return line

    def url(self, mount, user=None, password=None):
        user = user if user is not None else self.user
        password = password if password is not None else self.password
        auth = f"{user}:{password}@" if user else ""
        return f"rtsp://{auth}127.0.0.1:{self.port}/{mount}"

    def command(self, cmd):
        self.proc.stdin.write(cmd + "\n")
        self.proc.stdin.flush()
        deadline = time.monotonic() + 10
        while not self._line(deadline).startswith(("OK ", "ERR ")):
            pass

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
        self.proc.wait()
        self.reader.join()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.stdin.close()  # the server quits at the end of its input
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                pass
        self.kill()
        self.proc.stdout.close()


@pytest.fixture
def rtsp_server():
    servers = []

    def start(*streams, **auth):
        servers.append(RtspServer(streams, **auth))
        return servers[-1]

    yield start
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
