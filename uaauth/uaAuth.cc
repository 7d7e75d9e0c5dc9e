// Stand-in decryptor: the configuration file holds the plain XML text. A
// deployment puts its own uaAuth library with the real scheme in place.
#include "uaauth/uaAuth.h"

#include <filesystem>
#include <fstream>
#include <cstdint>
#include <string>

#include "port/port.h"

namespace {

// A server configuration is a few kilobytes; anything near this is not one.
constexpr std::uintmax_t kMaxConfigBytes = 16u << 20;

}  // namespace

int32_t SymDecryptFile(const char* path, char** buffer, int32_t* length) {
  static port::ThreadLocal<std::string> texts;
  std::string& text = texts.get();
  if (path == nullptr || buffer == nullptr || length == nullptr) return kSymOpenFailed;
  if (!port::FileExists(path)) return kSymNotExist;
  // Only a regular file of bounded size is read: opening a FIFO would block
  // and a device could be read for ever.
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return kSymReadFailed;
  std::uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaxConfigBytes) return kSymReadFailed;
  std::ifstream in(path, std::ios::binary);
  if (!in) return kSymOpenFailed;
  std::string content;
  content.resize(static_cast<size_t>(size) + 1);
  in.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (in.bad() || static_cast<std::uintmax_t>(in.gcount()) > kMaxConfigBytes) return kSymReadFailed;
  content.resize(static_cast<size_t>(in.gcount()));
  text = std::move(content);
  *buffer = text.data();
  *length = static_cast<int32_t>(text.size());
  return 0;
}
