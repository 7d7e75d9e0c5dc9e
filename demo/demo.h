// The demo host's parts: each shows one side of the library.
#ifndef KELQUOTE_DEMO_DEMO_H_
#define KELQUOTE_DEMO_DEMO_H_

#include <cstddef>
#include <string>

#include "kelquote/BaseQuoteClient.h"

namespace demo {

// GBK text of the library as UTF-8 for the terminal.
std::string Utf8(const std::string& gbk);

// UTF-8 text padded with spaces to width terminal columns, where a Chinese
// character (any East Asian wide or full-width one) takes two.
std::string Pad(const std::string& utf8, size_t width);

// Instruments and trading days per host market, then a market's
// re-initialisation as the host is told of it.
void ShowMarkets(tavr::BaseQuoteClient& client);

// A live table of a few instruments and one whole market for seconds.
void ShowRealtime(tavr::BaseQuoteClient& client, int seconds);

// Daily bars of the last year (with a line chart of the closes), one-minute
// bars of the last trading day and ticks of today of one SH share.
void ShowHistory(tavr::BaseQuoteClient& client);
// Balance sheets, share capital, holder counts and top-ten holders of one SZ share.
void ShowFinance(tavr::BaseQuoteClient& client);

}  // namespace demo

#endif  // KELQUOTE_DEMO_DEMO_H_
