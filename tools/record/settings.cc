#include "tools/record/settings.h"

#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "store/store.h"
#include "utils/settings_lines.h"

namespace record {

const char kUsage[] =
    "usage: kelquote_record [--settings FILE] [--url URL] [--symbols 600000.SH,000001.SZ] [--markets SH]\n"
    "                       [--seconds N]\n"
    "  Records level-1 ticks, one-minute and daily bars into a store. Run from a folder\n"
    "  holding dravikcfg.dat and ini/, beside ../userdata/. A value given here overrides\n"
    "  the settings file's.\n"
    "  --settings FILE  key = value lines: url, symbols, markets, ticks, bars_1m, bars_1d,\n"
    "                   trades, backfill, spool, spool_max_mb, flush_ms, status_seconds, seconds\n"
    "  --url URL        sqlite:///path or postgresql://user@host:port/db\n"
    "                   (default sqlite://../userdata/store/kelquote.db)\n"
    "  --symbols LIST   instruments as code.market (SH, SZ, SHO, SZO, IF, SF, INE, DF, ZF, HGT, SGT)\n"
    "  --markets LIST   whole markets by host code\n"
    "  --seconds N      stop after N seconds, as SIGINT would\n";

namespace {

bool ParseList(const std::string& value, bool symbols, std::vector<std::string>* out, std::string* error) {
  out->clear();
  std::stringstream in(value);
  std::string item;
  while (std::getline(in, item, ',')) {
    item = utils::trim_setting(item);
    if (item.empty()) continue;
    std::string code, market;
    if (symbols && !kqstore::SplitSymbol(item, &code, &market)) {
      *error = "symbol " + item + " is not code.market (as 600000.SH)";
      return false;
    }
    if (!symbols && item.find('.') != std::string::npos) {
      *error = "market " + item + " is a host market code (as SH), not a symbol";
      return false;
    }
    out->push_back(item);
  }
  return true;
}

bool ParseBool(const std::string& value, bool* out) {
  if (value == "true" || value == "1" || value == "yes" || value == "on") return *out = true, true;
  if (value == "false" || value == "0" || value == "no" || value == "off") return *out = false, true;
  return false;
}

template <typename T>
bool ParseNumber(const std::string& value, T min, T* out) {
  T v{};
  auto r = std::from_chars(value.data(), value.data() + value.size(), v);
  if (r.ec != std::errc() || r.ptr != value.data() + value.size() || v < min) return false;
  *out = v;
  return true;
}

// One key's value; *error says what is wrong with it.
bool Apply(const std::string& key, const std::string& value, Settings* s, std::string* error) {
  bool ok = true;
  if (key == "url") {
    s->url = value;
  } else if (key == "symbols") {
    return ParseList(value, true, &s->symbols, error);
  } else if (key == "markets") {
    return ParseList(value, false, &s->markets, error);
  } else if (key == "ticks") {
    ok = ParseBool(value, &s->ticks);
  } else if (key == "bars_1m") {
    ok = ParseBool(value, &s->bars_1m);
  } else if (key == "bars_1d") {
    ok = ParseBool(value, &s->bars_1d);
  } else if (key == "trades") {
    ok = ParseBool(value, &s->trades);
  } else if (key == "backfill") {
    ok = ParseBool(value, &s->backfill);
  } else if (key == "spool") {
    s->spool = value;
  } else if (key == "spool_max_mb") {
    ok = ParseNumber<uint64_t>(value, 1, &s->spool_max_mb);
  } else if (key == "flush_ms") {
    ok = ParseNumber(value, 1, &s->flush_ms);
  } else if (key == "status_seconds") {
    ok = ParseNumber(value, 1, &s->status_seconds);
  } else if (key == "seconds") {
    ok = ParseNumber(value, 0, &s->seconds);
  } else {
    *error = "unknown setting " + key;
    return false;
  }
  if (!ok) *error = "bad value for " + key + ": '" + value + "'";
  return ok;
}

}  // namespace

bool ParseSettings(const std::string& text, Settings* settings, std::string* error) {
  std::istringstream in(text);
  auto apply = [settings](const std::string& key, const std::string& value, std::string* why) {
    return Apply(key, value, settings, why);
  };
  return utils::read_settings_lines(in, apply, error);
}

bool LoadSettings(const std::string& path, Settings* settings, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read the settings file " + path;
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  if (ParseSettings(text.str(), settings, error)) return true;
  *error = path + ", " + *error;
  return false;
}

bool ParseCommandLine(int argc, char** argv, Settings* settings, bool* help, std::string* error) {
  *help = false;
  // The file first, so that every other flag overrides it wherever it stands.
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--settings") == 0 && !LoadSettings(argv[i + 1], settings, error)) return false;
  }
  for (int i = 1; i < argc; ++i) {
    std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      *help = true;
      return true;
    }
    static const char* const kFlags[][2] = {{"--settings", ""},     {"--url", "url"},         {"--symbols", "symbols"},
                                             {"--markets", "markets"}, {"--seconds", "seconds"}};
    const char* key = nullptr;
    for (const auto& f : kFlags) {
      if (flag == f[0]) key = f[1];
    }
    if (key == nullptr) {
      *error = "unknown argument " + flag;
      return false;
    }
    if (i + 1 >= argc) {
      *error = flag + " needs a value";
      return false;
    }
    std::string value = argv[++i];
    if (*key != '\0' && !Apply(key, value, settings, error)) return false;
  }
  return true;
}

}  // namespace record
