import asyncio
import signal
import threading
import time

import numpy as np
import pytest

import kelquote as kq


def first_batch(sub):
    for _ in range(20):
        batch = sub.poll(timeout=1.0)
        if len(batch):
            return batch
    raise AssertionError(f"no rows from {sub!r}")


SNAPSHOT = "symbol time last open high low prev_close volume amount bid ask bid_vol ask_vol phase"


@pytest.mark.parametrize("kind,levels,fields", [
    ("l1", 5, SNAPSHOT), ("depth", 10, SNAPSHOT),
    ("trades", 0, "symbol time price volume amount side kind index channel"),
    ("orders", 0, "symbol time price volume side kind index"),
    ("queues", 0, "symbol time price volume side order_count listed orders"),
])
def test_each_kind_delivers_rows(client, kind, levels, fields):
    with client.subscribe(["600000.SH", "000001.SZ"], kind=kind) as sub:
        batch = first_batch(sub)
    assert sub.closed and set(batch["symbol"]) <= {b"600000.SH", b"000001.SZ"}
    assert set(fields.split()) <= set(batch.dtype.names)
    if kind in ("trades", "orders"):
        assert set(batch["side"]) <= {b"B", b"S"} and (np.diff(batch["index"][batch["symbol"] == batch["symbol"][0]]) > 0).all()
    assert (batch["time"] > np.datetime64("2020-01-01")).all() and (batch["price" if levels == 0 else "last"] > 0).all()
    if levels:
        assert batch["bid"].shape[1:] == (levels,) and batch["ask_vol"].shape[1:] == (levels,)


def test_whole_market(client):
    with client.subscribe_market("SH") as sub:
        batch = first_batch(sub)
    symbols = np.char.decode(batch["symbol"])
    assert len(set(symbols)) > 1000 and all(s.endswith(".SH") for s in symbols)


def test_closed_subscription(client):
    sub = client.subscribe("600000.SH")
    threading.Timer(0.3, sub.close).start()
    batches = list(sub)  # ends when closed
    with pytest.raises(kq.SubscriptionClosed):
        sub.poll()
    assert "closed" in repr(sub) and all(len(b) for b in batches)


def test_async_stream(client):
    async def one():
        with client.subscribe("600000.SH") as sub:
            async for batch in sub.stream():
                return batch
    assert len(asyncio.run(one())) > 0


def test_callbacks_that_raise_or_close(client):
    errors, closing, raising = [], [], []
    client.on_error(errors.append)

    def close_at_once(batch):
        closing.append(len(batch))
        sub_closing.close()

    def fail(batch):
        raising.append(len(batch))
        raise RuntimeError("boom")

    sub_closing = client.subscribe("600000.SH", callback=close_at_once)
    sub_raising = client.subscribe("000001.SZ", callback=fail)
    deadline = time.monotonic() + 20
    while len(raising) < 3 and time.monotonic() < deadline:
        time.sleep(0.05)
    sub_raising.close()
    client.on_error(None)
    assert len(closing) == 1 and sub_closing.closed
    assert len(raising) >= 3 and len(errors) == len(raising) and str(errors[0]) == "boom"


def test_full_buffer_keeps_each_symbols_latest(client):
    with client.subscribe_market("SH", buffer_rows=100) as sub:
        while sub.dropped == 0:
            time.sleep(0.05)
        batch = sub.poll(timeout=0)
    assert len(batch) == 100 and len(set(batch["symbol"])) == 100


def test_full_buffer_of_one_symbol_keeps_the_newest(client):
    kq.sim.set_stream_interval(1)
    try:
        with client.subscribe("600000.SH", buffer_rows=8) as sub:
            while sub.dropped < 50:
                time.sleep(0.05)
            old = sub.poll(timeout=0)
            new = first_batch(sub)
    finally:
        kq.sim.set_stream_interval(20)
    assert len(old) == 8 and (np.diff(old["time"].astype("int64")) >= 0).all()
    assert new["time"][0] >= old["time"][-1]


def test_ctrl_c_interrupts_a_wait(script):
    rc, _, err = script("import kelquote as kq\nc = kq.Client(); c.login()\nsub = c.subscribe('600000.SH')\n"
                        "kq.sim.set_stream_interval(3600000)\nsub.poll(timeout=1)\nprint('ready', flush=True)\n"
                        "sub.poll(timeout=None)", stdin_signal=signal.SIGINT)
    assert rc != 0 and "KeyboardInterrupt" in err


def test_exit_with_live_subscriptions(script):
    # Daemon threads still waiting in the library's calls at exit, too.
    rc, out, err = script("import kelquote as kq, threading, time\nc = kq.Client(); c.login()\n"
                          "a = c.subscribe(['600000.SH'], callback=lambda b: time.sleep(0.01))\n"
                          "b = c.subscribe_market('SZ')\nd = c.subscribe('000001.SZ', kind='depth')\n"
                          "threading.Thread(target=lambda: list(b), daemon=True).start()\n"
                          "threading.Thread(target=lambda: d.poll(timeout=None), daemon=True).start()\n"
                          "time.sleep(1)\nprint('bye')")
    assert rc == 0 and out.strip() == "bye" and "terminate" not in err, err


def test_refused_login_then_login(script):
    rc, out, err = script("import kelquote as kq\nkq.sim.refuse_connect(True)\nc = kq.Client()\n"
                          "try:\n    c.login(timeout=30)\nexcept kq.LoginError as e:\n    print(e)\n"
                          "kq.sim.refuse_connect(False)\nc.login()\nprint(c.logged_in)")
    assert rc == 0 and out.split() == ["网关连接超时，请检查网络状态，稍后重试！", "True"], err


def test_sim_controls_need_the_simulator(script):
    rc, out, err = script("import kelquote as kq\ntry:\n    kq.sim.set_clock(0, 100000)\n"
                          "except kq.sim.NotSimulatorError as e:\n    print('refused')",
                          env={"LD_LIBRARY_PATH": str(__import__('conftest').ROOT / "build/release/bin/replay")})
    assert rc == 0 and out.strip() == "refused", err


def test_connection_and_market_reports(client):
    seen = []
    client.on_connection(lambda status, text: seen.append(("connection", status)))
    client.on_market_change(lambda kind, market: seen.append((kind, market)))
    kq.sim.report_connection(0, 0)
    kq.sim.report_connection(0, 1)
    kq.sim.change_market(1)
    deadline = time.monotonic() + 20
    while len(seen) < 6 and time.monotonic() < deadline:
        time.sleep(0.05)
    client.on_connection(None)
    client.on_market_change(None)
    assert seen[:2] == [("connection", 1), ("connection", 0)]
    assert {(0, "SZ"), (1, "SZ")} <= set(seen[2:])
