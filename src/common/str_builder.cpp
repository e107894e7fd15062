#include "common/str_builder.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kInitialCapacity = 32;

// Doubles until n more characters and the end mark fit; a capacity that cannot double any more
// becomes the largest one. False when there is no memory, with the builder as it was.
bool s_ensure_space(str_builder_t* sb, std::size_t n) {
  if (n > SIZE_MAX - sb->length - 1) {
    return false;
  }
  const std::size_t needed = sb->length + n + 1;
  if (sb->capacity >= needed) {
    return true;
  }
  std::size_t capacity = sb->capacity;
  while (capacity < needed) {
    capacity <<= 1U;
    if (capacity == 0) {
      capacity = SIZE_MAX;
    }
  }
  auto* const grown = static_cast<char*>(std::realloc(sb->str, capacity));
  if (grown == nullptr) {
    return false;
  }
  sb->str = grown;
  sb->capacity = capacity;
  return true;
}

}  // namespace

str_builder_t* str_builder_create() {
  str_builder_ptr sb{static_cast<str_builder_t*>(std::calloc(1, sizeof(str_builder_t)))};
  if (!sb) {
    return nullptr;
  }
  sb->str = static_cast<char*>(std::calloc(1, kInitialCapacity));
  if (sb->str == nullptr) {
    return nullptr;
  }
  sb->capacity = kInitialCapacity;
  return sb.release();
}

void str_builder_destroy(str_builder_t* sb) {
  if (sb != nullptr) {
    std::free(sb->str);
    std::free(sb);
  }
}

void str_builder_add_str(str_builder_t* sb, const char* text, std::size_t length) {
  if (sb == nullptr || text == nullptr || *text == '\0') {
    return;
  }
  const std::size_t count = length == 0 ? std::strlen(text) : length;
  if (s_ensure_space(sb, count)) {
    std::memcpy(sb->str + sb->length, text, count);
    sb->length += count;
    sb->str[sb->length] = '\0';
  }
}

void str_builder_add_char(str_builder_t* sb, char c) {
  if (sb != nullptr && s_ensure_space(sb, 1)) {
    sb->str[sb->length++] = c;
    sb->str[sb->length] = '\0';
  }
}

void str_builder_add_int(str_builder_t* sb, int n) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%d", n);
  str_builder_add_str(sb, digits, 0);
}

void str_builder_clear(str_builder_t* sb) {
  str_builder_truncate(sb, 0);
}

void str_builder_truncate(str_builder_t* sb, std::size_t length) {
  if (sb != nullptr && length < sb->length) {
    sb->length = length;
    sb->str[length] = '\0';
  }
}

void str_builder_drop(str_builder_t* sb, std::size_t length) {
  if (sb == nullptr || length == 0) {
    return;
  }
  const std::size_t dropped = std::min(length, sb->length);
  sb->length -= dropped;
  std::memmove(sb->str, sb->str + dropped, sb->length + 1);
}

std::size_t str_builder_len(const str_builder_t* sb) {
  return sb == nullptr ? 0 : sb->length;
}

const char* str_builder_peek(const str_builder_t* sb) {
  return sb == nullptr ? nullptr : sb->str;
}

char* str_builder_dump(const str_builder_t* sb) {
  if (sb == nullptr) {
    return nullptr;
  }
  auto* const copy = static_cast<char*>(std::malloc(sb->length + 1));
  if (copy != nullptr) {
    std::memcpy(copy, sb->str, sb->length + 1);
  }
  return copy;
}
