"""Reads what kelquote_record stored, as DataFrames shaped like the client's own.

    from kelquote.store import Store
    s = Store("sqlite:///path/kelquote.db")      # or "postgresql://user@host:port/db"
    s.bars("600000.SH", "1m", start="2025-11-24 09:30", end="2025-11-24 15:00")
    s.ticks("600000.SH", start=..., end=...)

Times in and out are exchange local time (Asia/Shanghai): given times may be
strings, naive datetimes (taken as exchange time) or aware datetimes; the
frames' index ``time`` is tz-naive datetime64[ns], a bar's time being its end.
Pure Python: sqlite3 from the standard library, psycopg2 for PostgreSQL.
"""

import datetime as _dt
import os
import sqlite3
import urllib.parse
import urllib.request

import pandas as pd

__all__ = ["Store"]

_EXCHANGE = _dt.timezone(_dt.timedelta(hours=8))  # no daylight saving since 1991
_EXCHANGE_OFFSET = pd.Timedelta(hours=8)
_PERIODS = ("1m", "1d")
_FAR = 4102444800000  # 2100-01-01, within every back end's time range
_BAR_COLUMNS = ["open", "high", "low", "close", "volume", "amount", "open_interest"]
_TICK_COLUMNS = (["last", "volume", "amount"] + [f"bid{i}" for i in range(1, 6)] + [f"ask{i}" for i in range(1, 6)]
                 + [f"bid_vol{i}" for i in range(1, 6)] + [f"ask_vol{i}" for i in range(1, 6)] + ["phase"])


def _ms(value, default):
    """Milliseconds since the epoch of a time given as str, datetime or None."""
    if value is None:
        return default
    if isinstance(value, str):
        try:
            value = pd.Timestamp(value).to_pydatetime()
        except ValueError as e:
            raise ValueError(f"not a time: {value!r}") from e
    if isinstance(value, _dt.date) and not isinstance(value, _dt.datetime):
        value = _dt.datetime(value.year, value.month, value.day)
    if not isinstance(value, _dt.datetime):
        raise TypeError(f"a time is a str or a datetime, not {type(value).__name__}")
    if value.tzinfo is None:
        value = value.replace(tzinfo=_EXCHANGE)
    return int(value.timestamp() * 1000)


def _split(symbol):
    code, dot, market = str(symbol).rpartition(".")
    if not dot or not code or not market:
        raise ValueError(f"symbol {symbol!r} is not code.market (as 600000.SH)")
    return code, market


def _index(ms):
    """Exchange local, tz-naive datetime64[ns] index named time."""
    times = pd.to_datetime(pd.Series(ms, dtype="int64"), unit="ms") + _EXCHANGE_OFFSET
    return pd.DatetimeIndex(times.astype("datetime64[ns]"), name="time")


class Store:
    """A store written by kelquote_record: ``sqlite:///path`` or ``postgresql://...``."""

    def __init__(self, url):
        self.url = url
        if url.startswith("sqlite://"):
            path = url[len("sqlite://"):]
            if not path:
                raise ValueError(f"sqlite URL without a path: {url} (expected sqlite:///path/to/file.db)")
            if not os.path.isfile(path):
                raise FileNotFoundError(f"no store at {path} (from {url})")
            self._conn = sqlite3.connect(f"file:{urllib.request.pathname2url(os.path.abspath(path))}?mode=ro",
                                         uri=True, check_same_thread=False)
            self._param = "?"
            self._time = "time"
        elif url.startswith(("postgresql://", "postgres://")):
            try:
                import psycopg2
            except ImportError as e:
                raise ImportError("reading PostgreSQL needs psycopg2 (apt-get install python3-psycopg2)") from e
            try:
                self._conn = psycopg2.connect(url)
            except psycopg2.Error as e:
                raise ConnectionError(f"cannot connect to {url}: {str(e).strip()}") from e
            self._conn.autocommit = True
            self._param = "%s"
            self._time = "(extract(epoch from time) * 1000)::bigint"
        else:
            raise ValueError(f"unknown store URL: {url} (expected sqlite:///path or postgresql://user@host:port/db)")

    def close(self):
        self._conn.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _query(self, sql, params):
        cur = self._conn.cursor()
        try:
            cur.execute(sql.replace("?", self._param), params)
            return cur.fetchall()
        finally:
            cur.close()

    def _range(self, column):
        if self._param == "?":
            return f"{column} BETWEEN ? AND ?"
        return (f"{column} BETWEEN timestamptz 'epoch' + ? * interval '1 millisecond'"
                f" AND timestamptz 'epoch' + ? * interval '1 millisecond'")

    def bars(self, symbol, period="1m", start=None, end=None):
        """Bars of symbol ("1m" or "1d") whose end lies in [start, end]."""
        if period not in _PERIODS:
            raise ValueError(f"period {period!r} is not one of {', '.join(_PERIODS)}")
        code, market = _split(symbol)
        rows = self._query(f"SELECT {self._time}, {', '.join(_BAR_COLUMNS)} FROM bars"
                           f" WHERE symbol = ? AND market = ? AND interval = ? AND {self._range('time')}"
                           " ORDER BY time", (code, market, period, _ms(start, 0), _ms(end, _FAR)))
        return self._frame(rows, _BAR_COLUMNS, None)

    def ticks(self, symbol, start=None, end=None):
        """Level-1 ticks of symbol with start <= time <= end, in order."""
        code, market = _split(symbol)
        rows = self._query(f"SELECT {self._time}, seq, {', '.join(_TICK_COLUMNS)} FROM ticks"
                           f" WHERE symbol = ? AND market = ? AND {self._range('time')} ORDER BY time, seq",
                           (code, market, _ms(start, 0), _ms(end, _FAR)))
        frame = self._frame(rows, ["seq"] + _TICK_COLUMNS, f"{code}.{market}")
        return frame[["symbol"] + _TICK_COLUMNS + ["seq"]]

    def trades(self, symbol, start=None, end=None):
        """Level-2 trades of symbol (recorded with trades = true): price, volume in shares, side B or S."""
        code, market = _split(symbol)
        columns = ["price", "volume", "amount", "side", "number"]
        rows = self._query(f"SELECT {self._time}, seq, {', '.join(columns)} FROM trades"
                           f" WHERE symbol = ? AND market = ? AND {self._range('time')} ORDER BY time, seq",
                           (code, market, _ms(start, 0), _ms(end, _FAR)))
        frame = pd.DataFrame([r[1:] for r in rows], columns=["seq"] + columns)
        frame.index = _index([r[0] for r in rows])
        frame.insert(0, "symbol", f"{code}.{market}")
        return frame[["symbol"] + columns + ["seq"]]

    def overview(self):
        """What the store holds: symbol, interval, count, first and last bar time."""
        rows = self._query(f"SELECT symbol || '.' || market, interval, count,"
                           f" {self._time.replace('time', 'first')}, {self._time.replace('time', 'last')}"
                           " FROM overview ORDER BY 1, 2", ())
        frame = pd.DataFrame(rows, columns=["symbol", "interval", "count", "first", "last"])
        for c in ("first", "last"):
            frame[c] = _index(frame[c].astype("int64")).values
        return frame

    @staticmethod
    def _frame(rows, columns, symbol):
        frame = pd.DataFrame([r[1:] for r in rows], columns=columns)
        frame.index = _index([r[0] for r in rows])
        for c in columns:
            if c in ("seq", "phase") or c.startswith(("bid_vol", "ask_vol")) or c in ("volume", "open_interest"):
                frame[c] = frame[c].astype("int64")
            else:
                frame[c] = frame[c].astype("float64")
        if symbol is not None:
            frame.insert(0, "symbol", symbol)
        return frame
