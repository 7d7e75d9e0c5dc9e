// One-minute bars from snapshots across the session edges: the opening
// auction, the lunch break, the closing match, a night session past
// midnight and the next trading day.
#include <gtest/gtest.h>

#include <vector>

#include "tools/record/bars.h"
#include "utils/utils.h"

namespace {

struct Step {
  int date, hhmmss;
  double last;
  int64_t volume;
  int32_t phase;
};
struct Want {
  int date, end;  // the bar's end, hhmmss
  int64_t volume;
  double open, high, low, close;
};
struct Case {
  const char* name;
  std::vector<Step> steps;
  std::vector<Want> bars;
};

const int kDay = 20251124, kNext = 20251125;

TEST(BarBuilder, BuildsBarsAcrossSessionEdges) {
  const Case cases[] = {
      {"opening auction into the first bar, nothing in the lunch break",
       {{kDay, 92000, 10.0, 0, 12}, {kDay, 92500, 10.0, 100, 12}, {kDay, 93010, 10.2, 150, 13},
        {kDay, 93050, 9.9, 160, 13}, {kDay, 93110, 10.1, 170, 13}, {kDay, 112950, 10.3, 200, 13},
        {kDay, 113000, 10.3, 200, 13}, {kDay, 120000, 10.3, 200, 13}, {kDay, 130005, 10.4, 210, 13}},
       {{kDay, 93100, 160, 10.2, 10.2, 9.9, 9.9}, {kDay, 93200, 10, 10.1, 10.1, 10.1, 10.1},
        {kDay, 113000, 30, 10.3, 10.3, 10.3, 10.3}, {kDay, 130100, 10, 10.4, 10.4, 10.4, 10.4}}},
      {"the closing match on 15:00:00 ends the last minute; the auction's minutes stay empty",
       {{kDay, 145500, 10.0, 0, 13}, {kDay, 145650, 10.1, 10, 13}, {kDay, 145810, 10.1, 10, 13},
        {kDay, 150000, 10.2, 50, 15}, {kDay, 150010, 10.2, 50, 15}},
       {{kDay, 145700, 10, 10.1, 10.1, 10.1, 10.1}, {kDay, 150000, 40, 10.2, 10.2, 10.2, 10.2}}},
      {"a night session past midnight to its end at 01:00",
       {{kDay, 235930, 500, 0, 13}, {kDay, 235950, 501, 5, 13}, {kNext, 10, 502, 8, 13},
        {kNext, 5959, 503, 15, 13}, {kNext, 10000, 504, 20, 15}, {kNext, 10030, 504, 20, 15}},
       {{kNext, 100, 3, 502, 502, 502, 502}, {kNext, 10000, 12, 503, 504, 503, 504}}},
      {"a falling volume starts a new day from its snapshot",
       {{kDay, 145800, 10, 100, 13}, {kDay, 145930, 10, 110, 13}, {kNext, 93100, 11, 5, 13},
        {kNext, 93140, 11, 9, 13}, {kNext, 93210, 12, 12, 13}},
       {{kDay, 150000, 10, 10, 10, 10, 10}, {kNext, 93300, 3, 12, 12, 12, 12}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    record::BarBuilder builder;
    std::vector<kqstore::Bar> bars;
    for (const Step& s : c.steps) {
      record::Snapshot snap{utils::timeToMilliseconds(s.date, s.hhmmss), s.last, 0, 0, 0, s.volume, s.volume * 10.0,
                            s.phase};
      if (auto bar = builder.Add(snap)) bars.push_back(*bar);
    }
    if (auto bar = builder.Flush()) bars.push_back(*bar);
    ASSERT_EQ(bars.size(), c.bars.size());
    for (size_t i = 0; i < bars.size(); ++i) {
      const Want& w = c.bars[i];
      EXPECT_EQ(bars[i].time, utils::timeToMilliseconds(w.date, w.end)) << "bar " << i;
      EXPECT_EQ(bars[i].volume, w.volume) << "bar " << i;
      EXPECT_DOUBLE_EQ(bars[i].amount, w.volume * 10.0) << "bar " << i;
      EXPECT_EQ((std::vector<double>{bars[i].open, bars[i].high, bars[i].low, bars[i].close}),
                (std::vector<double>{w.open, w.high, w.low, w.close}))
          << "bar " << i;
    }
  }
}

}  // namespace
