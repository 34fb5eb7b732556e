"""python3 -m qosdkmm probe URI | play URI: qomm's basic use from Python."""

import argparse
import os
import re
import sys
import time

import qosdkmm


def _masked(text):
    return re.sub(r"(://[^:/@\s]*:)[^@/\s]*@", r"\1***@", str(text))


def _probe(args):
    kind = qosdkmm.stream_type(args.uri)
    print(kind or "unknown")
    if kind is None:
        print(f"qosdkmm: cannot detect the stream type of {_masked(args.uri)}", file=sys.stderr)
        return 1
    return 0


def _open(args):
    live = args.uri.startswith(("rtsp://", "v4l2://", "file://"))
    if live:
        return qosdkmm.VideoInput(args.uri, tcp=args.tcp, timeout=args.timeout)
    if not os.path.exists(args.uri):
        raise OSError(f"{args.uri}: no such file")
    return qosdkmm.FileInput(args.uri, loop=args.loop, framerate=args.framerate)


def _play(args):
    frames = size = 0
    first = last = None
    status = 0
    started = time.monotonic()
    shown = started
    with _open(args) as source:
        try:
            for frame in source:
                frames += 1
                size += frame.nbytes
                last = frame
                first = first or frame
                now = time.monotonic()
                if not args.quiet and now - shown >= 1:
                    shown = now
                    print(f"{frames} frames, {frames / (now - started):.1f} fps, "
                          f"time {frame.time_stamp}", file=sys.stderr)
                if args.frames and frames >= args.frames:
                    break
        except qosdkmm.StreamTimeout as e:
            print(f"qosdkmm: {_masked(args.uri)}: {_masked(e.reason)} (code {e.code})",
                  file=sys.stderr)
            status = 1
    span = time.monotonic() - started
    print(_masked(args.uri))
    print(f"  frames:      {frames}, {frames / span if span else 0:.1f} fps over {span:.2f} s")
    print(f"  bytes:       {size}")
    if first is not None:
        print(f"  picture:     {first.width}x{first.height}, {first.kind}, format {first.format}")
        print(f"  last time:   {last.time_stamp}" +
              (f" ({last.wall_time.isoformat()})" if last.wall_time else ""))
    return status


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m qosdkmm",
                                     description="Probe or play a source through libqosdkmm.")
    sub = parser.add_subparsers(dest="command", required=True)
    probe = sub.add_parser("probe", help="print the stream type: h264, h265, mjpeg or unknown")
    probe.add_argument("uri")
    play = sub.add_parser("play", help="play a source and summarise it")
    play.add_argument("uri", help="rtsp://, v4l2://, file:// or a path")
    play.add_argument("--tcp", action="store_true", help="RTSP over TCP")
    play.add_argument("--frames", type=int, default=0, help="stop after N frames")
    play.add_argument("--timeout", type=int, default=3, help="seconds per pull (live sources)")
    play.add_argument("--loop", type=int, default=0, help="file passes: 0 one, negative endless")
    play.add_argument("--framerate", type=float, default=25.0, help="file pacing; 0 unpaced")
    play.add_argument("-q", "--quiet", action="store_true", help="no progress lines")
    args = parser.parse_args(argv)
    qosdkmm.set_log_level(3 if args.command == "probe" or getattr(args, "quiet", False) else 2)
    try:
        return _probe(args) if args.command == "probe" else _play(args)
    except (OSError, RuntimeError, ValueError) as e:
        print(f"qosdkmm: {_masked(e)}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
