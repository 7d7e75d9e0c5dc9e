#!/usr/bin/python3
"""Benchmark of the Python package against the simulated quote service.

    PYTHONPATH=build/release/python /usr/bin/python3 examples/python/bench.py [--seconds 5]

Measures, with the simulator sending whole-market packages as fast as it can
(every millisecond) through the real pipeline:
  1. snapshots per second reaching Python through poll batches;
  2. the same through a subscription callback (the client's dispatcher thread);
  3. what reaches full buffers (4096 rows) that nobody reads: the cost of
     the slow-reader policy on the library's threads;
  4. a baseline built the way popular wrappers deliver: one dict per
     snapshot, the interpreter lock taken for each, on the library's thread;
  5. about a million one-minute bars, from the request to the DataFrame
     (measured first, before the flood).
"""

import argparse
import os
import tempfile
import threading
import time

import kelquote as kq

MARKETS = ("SH", "SZ")


def load():
    with open("/proc/loadavg") as f:
        return f.read().split()[0]


def feed(client, seconds):
    """What reaches the module's buffers with no Python reading: the feed's ceiling here."""
    subs = [client.subscribe_market(m, buffer_rows=4096) for m in MARKETS]
    time.sleep(0.5)
    first = sum(s.dropped + s.pending for s in subs)
    start = time.perf_counter()
    time.sleep(seconds)
    rows = sum(s.dropped + s.pending for s in subs) - first
    elapsed = time.perf_counter() - start
    for s in subs:
        s.close()
    return rows / elapsed


def by_poll(client, seconds):
    subs = [client.subscribe_market(m, buffer_rows=1 << 20) for m in MARKETS]
    rows = 0
    # Warm up one package per market, then count.
    for s in subs:
        s.poll(timeout=5)
    start = time.perf_counter()
    while time.perf_counter() - start < seconds:
        for s in subs:
            rows += len(s.poll(max_rows=200_000, timeout=0.01))
    elapsed = time.perf_counter() - start
    dropped = sum(s.dropped for s in subs)
    for s in subs:
        s.close()
    return rows / elapsed, dropped


def by_callback(client, seconds):
    count = [0]
    lock = threading.Lock()

    def on_batch(batch):
        with lock:
            count[0] += len(batch)

    subs = [client.subscribe_market(m, callback=on_batch, buffer_rows=1 << 20) for m in MARKETS]
    time.sleep(0.5)
    with lock:
        first = count[0]
    start = time.perf_counter()
    time.sleep(seconds)
    with lock:
        rows = count[0] - first
    elapsed = time.perf_counter() - start
    dropped = sum(s.dropped for s in subs)
    for s in subs:
        s.close()
    return rows / elapsed, dropped


def baseline(client, seconds):
    ticks = []
    append = ticks.append
    core = client._core
    ids = [core.baseline_subscribe_market(m, append) for m in MARKETS]
    time.sleep(0.5)
    first = len(ticks)
    start = time.perf_counter()
    time.sleep(seconds)
    rows = len(ticks) - first
    elapsed = time.perf_counter() - start
    for i in ids:
        core.baseline_unsubscribe(i)
    return rows / elapsed


def bars(client):
    start = time.perf_counter()
    frame = client.bars("600000.SH", period="1m", start="2009-01-01", end="2026-12-31", timeout=300)
    return time.perf_counter() - start, len(frame)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=5.0, help="length of each throughput run")
    args = parser.parse_args()
    client = kq.Client(home=os.environ.get("KELQUOTE_HOME") or os.path.join(tempfile.gettempdir(), "kelquote-bench"))
    client.login()
    kq.sim.set_clock(0, 100000)
    print(f"load average before: {load()} ({os.cpu_count()} cores)")
    # The bars first, on a quiet pipeline; then the flood.
    seconds, n = bars(client)
    print(f"bars:      {n:,} one-minute bars into a DataFrame in {seconds:.2f} s   load {load()}")
    kq.sim.set_push_interval(1)
    rate, dropped = by_poll(client, args.seconds)
    print(f"poll:      {rate:12,.0f} snapshots/s  (dropped {dropped})   load {load()}")
    rate_cb, dropped = by_callback(client, args.seconds)
    print(f"callback:  {rate_cb:12,.0f} snapshots/s  (dropped {dropped})   load {load()}")
    print(f"feed:      {feed(client, args.seconds):12,.0f} snapshots/s into full buffers, nobody reading   load {load()}")
    base = baseline(client, args.seconds)
    print(f"baseline:  {base:12,.0f} snapshots/s  (one dict per snapshot, lock per snapshot)   load {load()}")
    print(f"ratio:     poll {rate / base:.1f}x, callback {rate_cb / base:.1f}x the baseline")
    kq.sim.set_push_interval(1000)


if __name__ == "__main__":
    main()
