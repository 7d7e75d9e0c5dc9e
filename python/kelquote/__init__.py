"""kelquote: Chinese exchange-traded market data as pandas DataFrames and numpy arrays.

    import kelquote as kq
    client = kq.Client()
    client.login()
    client.bars("600000.SH", period="1d", start="2025-01-01")

Times are the exchange's local time (Asia/Shanghai), tz-naive; a bar's time
is its end. Symbols are code.market with the host market codes (SH, SZ, SHO,
SZO, IF, SF, INE, DF, ZF, HGT, SGT). Linux only.
"""

from . import sim
from ._client import (KINDS, MARKETS, Client, Error, LoginError, RequestError, Subscription, SubscriptionClosed,
                      SymbolError, ticks_frame)
from ._finance import KINDS as FINANCE_KINDS

__all__ = ["Client", "Subscription", "Error", "LoginError", "RequestError", "SubscriptionClosed", "SymbolError",
           "MARKETS", "KINDS", "FINANCE_KINDS", "ticks_frame", "sim"]


def __getattr__(name):
    # The store's reader is imported on first use only.
    if name == "Store":
        from .store import Store
        return Store
    raise AttributeError(f"module 'kelquote' has no attribute {name!r}")
