#pragma once
// A growable character buffer that is always zero-terminated. One thread at a time per builder.

#include <cstddef>
#include <memory>

#include "common/kv_guard.h"

struct str_builder_t {
  char* str;             // owned, zero-terminated
  std::size_t capacity;  // bytes allocated
  std::size_t length;    // characters in use
};

// An empty builder of capacity 32, or null.
[[nodiscard]] str_builder_t* str_builder_create();
// Null allowed.
void str_builder_destroy(str_builder_t* sb);

using str_builder_ptr = std::unique_ptr<str_builder_t, kv_free_pointer<str_builder_destroy>>;

// Appends length characters, or the whole text for a length of 0. A null or empty text adds
// nothing, and so does one for which there is no memory.
void str_builder_add_str(str_builder_t* sb, const char* text, std::size_t length);
void str_builder_add_char(str_builder_t* sb, char c);
void str_builder_add_int(str_builder_t* sb, int n);

// Keeps the capacity.
void str_builder_clear(str_builder_t* sb);
// Keeps the first length characters; a longer length changes nothing.
void str_builder_truncate(str_builder_t* sb, std::size_t length);
// Removes the first length characters; a longer length removes all.
void str_builder_drop(str_builder_t* sb, std::size_t length);

[[nodiscard]] std::size_t str_builder_len(const str_builder_t* sb);
// The text, owned by the builder and valid until its next change.
[[nodiscard]] const char* str_builder_peek(const str_builder_t* sb);
// A copy that the caller frees, or null.
[[nodiscard]] char* str_builder_dump(const str_builder_t* sb);
