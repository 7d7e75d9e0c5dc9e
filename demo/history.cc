#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "demo/demo.h"
#include "utils/utils.h"

namespace demo {

namespace {

// Every record of one history request, once its last block is in.
struct Answer {
  std::mutex mu;
  std::condition_variable cv;
  tavr::QuoteRecords records;
  int blocks = 0;
  bool done = false;
  bool failed = false;
};

bool Ask(tavr::BaseQuoteClient& client, const std::string& code, int32_t meta_id, int64_t period, int64_t start,
         int64_t end, Answer& answer) {
  quoter::TSMetaInfo meta{"SH", code, meta_id, period};
  quoter::TRegionInfo region{start, end, 0};
  client.requestHistoryQuote(meta, region, "", [&answer](se::EQuoteSubStatus status, const tavr::QuoteRecords& records,
                                                         se::EDataArrivedTag tag) {
    std::lock_guard<std::mutex> lock(answer.mu);
    answer.records.insert(answer.records.end(), records.begin(), records.end());
    ++answer.blocks;
    answer.failed = status != se::kQuoteData;
    answer.done = tag == se::kArrivedLast;
    answer.cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(answer.mu);
  return answer.cv.wait_for(lock, std::chrono::seconds(30), [&] { return answer.done; }) && !answer.failed;
}

std::string Stamp(int64_t ms) {
  int64_t t = utils::millisecondsToTime(ms);
  char text[32];
  std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", static_cast<int>(t / 10000000000),
                static_cast<int>(t / 100000000 % 100), static_cast<int>(t / 1000000 % 100),
                static_cast<int>(t / 10000 % 100), static_cast<int>(t / 100 % 100), static_cast<int>(t % 100));
  return text;
}

std::string BarText(const quoter::QuoterBase* record) {
  char text[128];
  if (const auto* bar = dynamic_cast<const quoter::KLineData*>(record)) {
    std::snprintf(text, sizeof(text), "%s  O %.2f H %.2f L %.2f C %.2f  V %lld", Stamp(bar->time).c_str(), bar->open,
                  bar->high, bar->low, bar->close, static_cast<long long>(bar->volume));
  } else if (const auto* tick = dynamic_cast<const quoter::QuoterAllData*>(record)) {
    std::snprintf(text, sizeof(text), "%s  last %.2f  bid %.2f ask %.2f  V %lld", Stamp(tick->time).c_str(),
                  tick->lastPrice, tick->bidPrice[0], tick->askPrice[0], static_cast<long long>(tick->volume));
  } else {
    return "?";
  }
  return text;
}

// The daily closes as one line of block characters, at most width wide.
std::string Sparkline(const tavr::QuoteRecords& records, size_t width) {
  static const char* const kLevels[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  std::vector<double> closes;
  for (const auto& r : records) {
    if (const auto* bar = dynamic_cast<const quoter::KLineData*>(r.get())) closes.push_back(bar->close);
  }
  if (closes.empty()) return "";
  size_t n = std::min(width, closes.size());
  std::vector<double> points;
  for (size_t i = 0; i < n; ++i) points.push_back(closes[(i + 1) * closes.size() / n - 1]);
  auto [lo, hi] = std::minmax_element(points.begin(), points.end());
  std::string line;
  for (double p : points) {
    int level = *hi > *lo ? static_cast<int>((p - *lo) / (*hi - *lo) * 7.999) : 3;
    line += kLevels[level];
  }
  return line;
}

void Print(const char* what, Answer& answer, bool ok) {
  std::lock_guard<std::mutex> lock(answer.mu);
  std::printf("[history] %-24s %6zu records in %d blocks%s\n", what, answer.records.size(), answer.blocks,
              ok ? "" : " (no complete answer)");
  if (answer.records.empty()) return;
  std::printf("          first  %s\n", BarText(answer.records.front().get()).c_str());
  std::printf("          last   %s\n", BarText(answer.records.back().get()).c_str());
}

}  // namespace

void ShowHistory(tavr::BaseQuoteClient& client) {
  const std::string code = "600000";
  std::vector<int64_t> days;
  client.getTradeDateList("SH", days);
  if (days.size() < 2) {
    std::printf("[history] no trading days of SH\n");
    return;
  }
  const int64_t now = static_cast<int64_t>(utils::getTime() * 1000);
  const int64_t today = days.back();
  const int64_t previous = days[days.size() - 2];
  const int64_t kDay = 86400000;
  std::printf("\n[history] %s.SH\n", code.c_str());

  Answer daily;
  bool ok = Ask(client, code, 3001, kDay, now - 365 * kDay, now, daily);
  Print("daily bars, last year", daily, ok);
  std::printf("          closes %s\n", Sparkline(daily.records, 80).c_str());

  Answer minutes;
  ok = Ask(client, code, 3001, 60000, previous, previous + kDay - 1000, minutes);
  Print("1-minute bars, last day", minutes, ok);

  Answer ticks;
  ok = Ask(client, code, 3000, 0, today, std::max(now, today + 1), ticks);
  Print("ticks, today", ticks, ok);
  std::fflush(stdout);
}

}  // namespace demo
