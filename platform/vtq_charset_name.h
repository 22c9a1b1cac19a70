// Character-set names as the runtime compares them.
#ifndef VTQ_CHARSET_NAME_H
#define VTQ_CHARSET_NAME_H

#include <cctype>
#include <cstddef>

namespace vtq {

// "utf-8", "UTF8", "utf_8" … name the same set: upper case without '-'
// and '_', cut to fit out (size bytes with the terminator).
inline void NormaliseCharsetName(const char *name, char *out, size_t size) {
  size_t j = 0;
  for (size_t i = 0; name[i] && j + 1 < size; ++i) {
    if (name[i] != '-' && name[i] != '_') out[j++] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
  }
  out[j] = '\0';
}

}  // namespace vtq

#endif
