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

# Every kind's columns by position, in one table. The service gives the
# items no names of its own: those whose meaning its layout fixes (the
# positions dataapi/sim/finance.h fills and sums) are named for it; an item
# only known to be part of a total is named for the group and its place in
# it; any other keeps its position (item_<n>, from 1) rather than a guessed
# meaning. None: a figure the library never fills.
_NAMED = {
    "balance_sheet": {
        0: "cash", 10: "current_assets", 25: "non_current_assets", 26: "total_assets",
        37: "current_liabilities", 46: "non_current_liabilities", 47: "total_liabilities",
        48: "share_capital", 49: "capital_reserve", 50: "surplus_reserve", 51: "retained_earnings",
        52: "parent_equity", 53: "minority_equity", 54: "total_equity", 55: "liabilities_and_equity",
    },
    "income": {
        0: "total_revenue", 1: "operating_revenue", 2: "total_operating_costs", 3: "cost_of_sales",
        20: "operating_profit", 21: "non_operating_income", 22: "non_operating_expenses", 23: "total_profit",
        24: "income_tax", 25: "net_profit", 26: "parent_net_profit", 27: "minority_profit",
        28: "basic_eps", 29: "diluted_eps",
    },
    "cash_flow": {
        3: "operating_inflows", 8: "operating_outflows", 9: "operating_net",
        20: "investing_inflows", 21: "investing_outflows", 22: "investing_net",
        30: "financing_inflows", 31: "financing_outflows", 32: "financing_net",
        41: "net_change", 42: "begin_cash", 43: "end_cash",
    },
    "per_share": {
        0: "eps", 1: "diluted_eps", 2: "book_value", 3: "operating_cash_flow", 4: "capital_reserve",
        5: "retained_earnings", 6: "roe", 7: "gross_margin", 8: "net_margin", 9: "debt_ratio",
        10: "current_ratio",
    },
    "share_capital": {0: "total_shares", 1: "tradable_shares", 2: "restricted_shares"},
    "holder_count": {0: "holders", 1: "float_holders", 2: "restricted_holders", 3: "previous_holders",
                     4: None, 5: None},
}
# (first, last, name): items summed into a named total.
_GROUPS = {
    "balance_sheet": [(1, 9, "current_asset"), (11, 24, "non_current_asset"),
                      (27, 36, "current_liability"), (38, 45, "non_current_liability")],
    "income": [(4, 8, "operating_cost")],
}


def _names(kind, count):
    named = _NAMED.get(kind, {})
    names = []
    for i in range(count):
        if i in named:
            names.append(named[i])
            continue
        group = next(((first, g) for first, last, g in _GROUPS.get(kind, ()) if first <= i <= last), None)
        names.append(f"{group[1]}_{i - group[0] + 1}" if group else f"item_{i + 1}")
    return names


ITEM_COUNTS = {"balance_sheet": 123, "income": 60, "cash_flow": 92, "per_share": 41, "share_capital": 3,
               "holder_count": 6}
# Kind to its items' column names (None: left out).
ITEM_NAMES = {kind: _names(kind, n) for kind, n in ITEM_COUNTS.items()}


def _day(ms):
    return np.asarray(ms, dtype="int64").astype("datetime64[ms]").astype("datetime64[ns]")


def frame(kind, columns):
    """One kind's columns (as the module gives them) as a DataFrame."""
    if not columns:
        return pd.DataFrame(index=pd.DatetimeIndex([], name="report_date"))
    if "items" in columns:
        items = columns["items"]
        data = {"announce_date": _day(columns["announce_date"])}
        if "report_type" in columns:
            data["report_type"] = columns["report_type"]
        for name, values in zip(ITEM_NAMES[kind], items.T):
            if name is not None:
                data[name] = values
        index = pd.DatetimeIndex(_day(columns["report_date"]), name="report_date")
        return pd.DataFrame(data, index=index)
    data = {k: v for k, v in columns.items() if k != "report_date"}
    data["announce_date"] = _day(data["announce_date"])
    return pd.DataFrame(data, index=pd.DatetimeIndex(_day(columns["report_date"]), name="report_date"))
