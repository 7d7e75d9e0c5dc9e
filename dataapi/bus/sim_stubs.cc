// The simulator's controls, answered by the bus service so that a host
// built against the simulated service (the demo) runs on the bus too. The
// simulator, when one serves, runs behind the gateway: its controls are
// the gateway's (--sim-interval, --sim-clock); here each refuses.
#include "dataapi/sim/sim_control.h"

void SimRefuseConnect(int) {}
int SimReportConnection(int, int) { return -1; }
int SimWaitIdle(int) { return 1; }
int SimChangeMarket(int) { return -1; }
void SimSetSeed(unsigned) {}
int SimSetStreamInterval(int) { return -1; }
int SimSetPushInterval(int) { return -1; }
int SimSetTimeOfDay(int) { return -1; }
int SimSetClock(int, int) { return -1; }
int SimMarketsTrading(int, int) { return 0; }
int SimLastTradingDay(int) { return 0; }
int SimSetFinanceReply(int, int) { return -1; }
int SimSetHistoryFault(int, int) { return -1; }
