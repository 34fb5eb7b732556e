"""Cameras and files to NumPy through libqosdkmm's source nodes.

    import qosdkmm
    with qosdkmm.VideoInput("rtsp://camera/stream") as cam:
        for frame in cam:            # qosdkmm.Frame: bytes shared, not copied
            print(frame.wall_time, frame.nbytes)

Frames come from the library's nodes (their reconnects, their time-outs and
the sender's wall-clock time stamps) through a task queue; the interpreter
lock is released while a loop waits for one.
"""

import atexit
import json
import os
import tempfile
import threading
import weakref

from ._qosdkmm import Frame, _Decoder, _Input, _set_log_level, _stream_type

__all__ = ["VideoInput", "FileInput", "Frame", "Decoder", "StreamTimeout", "stream_type",
           "set_log_level"]

_TYPE_CODES = {"h264": 31, "h265": 32, "mjpeg": 33}
_TYPE_NAMES = {code: name for name, code in _TYPE_CODES.items()}
_TCP = 4


class StreamTimeout(Exception):
    """The stream delivered nothing for three time-outs in a row.

    reason and code are the video input node's last error (code 0 ok,
    1 refused, 2 host not found, 3 401, 4 404, 5 461, 6 no video, 7 no data,
    8 ended, 9 other; -1 no stream)."""

    def __init__(self, reason, code):
        super().__init__(f"stream timed out: {reason or 'no reason given'} (code {code})")
        self.reason = reason
        self.code = code


def set_log_level(level):
    """Threshold of the library's messages on standard error (0 detail ... 5)."""
    _set_log_level(level)


def _type_code(stream_type):
    if isinstance(stream_type, str):
        try:
            return _TYPE_CODES[stream_type.lower()]
        except KeyError:
            raise ValueError(f"stream_type must be h264, h265 or mjpeg, not {stream_type!r}")
    return int(stream_type)


def _file_type(path):
    """h264, h265 or mjpeg from a file's first bytes, or None."""
    try:
        with open(path, "rb") as f:
            head = f.read(64)
    except OSError:
        return None
    if head.startswith(b"\xff\xd8"):
        return "mjpeg"
    for start in (b"\x00\x00\x00\x01", b"\x00\x00\x01"):
        if head.startswith(start) and len(head) > len(start):
            nal = head[len(start)]
            if nal & 0x80:
                return None
            if 32 <= (nal >> 1) & 0x3F <= 40:
                return "h265"
            if 1 <= nal & 0x1F <= 12:
                return "h264"
    return None


def stream_type(uri):
    """The codec of a source: "h264", "h265", "mjpeg", or None when unknown.

    rtsp:// and v4l2:// sources are asked through the library (up to about
    10 s); files (a path or file://) are recognised from their first bytes."""
    uri = os.fspath(uri)
    if uri.startswith(("rtsp://", "v4l2://")):
        return _TYPE_NAMES.get(_stream_type(uri))
    return _file_type(uri[len("file://"):] if uri.startswith("file://") else uri)


# Inputs still open when the interpreter exits are closed first, while the
# library's threads can still finish cleanly.
_open_inputs = weakref.WeakSet()
_open_lock = threading.Lock()


@atexit.register
def _close_all():
    with _open_lock:
        inputs = list(_open_inputs)
    for i in inputs:
        i.close()


class _Source(_Input):
    def __init__(self, node, params):
        if params.get("sync_mode"):
            raise ValueError("sync_mode: Python inputs take the node's tasks from its queue")
        super().__init__(node)
        for key, value in params.items():
            if value is not None:
                self._set(key, value)
        with _open_lock:
            _open_inputs.add(self)

    def _start(self):
        try:
            self._open()
        except Exception:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False


class VideoInput(_Source):
    """Frames of a live source: rtsp://, v4l2:///dev/videoN or file:///path.

    Iterating yields Frames until the end of the stream; a stream that stays
    silent raises StreamTimeout with the library's reason. Any node parameter
    may be given by keyword, "-" written as "_" (stream_id=2, save_stream=1).
    stream_type None asks an rtsp:// source for its codec first."""

    def __init__(self, uri, *, tcp=False, stream_type=None, timeout=3, **params):
        uri = os.fspath(uri)
        if stream_type is None and uri.startswith("rtsp://"):
            # Unknown: the node's default, and the stream explains the failure.
            stream_type = _stream_type(uri)
            stream_type = stream_type if stream_type in _TYPE_NAMES else None
        elif stream_type is not None:
            stream_type = _type_code(stream_type)
        if tcp:
            params["lower_trans_type"] = _TCP
        super().__init__("video", dict(params, uri=uri, stream_type=stream_type, timeout=timeout))
        self.uri = uri
        self._start()

    def stats(self):
        """The stream's counters as a dict (frames, bytes, timeouts,
        timeout_tasks, reconnects, gaps, last_age_ms, median_age_ms,
        reason_code, reason); None once closed. Cheap enough to poll every
        second for every camera."""
        text = self._stats()
        return json.loads(text) if text else None


class FileInput(_Source):
    """Access units of H.264, H.265 or MJPEG elementary-stream files.

    path_or_list is one path or a sequence of paths played in order; loop is
    the node's (0 one pass, n passes, negative endless); framerate paces the
    output (0: as fast as they are parsed). The codec is recognised from the
    first file unless stream_type is given."""

    def __init__(self, path_or_list, *, loop=0, framerate=25.0, **params):
        listed = not isinstance(path_or_list, (str, bytes, os.PathLike))
        paths = [os.fspath(p) for p in path_or_list] if listed else [os.fspath(path_or_list)]
        if not paths:
            raise ValueError("no file to play")
        if params.get("stream_type") is None:
            params["stream_type"] = _file_type(paths[0]) or "h264"
        params["stream_type"] = _type_code(params["stream_type"])
        list_file = None
        if listed:
            # The node reads its list from a file when it opens.
            with tempfile.NamedTemporaryFile("w", prefix="qosdkmm-", suffix=".txt",
                                             delete=False) as f:
                f.write("".join(os.path.abspath(p) + "\n" for p in paths))
            list_file = f.name
            params["file_list"] = list_file
        else:
            params["file"] = paths[0]
        try:
            super().__init__("file", dict(params, loop=loop, framerate=float(framerate)))
            self._start()
        finally:
            if list_file is not None:
                os.unlink(list_file)
        self.paths = paths


class Decoder:
    """Access units in, NumPy pictures out (GStreamer's parser, decoder and
    videoconvert).

    codec: "h264", "h265", "mjpeg" or the library's type code (a Frame's
    format); out: "bgr" or "rgb" (H x W x 3) or "gray" (H x W). decode()
    returns the next picture, or None while the decoder still holds it;
    flush() returns the pictures still inside."""

    def __init__(self, codec, out="bgr"):
        if not isinstance(codec, str):
            codec = _TYPE_NAMES.get(int(codec), str(codec))
        self._decoder = _Decoder(codec.lower(), out)

    def decode(self, unit):
        """One access unit: a Frame (not copied) or any bytes-like object."""
        return self._decoder.decode(unit)

    def flush(self):
        return self._decoder.flush()
