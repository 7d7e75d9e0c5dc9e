import datetime as dt

import numpy as np
import pandas as pd
import pytest

import kelquote as kq

BAR_COLUMNS = ["open", "high", "low", "close", "volume", "amount", "open_interest"]


@pytest.mark.parametrize("market", kq.MARKETS)
def test_reference_data(client, market):
    days = client.trading_days(market)
    assert days.dtype == np.dtype("datetime64[D]") and len(days) > 100
    assert (np.diff(days.astype("int64")) > 0).all()
    frame = client.instruments(market)
    if market != "SGT":  # the connect's shares are listed under HGT only
        assert len(frame) > 0 and (frame["symbol"] == frame["code"] + "." + market).all()


def test_names_are_utf8(client):
    frame = client.instruments("SH").set_index("code")
    assert frame.loc["000001", "name"] == "上证指数"


@pytest.mark.parametrize("start,end", [("2026-11-02", "2026-11-06"), (dt.date(2026, 11, 2), dt.date(2026, 11, 6)),
                                       (pd.Timestamp("2026-11-01 16:00", tz="UTC"), dt.datetime(2026, 11, 6, 23)),
                                       (20261102, np.datetime64("2026-11-06"))])
def test_daily_bars_cover_the_days_asked(client, start, end):
    frame = client.bars("600000.SH", period="1d", start=start, end=end)
    assert list(frame.columns) == BAR_COLUMNS and frame.index.name == "time"
    assert list(frame.index) == list(pd.date_range("2026-11-02", "2026-11-06"))
    assert (frame["high"] >= frame["low"]).all()


def test_minute_bars_and_their_aggregates(client):
    one = client.bars("600000.SH", period="1m", start="2026-11-20", end="2026-11-20")
    five = client.bars("600000.SH", period="5m", start="2026-11-20", end="2026-11-20")
    assert one.index[0] == pd.Timestamp("2026-11-20 09:31") and one.index.is_monotonic_increasing
    assert five["volume"].sum() == one["volume"].sum() and five["high"].max() == one["high"].max()
    assert len(five) == len(one) // 5


def test_long_minute_ranges_come_whole(client):
    frame = client.bars("600000.SH", period="1m", start="2025-01-01", end="2025-12-31")
    days = np.unique(frame.index.normalize())
    assert not frame.index.has_duplicates and len(days) == len(
        [d for d in client.trading_days("SH") if d.astype(object).year == 2025])


def test_several_symbols(client):
    frame = client.bars(["600000.SH", "000001.SZ"], period="1d", start="2026-11-02", end="2026-11-06")
    assert frame.groupby("symbol").size().to_dict() == {"600000.SH": 5, "000001.SZ": 5}


def test_ticks(client):
    frame = client.ticks("600000.SH", start="2026-11-20", end="2026-11-20")
    assert list(frame.columns[:9]) == ["symbol", "time", "last", "open", "high", "low", "prev_close", "volume", "amount"]
    assert {f"{s}{i}" for s in ("bid", "ask", "bid_vol", "ask_vol") for i in range(1, 6)} | {"phase"} <= set(frame.columns)
    assert (frame["time"].dt.normalize() == pd.Timestamp("2026-11-20")).all() and (frame["symbol"] == "600000.SH").all()
    assert frame.sort_values("time").index.is_monotonic_increasing


@pytest.mark.parametrize("call,error", [
    (lambda c: c.bars("600000"), kq.SymbolError),
    (lambda c: c.bars("600000.XX"), kq.SymbolError),
    (lambda c: c.bars("999999.SH"), kq.SymbolError),
    (lambda c: c.ticks(42), kq.SymbolError),
    (lambda c: c.instruments("NYSE"), kq.SymbolError),
    (lambda c: c.bars("600000.SH", period="7m"), ValueError),
    (lambda c: c.bars("600000.SH", start="2026-02-01", end="2026-01-01"), ValueError),
    (lambda c: c.bars("600000.SH", start="not a date"), ValueError),
    (lambda c: c.bars("600000.SH", start=1700000000), ValueError),
    (lambda c: c.finance("000001.SZ", kinds=["gossip"]), ValueError),
    (lambda c: c.subscribe(["600000.SH"], kind="l3"), ValueError),
])
def test_bad_input_raises(client, call, error):
    with pytest.raises(error):
        call(client)


def test_finance_every_kind(client):
    frames = client.finance("000001.SZ")
    assert set(frames) == set(kq.FINANCE_KINDS)
    assert all(len(f) > 0 and f.index.name == "report_date" for f in frames.values())
    balance, income = frames["balance_sheet"], frames["income"]
    assert balance["total_assets"].gt(0).all()
    assert frames["top_holders"]["holder"].str.len().gt(0).all()
    # Each name sits on the item it names: the totals are sums of their groups.
    # (The service sends the balance sheet as floats.)
    assert np.allclose(balance.filter(regex="^(cash|current_asset_[0-9]+)$").sum(axis=1), balance["current_assets"])
    assert np.allclose(balance.filter(regex="^non_current_asset_").sum(axis=1), balance["non_current_assets"])
    costs = income[["cost_of_sales"] + [f"operating_cost_{i}" for i in range(1, 6)]].sum(axis=1)
    assert np.allclose(costs, income["total_operating_costs"])
    assert np.allclose(income["net_profit"], income["parent_net_profit"] + income["minority_profit"])
    assert not any(c.startswith("item_") for c in frames["holder_count"].columns)


@pytest.mark.parametrize("fault", [
    lambda: kq.sim.set_history_fault(1),       # the last block never comes
    lambda: kq.sim.set_finance_reply(1, 1),   # no answer
])
def test_failed_requests_raise(client, fault):
    fault()
    try:
        with pytest.raises(kq.RequestError):
            client.bars("600000.SH", timeout=2)
            client.finance("000001.SZ", kinds=["balance_sheet"], timeout=2)
    finally:
        kq.sim.set_history_fault(0)
        kq.sim.set_finance_reply(1, 0)
