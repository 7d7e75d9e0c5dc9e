"""The client and its subscriptions."""

import asyncio
import datetime as _dt
import os
import shutil
import sys
import threading
import traceback
import weakref

import numpy as np
import pandas as pd

from . import _finance
from . import _kelquote as _kq

Error = _kq.Error
LoginError = _kq.LoginError
RequestError = _kq.RequestError
SubscriptionClosed = _kq.SubscriptionClosed


class SymbolError(Error, ValueError):
    """An unknown symbol or market code."""


MARKETS = ("SH", "SZ", "SHO", "SZO", "IF", "SF", "INE", "DF", "ZF", "HGT", "SGT")
KINDS = ("l1", "depth", "trades", "orders", "queues")
_PERIODS = {"1m": 1, "5m": 5, "15m": 15, "30m": 30, "60m": 60, "1h": 60, "1d": 0}
_DAY_MS = 86_400_000

_LOG_CONFIG = (
    "log4cplus.configDebug = false\r\n"
    "log4cplus.logger.KELLog = INFO, KELLog\r\n"
    "log4cplus.appender.KELLog = log4cplus::RollingFileAppender\r\n"
    "log4cplus.appender.KELLog.File = {log}\r\n"
    "log4cplus.appender.KELLog.MaxFileSize = 40MB\r\n"
    "log4cplus.appender.KELLog.MaxBackupIndex = 10\r\n"
    "log4cplus.appender.KELLog.layout = log4cplus::PatternLayout\r\n"
    "log4cplus.appender.KELLog.layout.ConversionPattern = %D{{ %Y-%m-%d %H:%M:%S.%q }}[%p][%t]%m %n\r\n"
)


def _find_config():
    here = os.path.dirname(os.path.abspath(__file__))
    prefix = os.path.normpath(os.path.join(here, "..", "..", "..", ".."))
    candidates = [os.environ.get("KELQUOTE_CONFIG"), os.path.join(here, "dravikcfg.dat"),
                  os.path.join(prefix, "share", "kelquote", "dravikcfg.dat"),
                  "/usr/share/kelquote/dravikcfg.dat", "/usr/local/share/kelquote/dravikcfg.dat"]
    for path in candidates:
        if path and os.path.isfile(path):
            return path
    raise Error("no dravikcfg.dat found: set KELQUOTE_CONFIG, or pass home= a folder that holds one")


def _prepare_home(home):
    """The folder the library runs in: it reads ./dravikcfg.dat and ./ini/ there."""
    if home is None:
        home = os.environ.get("KELQUOTE_HOME")
    if home is None and os.path.isfile("dravikcfg.dat"):
        return os.getcwd()  # a terminal's own folder, used as it is
    if home is None:
        state = os.environ.get("XDG_STATE_HOME") or os.path.join(os.path.expanduser("~"), ".local", "state")
        home = os.path.join(state, "kelquote")
    home = os.path.abspath(home)
    if os.path.isfile(os.path.join(home, "dravikcfg.dat")):
        return home
    run = os.path.join(home, "run")
    log_dir = os.path.join(home, "userdata", "log")
    os.makedirs(os.path.join(run, "ini"), exist_ok=True)
    os.makedirs(log_dir, exist_ok=True)
    if not os.path.isfile(os.path.join(run, "dravikcfg.dat")):
        shutil.copyfile(_find_config(), os.path.join(run, "dravikcfg.dat"))
    log_config = os.path.join(run, "ini", "KELQuoteLog.config")
    if not os.path.isfile(log_config):
        # An absolute log path, so that rolling works from any working folder.
        with open(log_config, "w", encoding="ascii") as out:
            out.write(_LOG_CONFIG.format(log=os.path.join(log_dir, "DravikData.log")))
    return run


def _split(symbol):
    if not isinstance(symbol, str) or symbol.count(".") != 1:
        raise SymbolError(f"a symbol is 'code.market', e.g. '600000.SH', not {symbol!r}")
    code, market = symbol.split(".")
    if market not in MARKETS:
        raise SymbolError(f"unknown market code {market!r} in {symbol!r}; known: {', '.join(MARKETS)}")
    return code, market


def _timestamp(value):
    if isinstance(value, (int, np.integer)) and not isinstance(value, bool):
        if not 19000101 <= value <= 29991231:
            raise ValueError(f"an integer time is a date yyyymmdd, not {value!r}")
        value = str(value)
    try:
        ts = pd.Timestamp(value)
    except (TypeError, ValueError) as e:
        raise ValueError(f"not a time: {value!r}") from e
    if ts is pd.NaT:
        raise ValueError(f"not a time: {value!r}")
    if ts.tzinfo is not None:
        ts = ts.tz_convert("Asia/Shanghai").tz_localize(None)
    return ts


def _is_date_only(value):
    if isinstance(value, _dt.datetime) or isinstance(value, pd.Timestamp):
        return False
    if isinstance(value, _dt.date) or isinstance(value, (int, np.integer)):
        return True
    if isinstance(value, np.datetime64):
        return np.datetime_data(value.dtype)[0] in ("D", "W", "M", "Y")
    return isinstance(value, str) and len(value.strip()) <= 10


def _to_ms(value, end=False):
    """A time (str, datetime, date, yyyymmdd int, numpy or pandas) of the exchange's clock, as library milliseconds."""
    ts = _timestamp(value)
    if end and _is_date_only(value):
        ts = ts + pd.Timedelta(days=1) - pd.Timedelta(milliseconds=1)
    ms = _kq.time_to_ms(ts.year * 10000 + ts.month * 100 + ts.day, ts.hour * 10000 + ts.minute * 100 + ts.second)
    return ms + ts.microsecond // 1000


def _times(ms):
    return pd.DatetimeIndex(np.asarray(ms, dtype="int64").astype("datetime64[ms]").astype("datetime64[ns]"), name="time")


_WINDOW_DAYS = 90


def _windows(start_ms, end_ms, days):
    """[start, end] cut at local midnights into spans of at most days days."""
    spans = []
    cut = pd.Timestamp(_kq.local_ms(start_ms), unit="ms").normalize()
    while True:
        cut += pd.Timedelta(days=days)
        cut_ms = _to_ms(cut)
        if cut_ms > end_ms:
            return spans + [(start_ms, end_ms)]
        spans.append((start_ms, cut_ms - 1))
        start_ms = cut_ms


def _resample(frame, minutes):
    out = (frame.resample(f"{minutes}min", label="right", closed="right")
           .agg({"open": "first", "high": "max", "low": "min", "close": "last", "volume": "sum", "amount": "sum",
                 "open_interest": "last"})
           .dropna(subset=["open"]))
    out.index.name = "time"
    return out.astype({"volume": frame["volume"].dtype, "open_interest": frame["open_interest"].dtype})


def ticks_frame(rows):
    """Level-1 rows (a structured array of kind l1) as a DataFrame with a time column, indexed by the same times."""
    times = _times(rows["time"].astype("int64"))
    data = {"symbol": np.char.decode(rows["symbol"], "ascii") if len(rows) else np.array([], dtype=object),
            "time": times}
    for name in ("last", "open", "high", "low", "prev_close", "volume", "amount"):
        data[name] = rows[name]
    for side in ("bid", "ask", "bid_vol", "ask_vol"):
        levels = rows[side]
        for i in range(levels.shape[1]):
            data[f"{side}{i + 1}"] = levels[:, i]
    for name in ("phase", "upper_limit", "lower_limit", "trade_count"):
        data[name] = rows[name]
    # The index goes unnamed: an index named like a column makes pandas refuse sort_values("time") and groupby.
    return pd.DataFrame(data, index=times.rename(None))


class Subscription:
    """Rows of one or more instruments (or a whole market) as they arrive.

    Rows wait in a bounded buffer of `buffer_rows` rows. When it is full, a
    new row of a symbol replaces that symbol's oldest row still waiting (the
    oldest row of all when none of that symbol waits), so that a slow reader
    always sees every symbol's latest state; `dropped` counts the rows given
    up.
    """

    def __init__(self, client, sub, what, callback, batch_rows):
        self._client = client
        self._sub = sub
        self._what = what
        self.callback = callback
        self.batch_rows = batch_rows
        self.dtype = _kq.dtype(sub.kind)

    def poll(self, max_rows=100_000, timeout=1.0):
        """The rows that arrived since the last poll (at most max_rows), as a
        numpy structured array; waits up to timeout seconds (None: without end)
        for the first, and is empty on time-out."""
        if max_rows < 1:
            raise ValueError("max_rows must be at least 1")
        return self._sub.poll(int(max_rows), -1.0 if timeout is None else float(timeout))

    def __iter__(self):
        return self

    def __next__(self):
        while True:
            try:
                batch = self._sub.poll(self.batch_rows, 0.5)
            except SubscriptionClosed:
                raise StopIteration from None
            if len(batch):
                return batch

    async def stream(self, max_rows=None):
        """The batches, for asyncio: `async for batch in sub.stream(): ...`."""
        loop = asyncio.get_running_loop()
        rows = max_rows or self.batch_rows
        while True:
            try:
                batch = await loop.run_in_executor(None, self._sub.poll, rows, 0.25)
            except SubscriptionClosed:
                return
            if len(batch):
                yield batch

    def close(self):
        """Ends the subscription; after it returns, its callback is not called again
        (unless close is called from inside that callback, which is allowed)."""
        self._sub.close()
        self._client._by_key.pop(self._sub.key, None)

    @property
    def closed(self):
        return self._sub.closed

    @property
    def dropped(self):
        """Rows given up because the buffer was full."""
        return self._sub.dropped

    @property
    def pending(self):
        """Rows waiting to be polled."""
        return self._sub.pending

    @property
    def kind(self):
        return self._sub.kind

    @property
    def buffer_rows(self):
        return self._sub.capacity

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        sub = getattr(self, "_sub", None)
        if sub is not None:
            sub.close()

    def __repr__(self):
        state = "closed" if self.closed else f"{self.pending} rows waiting, {self.dropped} dropped"
        mode = ", callback" if self.callback else ""
        return f"<kelquote.Subscription {self.kind} of {self._what}{mode}: {state}>"


class Client:
    """The process's one quote client (every Client() is the same object).

    home: the folder the library runs in (it reads ./dravikcfg.dat and ./ini/
    there and logs to ../userdata/log/). By default the current folder when it
    holds dravikcfg.dat, else $KELQUOTE_HOME, else ~/.local/state/kelquote,
    prepared at first use from the installed configuration.
    """

    _instance = None
    _lock = threading.Lock()

    def __new__(cls, home=None):
        with cls._lock:
            if cls._instance is None:
                self = super().__new__(cls)
                self._setup(home)
                cls._instance = self
            elif home is not None and _prepare_home(home) != cls._instance.home:
                raise Error(f"the process's client already runs in {cls._instance.home}")
            return cls._instance

    def __init__(self, home=None):
        pass

    def _setup(self, home):
        self.home = _prepare_home(home)
        self._core = _kq.Core()
        self._codes = {}
        self._subs = weakref.WeakSet()
        self._by_key = {}  # the module's subscription to its Subscription, for the dispatcher
        self._on_connection = None
        self._on_market_change = None
        self._on_error = None
        self._stop = False
        self._dispatcher = threading.Thread(target=self._dispatch, name="kelquote-dispatcher")
        register = getattr(threading, "_register_atexit", None)
        # A regular thread, stopped before the interpreter joins its threads;
        # a daemon thread could be cut off inside the library at exit.
        self._dispatcher.daemon = register is None
        self._dispatcher.start()
        if register is not None:
            register(self._shutdown)
        import atexit
        atexit.register(self._shutdown)

    # -- session -----------------------------------------------------------

    def login(self, timeout=30, *, environment=2, user="", password=""):
        """Connects to the quote service; raises LoginError with the reason."""
        here = os.getcwd()
        os.chdir(self.home)
        try:
            self._core.login(int(environment), user, password, float(timeout))
        finally:
            os.chdir(here)
        return self

    @property
    def logged_in(self):
        return self._core.logged_in

    def on_connection(self, fn):
        """fn(status, text): 0 restored, 1 lost and reconnecting, 2 failed."""
        self._on_connection = fn
        return fn

    def on_market_change(self, fn):
        """fn(kind, market): 0 trading days, 1 instrument list of the host market."""
        self._on_market_change = fn
        return fn

    def on_error(self, fn):
        """fn(exc) for an exception raised by a callback; by default it is printed."""
        self._on_error = fn
        return fn

    # -- reference data ----------------------------------------------------

    def instruments(self, market):
        """One row per instrument of the market: code, name (UTF-8), ..."""
        if market not in MARKETS:
            raise SymbolError(f"unknown market code {market!r}; known: {', '.join(MARKETS)}")
        cols = self._core.instruments(market)
        frame = pd.DataFrame({k: np.array(v, dtype=object) if isinstance(v, list) else v for k, v in cols.items()})
        frame.insert(2, "market", market)
        frame.insert(0, "symbol", frame["code"] + "." + market)
        dates = frame["list_date"].to_numpy()
        frame["list_date"] = pd.to_datetime(np.where(dates > 0, dates, 0).astype(str), format="%Y%m%d", errors="coerce")
        self._codes[market] = frozenset(cols["code"])
        return frame

    def trading_days(self, market):
        """The market's trading days, numpy datetime64[D]."""
        if market not in MARKETS:
            raise SymbolError(f"unknown market code {market!r}; known: {', '.join(MARKETS)}")
        return (self._core.trading_days(market) // _DAY_MS).astype("datetime64[D]")

    def _check(self, symbol):
        code, market = _split(symbol)
        codes = self._codes.get(market)
        if codes is None or code not in codes:
            codes = self._codes[market] = frozenset(self._core.instruments(market)["code"])
        if code not in codes:
            raise SymbolError(f"unknown symbol {symbol!r}: no such instrument in market {market}")
        return code, market

    # -- history -----------------------------------------------------------

    def _span(self, start, end, default_days):
        end_ms = _to_ms(end, end=True) if end is not None else _to_ms(pd.Timestamp.now())
        start_ms = _to_ms(start) if start is not None else end_ms - default_days * _DAY_MS
        if start_ms > end_ms:
            raise ValueError("start is after end")
        return start_ms, end_ms

    def bars(self, symbols, period="1d", start=None, end=None, timeout=60):
        """Bars as a DataFrame indexed by their end time: open high low close volume amount open_interest.

        symbols: one symbol, or a list (the frame then has a symbol column; the
        requests go out together). period: 1m, 5m, 15m, 30m, 60m (made from 1m
        bars) or 1d. start, end: str, date or datetime of the exchange's clock
        (an end without a time of day includes that day); by default the last
        year (daily) or month (minutes) up to now. Long minute ranges are asked
        for in windows of 90 days, as the service answers at most four months.
        """
        if period not in _PERIODS:
            raise ValueError(f"unknown period {period!r}; one of {', '.join(_PERIODS)}")
        single = isinstance(symbols, str)
        symbols = [symbols] if single else list(symbols)
        if not symbols:
            raise ValueError("no symbols")
        minutes = _PERIODS[period]
        start_ms, end_ms = self._span(start, end, 30 if minutes else 365)
        requests, owners = [], []
        for symbol in symbols:
            code, market = self._check(symbol)
            spans = _windows(start_ms, end_ms, _WINDOW_DAYS) if minutes else [(start_ms, end_ms)]
            for s, e in spans:
                requests.append((market, code, 60_000 if minutes else _DAY_MS, s, e))
                owners.append(symbol)
        answers = self._core.history(requests, float(timeout))
        cols = {k: np.concatenate([a[k] for a in answers]) for k in answers[0]}
        index = _times(cols.pop("time"))
        if not single:
            lengths = [len(a["time"]) for a in answers]
            cols = {"symbol": np.repeat(np.array(owners, dtype=object), lengths), **cols}
        frame = pd.DataFrame(cols, index=index)
        if len(requests) > len(symbols):
            # Windows meet at midnight: a bar stamped 24:00 may come in both.
            t, owner = index.asi8, np.repeat(np.arange(len(answers)), [len(a["time"]) for a in answers])
            same = (t[1:] == t[:-1]) & (cols["close"][1:] == cols["close"][:-1]) & (
                cols["volume"][1:] == cols["volume"][:-1]) & (owner[1:] != owner[:-1])
            if same.any():
                frame = frame[np.concatenate([[True], ~same])]
        if minutes > 1:
            frame = _resample(frame, minutes) if single else (
                frame.groupby("symbol", group_keys=True).apply(lambda f: _resample(f.drop(columns="symbol"), minutes))
                .reset_index(level=0))
        return frame

    def ticks(self, symbol, start=None, end=None, timeout=60):
        """Level-1 ticks as a DataFrame with a time column, indexed by time (by default those of today)."""
        code, market = self._check(symbol)
        if start is None:
            start = pd.Timestamp.now().normalize()
        start_ms, end_ms = self._span(start, end, 1)
        rows = self._core.history([(market, code, 0, start_ms, end_ms)], float(timeout))[0]
        return ticks_frame(rows)

    def finance(self, symbol, kinds=None, timeout=30):
        """Financial data: dict kind -> DataFrame indexed by report date.

        kinds: any of balance_sheet, income, cash_flow, per_share,
        share_capital, holder_count, top_holders, top_tradable_holders (all by default).
        """
        if kinds is None:
            kinds = list(_finance.KINDS)
        elif isinstance(kinds, str):
            kinds = [kinds]
        unknown = [k for k in kinds if k not in _finance.KINDS]
        if unknown or not kinds:
            raise ValueError(f"unknown financial kinds {unknown}; known: {', '.join(_finance.KINDS)}")
        code, market = self._check(symbol)
        got = self._core.finance(market, code, [_finance.KINDS[k] for k in kinds], float(timeout))
        return {k: _finance.frame(k, got.get(_finance.KINDS[k])) for k in kinds}

    # -- real time ---------------------------------------------------------

    def subscribe(self, symbols, kind="l1", callback=None, *, buffer_rows=262_144, batch_rows=100_000):
        """Real-time rows of the symbols: kind l1 (snapshots), depth (ten
        levels), trades, orders or queues. With callback, fn(batch) runs on the
        client's dispatcher thread; else take rows with poll or by iterating."""
        if isinstance(symbols, str):
            symbols = [symbols]
        if kind not in KINDS:
            raise ValueError(f"unknown subscription kind {kind!r}; one of {', '.join(KINDS)}")
        if not symbols:
            raise ValueError("no symbols")
        pairs = [(m, c) for c, m in (self._check(s) for s in symbols)]
        what = ", ".join(symbols) if len(symbols) <= 3 else f"{len(symbols)} symbols"
        return self._track(self._core.subscribe(pairs, kind, int(buffer_rows), callback is not None), what,
                           callback, batch_rows)

    def subscribe_market(self, market, callback=None, *, buffer_rows=262_144, batch_rows=100_000):
        """The market's whole-market packages, as l1 rows (one per instrument and package)."""
        if market not in MARKETS:
            raise SymbolError(f"unknown market code {market!r}; known: {', '.join(MARKETS)}")
        sub = self._core.subscribe_market(market, int(buffer_rows), callback is not None)
        return self._track(sub, f"market {market}", callback, batch_rows)

    def _track(self, sub, what, callback, batch_rows):
        s = Subscription(self, sub, what, callback, int(batch_rows))
        self._subs.add(s)
        self._by_key[sub.key] = weakref.ref(s)
        return s

    # -- dispatcher --------------------------------------------------------

    def _report(self, exc):
        handler = self._on_error
        if handler is not None:
            try:
                handler(exc)
                return
            except BaseException as e:  # the handler itself failed: print both
                exc = e
        print("kelquote: exception in a callback:", file=sys.stderr)
        traceback.print_exception(type(exc), exc, exc.__traceback__, file=sys.stderr)

    def _call(self, fn, *args):
        try:
            fn(*args)
        except Exception as e:
            self._report(e)

    def _dispatch(self):
        hub = self._core.hub
        while not self._stop:
            events, subs = hub.wait(0.5)
            for kind, code, text in events:
                fn = self._on_connection if kind == 0 else self._on_market_change
                if kind == 1:
                    self._codes.pop(text, None)
                if fn is not None:
                    self._call(fn, code, text)
            for core_sub in subs:
                ref = self._by_key.get(core_sub.key)
                sub = ref() if ref is not None else None
                if sub is None or sub.callback is None:
                    if sub is None:
                        self._by_key.pop(core_sub.key, None)
                    continue
                try:
                    batch = core_sub.poll(sub.batch_rows, 0.0)
                except SubscriptionClosed:
                    continue
                if len(batch):
                    self._call(sub.callback, batch)

    def _shutdown(self):
        if self._stop:
            return
        self._stop = True
        self._core.hub.stop()
        if self._dispatcher is not threading.current_thread() and self._dispatcher.is_alive():
            self._dispatcher.join()
        for sub in list(self._subs):
            sub.close()

    def close(self):
        """Closes every subscription of the client."""
        for sub in list(self._subs):
            sub.close()

    def __repr__(self):
        state = "logged in" if self.logged_in else "not logged in"
        return f"<kelquote.Client {state}, home {self.home!r}, {len(self._subs)} subscriptions>"
