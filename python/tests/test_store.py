"""kelquote.store against stores the recorder wrote: a SQLite file and, when
scripts/pg-test-server.sh runs the tests, PostgreSQL. The recorder records
ten seconds of the simulated morning (KELQUOTE_RECORD_BIN names it)."""

import os
import pathlib
import shutil
import subprocess
import sys

import pandas as pd
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from kelquote.store import Store  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
RECORD = os.environ.get("KELQUOTE_RECORD_BIN")
BACKENDS = ["sqlite", "postgresql"]


@pytest.fixture(scope="module", params=BACKENDS)
def store(request, tmp_path_factory):
    if not RECORD:
        pytest.skip("KELQUOTE_RECORD_BIN is not set (scripts/test.sh sets it)")
    base = tmp_path_factory.mktemp(request.param)
    if request.param == "sqlite":
        url = f"sqlite://{base / 'kq.db'}"
    else:
        url = os.environ.get("KELQUOTE_TEST_PG_URL")
        if not url:
            pytest.skip("KELQUOTE_TEST_PG_URL is not set (scripts/pg-test-server.sh sets it)")
    run = base / "run"
    (run / "ini").mkdir(parents=True)
    (base / "userdata" / "log").mkdir(parents=True)
    shutil.copy(ROOT / "config" / "dravikcfg.dat", run)
    (run / "record.conf").write_text("trades = true\n")
    env = dict(os.environ, TZ="Asia/Shanghai", KELQUOTE_SIM_CLOCK="0-100000")
    done = subprocess.run([RECORD, "--settings", "record.conf", "--url", url, "--symbols", "600000.SH,000001.SZ", "--seconds", "4"],
                          cwd=run, env=env, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stdout + done.stderr
    with Store(url) as s:
        yield s


def test_bars_are_shaped_like_the_clients(store):
    bars = store.bars("600000.SH", "1m")
    assert list(bars.columns) == ["open", "high", "low", "close", "volume", "amount", "open_interest"]
    assert bars.index.name == "time" and str(bars.index.dtype) == "datetime64[ns]" and bars.index.tz is None
    assert bars.index.is_monotonic_increasing and bars.index.is_unique
    # Exchange time: the recorded morning's bars end on minutes from 09:31 to 10:01.
    day = bars.index[-1].normalize()
    today = bars[bars.index >= day]
    assert today.index[0] == day + pd.Timedelta("09:31:00")
    assert today.index[-1] <= day + pd.Timedelta("10:01:00")
    assert (today.index.second == 0).all() and (today["volume"] > 0).all()
    assert (today["low"] <= today[["open", "close"]].min(axis=1)).all()
    daily = store.bars("600000.SH", "1d")
    assert list(daily.index) == [day]


def test_ranges_and_ticks(store):
    day = store.bars("600000.SH", "1m").index[-1].normalize()
    start, end = day + pd.Timedelta("09:40:00"), (day + pd.Timedelta("09:45:00")).to_pydatetime()
    part = store.bars("600000.SH", "1m", start=str(start), end=end)
    assert list(part.index) == list(pd.date_range(start, end, freq="1min", name="time"))
    ticks = store.ticks("000001.SZ", start=day + pd.Timedelta("09:30:00"))
    assert list(ticks.columns) == (["symbol", "last", "volume", "amount"] + [f"bid{i}" for i in range(1, 6)]
                                   + [f"ask{i}" for i in range(1, 6)] + [f"bid_vol{i}" for i in range(1, 6)]
                                   + [f"ask_vol{i}" for i in range(1, 6)] + ["phase", "seq"])
    assert len(ticks) > 100 and (ticks["symbol"] == "000001.SZ").all()
    assert ticks.index.min() >= day + pd.Timedelta("09:30:00") and ticks["volume"].is_monotonic_increasing
    trades = store.trades("000001.SZ")
    assert list(trades.columns) == ["symbol", "price", "volume", "amount", "side", "number", "seq"]
    assert len(trades) > 0 and set(trades["side"]) <= {"B", "S"} and trades.index.is_monotonic_increasing
    overview = store.overview()
    assert set(overview["interval"]) == {"1m", "1d"}


@pytest.mark.parametrize("call, says", [
    (lambda s: s.bars("600000.SH", "5m"), "period '5m'"),
    (lambda s: s.bars("600000", "1m"), "not code.market"),
    (lambda s: s.ticks("600000.SH", start="yesterday-ish"), "not a time"),
])
def test_bad_arguments_say_what_is_wrong(store, call, says):
    with pytest.raises(ValueError, match=says):
        call(store)


@pytest.mark.parametrize("url, error, says", [
    ("mysql://x", ValueError, "unknown store URL"),
    ("sqlite://", ValueError, "without a path"),
    ("sqlite:///no/such/file.db", FileNotFoundError, "no store at"),
    ("postgresql://nobody@127.0.0.1:1/none?connect_timeout=2", ConnectionError, "cannot connect"),
])
def test_bad_urls_say_what_is_wrong(url, error, says):
    with pytest.raises(error, match=says):
        Store(url)
