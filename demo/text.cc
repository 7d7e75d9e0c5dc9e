// Texts of the library as the demo's terminal shows them.
#include <string>

#include "demo/demo.h"
#include "utils/utils.h"

namespace demo {

std::string Utf8(const std::string& gbk) { return utils::safeGbk2Utf8(gbk); }

namespace {

// Columns a code point takes on a terminal: two for the East Asian wide and
// full-width ranges, else one.
size_t Columns(char32_t c) {
  return (c >= 0x1100 && c <= 0x115F) || (c >= 0x2E80 && c <= 0xA4CF && c != 0x303F) ||
                 (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
                 (c >= 0xFF00 && c <= 0xFF60) || (c >= 0xFFE0 && c <= 0xFFE6) || (c >= 0x20000 && c <= 0x3FFFD)
             ? 2
             : 1;
}

}  // namespace

std::string Pad(const std::string& utf8, size_t width) {
  size_t columns = 0;
  for (size_t i = 0; i < utf8.size();) {
    auto lead = static_cast<unsigned char>(utf8[i]);
    size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length && i + k < utf8.size(); ++k) c = (c << 6) | (utf8[i + k] & 0x3F);
    columns += Columns(c);
    i += length;
  }
  return columns < width ? utf8 + std::string(width - columns, ' ') : utf8;
}

}  // namespace demo
