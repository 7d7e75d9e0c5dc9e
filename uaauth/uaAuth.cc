// Stand-in decryptor: the configuration file holds the plain XML text. A
// deployment puts its own uaAuth library with the real scheme in place.
#include "uaauth/uaAuth.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "port/port.h"

int32_t SymDecryptFile(const char* path, char** buffer, int32_t* length) {
  static port::ThreadLocal<std::string> texts;
  std::string& text = texts.get();
  if (path == nullptr || buffer == nullptr || length == nullptr) return kSymOpenFailed;
  if (!port::FileExists(path)) return kSymNotExist;
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) return kSymReadFailed;
  std::ifstream in(path, std::ios::binary);
  if (!in) return kSymOpenFailed;
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad() || content.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max() - 1)) {
    return kSymReadFailed;
  }
  text = std::move(content);
  *buffer = text.data();
  *length = static_cast<int32_t>(text.size());
  return 0;
}
