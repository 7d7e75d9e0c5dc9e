#include "store/store.h"

#include "store/backends.h"

namespace kqstore {

std::unique_ptr<Store> Store::Open(const std::string& url, std::string* error) {
  const std::string sqlite = "sqlite://";
  if (url.rfind(sqlite, 0) == 0) {
    std::string path = url.substr(sqlite.size());
    // sqlite:///abs/path keeps its leading slash; sqlite://rel/path is relative.
    if (path.empty()) {
      *error = "sqlite URL without a path: " + url + " (expected sqlite:///path/to/file.db)";
      return nullptr;
    }
    return OpenSqlite(path, error);
  }
  if (url.rfind("postgresql://", 0) == 0 || url.rfind("postgres://", 0) == 0) return OpenPostgres(url, error);
  *error = "unknown store URL: " + url + " (expected sqlite:///path or postgresql://user@host:port/db)";
  return nullptr;
}

bool SplitSymbol(const std::string& symbol, std::string* code, std::string* market) {
  size_t dot = symbol.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == symbol.size()) return false;
  *code = symbol.substr(0, dot);
  *market = symbol.substr(dot + 1);
  return true;
}

}  // namespace kqstore
