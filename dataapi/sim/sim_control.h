// Control of the simulated quote service, for tests and the demo host: what
// a network and a server would otherwise do to the connection. Every report
// reaches the library through its callback object, on the simulator's own
// callback thread.
#ifndef KELQUOTE_DATAAPI_SIM_SIM_CONTROL_H_
#define KELQUOTE_DATAAPI_SIM_SIM_CONTROL_H_

#include "kelquote/export.h"

extern "C" {

// While refuse is non-zero, Connect fails as an unreachable server does.
DATAAPI_API void SimRefuseConnect(int refuse);

// The quote server connection drops (status 0), comes back (status 1), or
// the vendor gives up reconnecting (status 2). server is 0 for the quote
// server, 1 history, 2 massive history. Returns -1 when no callback object
// is registered, else 0.
DATAAPI_API int SimReportConnection(int server, int status);

// Waits until every callback due now has been delivered: 1, or 0 on time-out.
DATAAPI_API int SimWaitIdle(int timeout_ms);

// The market (by id) moves to a new state, as a server does when a market's
// data change during the day: its checksum changes, its trading day moves on
// when the local date has, its prices move and a stock market lists a new
// share. OnMarketStatus reports it at once with changed = 1, and the next
// ReqMarketInit of the market answers with the new data. Returns -1 for an
// unknown market or while the service is not connected, else 0.
DATAAPI_API int SimChangeMarket(int market_id);

// Picks the universe of another seed (the same seed, the same universe),
// from the next Connect on.
DATAAPI_API void SimSetSeed(unsigned seed);

// Time between two sends of a subscribed instrument's level-1 or level-2
// stream (500 ms at first), and between two whole-market packages of a
// subscribed market (1000 ms at first). A stream's next send follows its
// last one by the new interval. Returns -1 for less than 1 ms or more than
// an hour, else 0.
DATAAPI_API int SimSetStreamInterval(int ms);
DATAAPI_API int SimSetPushInterval(int ms);

// The simulator's clock, which stamps the streams' records and decides what
// trades: each product trades in its own sessions (the opening and closing
// auctions matching at their ends, night sessions on the evenings before a
// trading day, STAR and ChiNext shares' after-hours trading from 15:05 to
// 15:30), and nothing on a day its exchange is closed. The walks take one
// step per stream interval of the clock, whatever is subscribed.
//
// SimSetTimeOfDay: the clock reads hhmmss (local time of day) of today now
// and runs on from there; a negative value returns it to the local clock.
// SimSetClock: the clock reads the local date yyyymmdd (0: the latest
// trading day up to today) at hhmmss now and runs on. Each returns -1 for
// an invalid date or time, else 0.
DATAAPI_API int SimSetTimeOfDay(int hhmmss);
DATAAPI_API int SimSetClock(int yyyymmdd, int hhmmss);

// 1 when some product of the markets trades continuously at the local
// moment yyyymmdd hhmmss, else 0.
DATAAPI_API int SimMarketsTrading(int yyyymmdd, int hhmmss);

// The latest trading day of the Shanghai and Shenzhen exchanges on or
// before yyyymmdd.
DATAAPI_API int SimLastTradingDay(int yyyymmdd);

// How the service answers financial requests of one kind, named by its bit
// value (1 balance sheet, 2 income, 4 cash flow, 8 per-share indicators,
// 16 share capital, 32 number of holders, 64 top ten holders, 128 top ten
// tradable holders), from now on: mode 0 as usual, 1 never, 2 twice, 3 with
// a count of -1. Returns -1 for another kind or mode, else 0.
DATAAPI_API int SimSetFinanceReply(int kind, int mode);

// How the service answers history requests from now on: fault 0 as usual,
// 1 without the last block, 2 with the first block twice in a row, 3 after a
// copy of the first block under an id no request holds (32000), 4 delay_ms
// late (the blocks still in order, nothing between them). delay_ms counts
// for fault 4 only. Returns -1 for another fault or a delay outside 0 ms to
// an hour, else 0.
DATAAPI_API int SimSetHistoryFault(int fault, int delay_ms);
}

#endif  // KELQUOTE_DATAAPI_SIM_SIM_CONTROL_H_
