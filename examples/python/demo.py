#!/usr/bin/python3
"""A short Python session against the simulated quote service.

    scripts/run-demo.sh --python
    (or: PYTHONPATH=build/release/python /usr/bin/python3 examples/python/demo.py [--png closes.png])

Logs in, lists instruments, shows a second of live snapshots, loads a year of
daily bars into a DataFrame and draws their closes into a PNG with matplotlib.
"""

import argparse
import datetime as dt
import time

import pandas as pd

import kelquote as kq


def pick_clock():
    # Outside every session the simulated markets are closed: start their
    # clock at 10:00 of the last trading day instead, as the C++ demo does.
    now = dt.datetime.now()
    date, hhmmss = now.year * 10000 + now.month * 100 + now.day, now.hour * 10000 + now.minute * 100 + now.second
    if kq.sim.markets_trading(date, hhmmss):
        print(f"[demo] the simulated markets run on the wall clock ({date} {hhmmss:06d})")
    else:
        day = kq.sim.last_trading_day(date)
        kq.sim.set_clock(day, 100000)
        print(f"[demo] no market trades now: the simulated clock starts at 10:00:00 of {day}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--png", default="closes.png", help="where the chart of the closes goes")
    parser.add_argument("--home", default=None, help="the library's run folder (default: see kelquote.Client)")
    args = parser.parse_args()
    pd.set_option("display.width", 160)
    pd.set_option("display.max_columns", 12)

    client = kq.Client(home=args.home)
    client.on_connection(lambda status, text: print(f"[connection] {status}: {text}"))
    pick_clock()
    client.login(timeout=30)
    print(f"[demo] {client!r}")

    for market in ("SH", "SZ", "IF", "HGT"):
        frame = client.instruments(market)
        days = client.trading_days(market)
        print(f"\n[instruments] {market}: {len(frame)} instruments, trading days {days[0]} .. {days[-1]}")
        print(frame[["symbol", "name", "price_tick", "lot", "list_date"]].head(3).to_string(index=False))

    symbols = ["600000.SH", "000001.SZ", "00700.HGT"]
    with client.subscribe(symbols, kind="l1") as sub, client.subscribe_market("SH") as whole:
        time.sleep(1.0)
        rows = sub.poll(timeout=1.0)
        packages = whole.poll(max_rows=1_000_000, timeout=1.0)
    live = kq.ticks_frame(rows)
    print(f"\n[live] {len(rows)} snapshots of {len(symbols)} instruments in a second; the latest:")
    print(live.groupby("symbol")[["last", "prev_close", "volume", "bid1", "ask1", "phase"]].last().to_string())
    print(f"[live] SH whole market: {len(packages)} snapshots of {len(set(packages['symbol']))} instruments")

    bars = client.bars("600000.SH", period="1d", start=pd.Timestamp.now() - pd.Timedelta(days=365))
    print(f"\n[bars] 600000.SH daily, {len(bars)} bars:")
    print(bars.tail(3).to_string())

    finance = client.finance("000001.SZ", kinds=["balance_sheet", "holder_count"])
    print("\n[finance] 000001.SZ")
    print(finance["balance_sheet"][["announce_date", "total_assets", "total_liabilities"]].head(2).to_string())
    print(finance["holder_count"][["holders", "float_holders"]].head(2).to_string())

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    fig, ax = plt.subplots(figsize=(8, 3), dpi=100)
    ax.plot(bars.index, bars["close"], linewidth=1)
    ax.set_title("600000.SH daily closes (simulated)")
    ax.grid(alpha=0.3)
    fig.autofmt_xdate()
    fig.tight_layout()
    fig.savefig(args.png)
    print(f"\n[chart] {args.png}")


if __name__ == "__main__":
    main()
