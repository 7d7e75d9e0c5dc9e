"""Controls of the simulated quote service, when it is the loaded quote service.

    kq.sim.set_clock(20261124, 100000)   # date yyyymmdd (0: the latest trading day), time hhmmss
    kq.sim.report_connection(0, 0)       # server 0 quote / 1 history / 2 massive; status 0 lost, 1 back, 2 given up
    kq.sim.change_market(1)              # a market (by id) moves to a new state

The functions are looked up in the quote service library the process loaded
(libDataApi.so); another service (the replay service, a vendor's) raises
NotSimulatorError.
"""

import ctypes
import os

from . import _kelquote  # noqa: F401  (loads the library and with it the quote service)
from ._kelquote import Error


class NotSimulatorError(Error):
    """The loaded quote service is not the simulated one."""


_lib = None


def _fn(name, *argtypes):
    global _lib
    if _lib is None:
        try:
            _lib = ctypes.CDLL("libDataApi.so", mode=os.RTLD_NOLOAD | os.RTLD_NOW)
        except OSError as e:
            raise NotSimulatorError(f"no quote service library is loaded: {e}") from None
    try:
        fn = getattr(_lib, name)
    except AttributeError:
        raise NotSimulatorError(f"the loaded quote service ({_lib._name}) is not the simulated one: "
                                f"it has no {name}") from None
    fn.argtypes = list(argtypes)
    fn.restype = ctypes.c_int
    return fn


def _check(result, what):
    if result < 0:
        raise ValueError(what)
    return result


def refuse_connect(refuse=True):
    """While on, connecting fails as an unreachable server does."""
    _fn("SimRefuseConnect", ctypes.c_int)(1 if refuse else 0)


def report_connection(server, status):
    """The connection of server (0 quote, 1 history, 2 massive) drops (0), comes back (1) or is given up (2)."""
    if server not in (0, 1, 2) or status not in (0, 1, 2):
        raise ValueError("server and status are 0, 1 or 2")
    if _fn("SimReportConnection", ctypes.c_int, ctypes.c_int)(server, status) < 0:
        raise Error("the service has no session to report on (log in first)")


def wait_idle(timeout=5.0):
    """Waits until every callback due now has been delivered; False on time-out."""
    return _fn("SimWaitIdle", ctypes.c_int)(int(timeout * 1000)) == 1


def change_market(market_id):
    """The market (by id: 0 SH, 1 SZ, ...) moves to a new state, as a server does during the day."""
    if _fn("SimChangeMarket", ctypes.c_int)(int(market_id)) < 0:
        raise Error(f"cannot change market {market_id}: unknown, or the service is not connected")


def set_seed(seed):
    """The universe of another seed, from the next connect on."""
    _fn("SimSetSeed", ctypes.c_uint)(int(seed))


def set_stream_interval(ms):
    """Time between two sends of a subscribed instrument's stream (1 ms to an hour)."""
    _check(_fn("SimSetStreamInterval", ctypes.c_int)(int(ms)), "the interval is 1 ms to an hour")


def set_push_interval(ms):
    """Time between two whole-market packages (1 ms to an hour)."""
    _check(_fn("SimSetPushInterval", ctypes.c_int)(int(ms)), "the interval is 1 ms to an hour")


def set_time_of_day(hhmmss):
    """The clock reads hhmmss of today now and runs on; negative: back to the local clock."""
    _check(_fn("SimSetTimeOfDay", ctypes.c_int)(int(hhmmss)), f"invalid time of day {hhmmss}")


def set_clock(yyyymmdd, hhmmss):
    """The clock reads the date (0: the latest trading day) at hhmmss now and runs on."""
    _check(_fn("SimSetClock", ctypes.c_int, ctypes.c_int)(int(yyyymmdd), int(hhmmss)),
           f"invalid date or time {yyyymmdd} {hhmmss}")


def markets_trading(yyyymmdd, hhmmss):
    """Whether some product trades continuously at that local moment."""
    return _fn("SimMarketsTrading", ctypes.c_int, ctypes.c_int)(int(yyyymmdd), int(hhmmss)) == 1


def last_trading_day(yyyymmdd):
    """The latest trading day of Shanghai and Shenzhen on or before the date."""
    return _fn("SimLastTradingDay", ctypes.c_int)(int(yyyymmdd))


def set_finance_reply(kind, mode):
    """Financial replies of one kind (bit value 1..128): mode 0 usual, 1 never, 2 twice, 3 count -1."""
    _check(_fn("SimSetFinanceReply", ctypes.c_int, ctypes.c_int)(int(kind), int(mode)), "bad kind or mode")


def set_history_fault(fault, delay_ms=0):
    """History replies: 0 usual, 1 no last block, 2 first block twice, 3 stray block, 4 late by delay_ms."""
    _check(_fn("SimSetHistoryFault", ctypes.c_int, ctypes.c_int)(int(fault), int(delay_ms)), "bad fault or delay")
