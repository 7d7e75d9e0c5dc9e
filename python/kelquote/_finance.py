"""Financial data kinds and the English names of their fields."""

import numpy as np
import pandas as pd

# Kind name to the library's type id.
KINDS = {
    "balance_sheet": 24501,
    "income": 24502,
    "cash_flow": 24503,
    "per_share": 24504,
    "share_capital": 24506,
    "holder_count": 24510,
    "top_holders": 24509,
    "top_tradable_holders": 24508,
}

# Statement items by position; the others are named item_<n> (from 1).
_ITEMS = {
    "balance_sheet": {
        0: "cash", 10: "current_assets", 25: "non_current_assets", 26: "total_assets",
        37: "current_liabilities", 46: "non_current_liabilities", 47: "total_liabilities",
        48: "share_capital", 52: "parent_equity", 53: "minority_equity", 54: "total_equity",
        55: "liabilities_and_equity",
    },
    "income": {
        0: "revenue", 2: "operating_costs", 20: "operating_profit", 23: "total_profit",
        24: "income_tax", 25: "net_profit", 26: "parent_net_profit", 28: "basic_eps",
    },
    "cash_flow": {
        9: "operating_net", 22: "investing_net", 32: "financing_net", 41: "net_change",
        42: "begin_cash", 43: "end_cash",
    },
    "per_share": {0: "eps", 2: "book_value", 3: "operating_cash_flow", 6: "roe", 9: "debt_ratio"},
    "share_capital": {0: "total_shares", 1: "tradable_shares", 2: "restricted_shares"},
    "holder_count": {0: "holders", 1: "float_holders", 2: "restricted_holders", 3: "previous_holders"},
}


def _day(ms):
    return np.asarray(ms, dtype="int64").astype("datetime64[ms]").astype("datetime64[ns]")


def item_names(kind, count):
    named = _ITEMS.get(kind, {})
    return [named.get(i, f"item_{i + 1}") for i in range(count)]


def frame(kind, columns):
    """One kind's columns (as the module gives them) as a DataFrame."""
    if not columns:
        return pd.DataFrame(index=pd.DatetimeIndex([], name="report_date"))
    if "items" in columns:
        items = columns["items"]
        data = {"announce_date": _day(columns["announce_date"])}
        if "report_type" in columns:
            data["report_type"] = columns["report_type"]
        for name, values in zip(item_names(kind, items.shape[1]), items.T):
            data[name] = values
        index = pd.DatetimeIndex(_day(columns["report_date"]), name="report_date")
        return pd.DataFrame(data, index=index)
    data = {k: v for k, v in columns.items() if k != "report_date"}
    data["announce_date"] = _day(data["announce_date"])
    return pd.DataFrame(data, index=pd.DatetimeIndex(_day(columns["report_date"]), name="report_date"))
