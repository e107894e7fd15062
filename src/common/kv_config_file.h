#pragma once
// Reading INI files: sections in brackets, "key = value" lines, semicolon comments. A handle is
// constant once loaded: any thread may read it, one frees it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/kv_guard.h"
#include "common/simclist.h"

struct ini_t;

// Reads a file. Null when it is missing, unreadable or cut while it is read, or without memory.
[[nodiscard]] ini_t* ini_load(const char* path);
// The same from a text.
[[nodiscard]] ini_t* ini_parse(std::string_view text);
void ini_free(ini_t** ini);
using ini_ptr = std::unique_ptr<ini_t, kv_free_address<ini_free>>;

// The value of the first entry with that section and key in file order, owned by the handle, or
// null. Names are compared without case. A null section matches every section; keys before the
// first section belong to the section "".
[[nodiscard]] const char* ini_get(const ini_t* ini, const char* section, const char* key);

// Scans the value with an sscanf format of one conversion into out, or without a format stores the
// pointer to the value there. 1 when the key exists, whether or not the value could be scanned,
// else 0.
[[nodiscard]] int ini_sget(const ini_t* ini, const char* section, const char* key,
                           const char* scan_format, void* out);

// Each returns 1 when the key is there and its value could be scanned, else 0. A text is one word
// without blanks; out is cleared first, and a word that does not fit is cut.
[[nodiscard]] int GetStringFromConfigFile(const ini_t* ini, const char* section, const char* key,
                                          char* out, std::size_t size);
[[nodiscard]] int GetIntFromConfigFile(const ini_t* ini, const char* section, const char* key,
                                       std::int32_t* out);
[[nodiscard]] int GetLongFromConfigFile(const ini_t* ini, const char* section, const char* key,
                                        std::int64_t* out);

// Compares without case (ASCII): negative, zero or positive.
[[nodiscard]] int strcmpci(const char* a, const char* b);

// One configuration value in a list of them. Texts are owned (C allocator).
struct kv_config_parameter_t {
  char* name;
  char* value;
};

// Frees the records of a list of kv_config_parameter_t (each from the C allocator; a list that
// stores no copies) and destroys the list. Waits up to 500 ms for an iterator that is active. 0, or
// -1 for a null list or an iterator that stays active.
int kv_config_free_list(list_t* config);
