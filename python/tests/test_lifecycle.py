"""Closing: from another thread while a loop waits, on collection and at
interpreter exit; parallel loops; and no growth over many cycles."""

import gc
import os
import signal
import subprocess
import sys
import threading
import time

import qosdkmm
from conftest import SAMPLES, process_status


def iterate_in_thread(source):
    result = {}

    def run():
        result["frames"] = sum(1 for _ in source)  # an exception leaves no count
        result["ended"] = time.monotonic()

    thread = threading.Thread(target=run, name="qo-test-loop")
    thread.start()
    return thread, result


def test_close_wakes_a_waiting_loop_while_others_run(rtsp_server):
    server = rtsp_server("h264=h264")
    live = qosdkmm.VideoInput(server.url("h264"), stream_type="h264", timeout=10)
    next(live)
    os.kill(server.proc.pid, signal.SIGSTOP)  # frames stop; the loop waits
    try:
        waiting, waited = iterate_in_thread(live)
        time.sleep(0.5)
        # The waiting loop holds no interpreter lock: a file plays meanwhile.
        other, played = iterate_in_thread(qosdkmm.FileInput(SAMPLES["h264"], framerate=0))
        other.join(20)
        assert played.get("frames") == 90 and waiting.is_alive()
        closing = time.monotonic()
        live.close()
        waiting.join(5)
        assert "frames" in waited and waited["ended"] - closing < 1
    finally:
        os.kill(server.proc.pid, signal.SIGCONT)
    live.close()  # again: nothing happens


def test_collection_and_interpreter_exit_close_the_nodes(rtsp_server):
    gc.collect()
    _, threads = process_status()
    source = qosdkmm.FileInput(SAMPLES["h264"], framerate=1)
    next(source)
    assert process_status()[1] > threads
    del source
    gc.collect()
    assert process_status()[1] <= threads

    server = rtsp_server("h264=h264")
    program = ("import threading, qosdkmm\n"
               f"live = qosdkmm.VideoInput({server.url('h264')!r}, stream_type='h264')\n"
               f"paced = qosdkmm.FileInput({str(SAMPLES['h264'])!r}, loop=-1)\n"
               "next(live), next(paced)\n"
               "threading.Thread(target=lambda: [f for f in live], daemon=True).start()\n"
               "print('running', flush=True)\n")
    started = time.monotonic()
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                          timeout=30)
    assert (done.returncode, done.stdout) == (0, "running\n"), done.stderr
    assert time.monotonic() - started < 15


def test_open_close_cycles_leave_memory_and_threads_flat(rtsp_server):
    url = rtsp_server("h264=h264").url("h264")

    def cycle(i):
        if i % 2:
            with qosdkmm.VideoInput(url, stream_type="h264") as source:
                assert next(source).nbytes > 0
        else:  # to the end: an unpaced file node closed midway waits out a pull
            with qosdkmm.FileInput(SAMPLES["h264"], framerate=0) as source:
                assert list(source)[-1].nbytes > 0

    for i in range(20):  # warm-up: caches, GStreamer's registry and plugins
        cycle(i)
    gc.collect()
    rss0, threads0 = process_status()
    for i in range(200):
        cycle(i)
    gc.collect()
    rss, threads = process_status()
    print(f"200 cycles: RSS {rss0:.1f} -> {rss:.1f} MiB, threads {threads0} -> {threads}")
    assert threads == threads0 and rss - rss0 < 8
