#include "datamgr/config.h"

#include <cstring>

#include <tinyxml2.h>

#include "datamgr/DvDataMgr.h"
#include "log/MyLog.h"
#include "uaauth/uaAuth.h"

namespace tavr {

namespace {

const char* kGetIPPort = "GetIPPort";

bool Fail(const char* format, const char* argument = nullptr) {
  CMyLog::PrintLog(LOG_ERROR, kGetIPPort, format, argument);
  return false;
}

// Reads up to kMaxServers child elements of list into out; returns the count.
int ReadServers(const tinyxml2::XMLElement* list, ServerAddress* out) {
  int count = 0;
  for (const tinyxml2::XMLElement* server = list->FirstChildElement();
       server != nullptr && count < kMaxServers; server = server->NextSiblingElement()) {
    const char* ip = server->Attribute("ip");
    const char* port = server->Attribute("port");
    out[count].ip = ip != nullptr ? ip : "";
    out[count].port = port != nullptr ? port : "";
    ++count;
  }
  return count;
}

void Terminate(ServerAddress* list, int count) {
  if (count < kMaxServers) {
    list[count].ip.clear();
    list[count].port.clear();
  }
}

// Copies at most size - 1 characters and always terminates.
void CopyText(char* dest, size_t size, const std::string& text) {
  size_t n = std::min(text.size(), size - 1);
  std::memcpy(dest, text.data(), n);
  dest[n] = '\0';
}

}  // namespace

bool GetIPPort(ServerAddress* quoteList, ServerAddress* historyList, ServerAddress* massiveList,
               bool isReal, const char* path) {
  char* buffer = nullptr;
  int32_t length = 0;
  int32_t rc = SymDecryptFile(path, &buffer, &length);
  switch (rc) {
    case 0: break;
    case kSymOpenFailed: return Fail("[%s]: fail to open!", path);
    case kSymReadFailed: return Fail("[%s]: fail to read!", path);
    case kSymNotExist: return Fail("[%s] not exist!", path);
    default: return Fail("%s: unknown error!", path);
  }
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  if (buffer == nullptr || doc.Parse(buffer) != tinyxml2::XML_SUCCESS) return Fail("xml parse error!!!");

  const tinyxml2::XMLElement* root = doc.FirstChildElement("dravik");
  if (root == nullptr) return Fail("node:dravik not exist!");
  const tinyxml2::XMLElement* env = root->FirstChildElement("hq");
  if (env == nullptr) return Fail("node:hq not exist!");
  if (!isReal) {
    if (const tinyxml2::XMLElement* sim = root->FirstChildElement("hq_sim")) env = sim;
  }

  const tinyxml2::XMLElement* quote = env->FirstChildElement("quote");
  if (quote == nullptr) return Fail("node:quote not exist!");
  int count = ReadServers(quote, quoteList);
  if (count == 0) return Fail("node:quote is null!");
  Terminate(quoteList, count);

  const tinyxml2::XMLElement* history = env->FirstChildElement("history");
  if (history == nullptr) return Fail("node:history not exist!");
  count = ReadServers(history, historyList);
  if (count == 0) return Fail("node:history is null!");
  Terminate(quoteList, count);  // the quote list, by design: all roles share its length

  const tinyxml2::XMLElement* massive = env->FirstChildElement("massive");
  if (massive == nullptr) {
    Fail("node:massive not exist!");
    return true;
  }
  count = ReadServers(massive, massiveList);
  if (count == 0) Fail("node:massive is null!");
  Terminate(quoteList, count);
  return true;
}

bool DvDataMgr::init_cfg(bool isReal) {
  ServerAddress lists[3][kMaxServers];
  if (!GetIPPort(lists[0], lists[1], lists[2], isReal, "./dravikcfg.dat")) {
    CMyLog::PrintLog(LOG_ERROR, "DvDataMgr::init_cfg", "GetIPPort failed!");
    return false;
  }
  static const char* const kUsers[3] = {"9999", "9001", "9002"};
  static const char* const kConnectTexts[3] = {
      "[%s]Connect to Quote server [%s:%s]-[%d]",
      "[%s]Connect to History server [%s:%s]-[%d]",
      "[%s]Connect to Massive History server [%s:%s]-[%d]",
  };
  servers_.clear();
  // One record serves all three roles and is zeroed only once, so entries of
  // an earlier role stay behind the terminator of a later one.
  ServerLoginConfig config;
  std::memset(&config, 0, sizeof(config));
  for (int role = 0; role < 3; ++role) {
    const ServerAddress* list = lists[role];
    int count = 0;
    for (int i = 0; i < kMaxServers; ++i) {
      CopyText(config.servers[i].host, sizeof(config.servers[i].host), list[i].ip);
      CopyText(config.servers[i].port, sizeof(config.servers[i].port), list[i].port);
      if (lists[0][i].ip.empty()) break;
      ++count;
    }
    CMyLog::PrintLog(LOG_INFO, "DvDataMgr::init_cfg", kConnectTexts[role], isReal ? "Real" : "Sim",
                     config.servers[0].host, config.servers[0].port, count);
    CopyText(config.user, sizeof(config.user), kUsers[role]);
    CopyText(config.password, sizeof(config.password), "590316");
    config.setting_a = 5;
    config.setting_b = 180;
    config.setting_c = 10;
    servers_.emplace(role, config);
  }
  return true;
}

}  // namespace tavr
