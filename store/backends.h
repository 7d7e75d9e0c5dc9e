// The two back ends behind Store::Open.
#ifndef KELQUOTE_STORE_BACKENDS_H_
#define KELQUOTE_STORE_BACKENDS_H_

#include <memory>
#include <string>

#include "store/store.h"

namespace kqstore {

std::unique_ptr<Store> OpenSqlite(const std::string& path, std::string* error);
std::unique_ptr<Store> OpenPostgres(const std::string& url, std::string* error);

}  // namespace kqstore

#endif  // KELQUOTE_STORE_BACKENDS_H_
