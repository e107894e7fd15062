#pragma once
// The inner functions of the Office detectors, as their tests reach them. Answers: 1 found, 0 not
// found, negative when the container cannot be read. Any thread.

#include <cstdint>
#include <string>

#include "activecontent/pole.h"

// "ObjectPool" or "Macros" in the name of any storage or stream of a compound file. -1 when the
// container could not be opened (the reader raised an error), -2 when it reported a failure status.
[[nodiscard]] int kvactivecontent_check_CDFv2_for_OLE(const std::uint8_t* bytes,
                                                      std::uint64_t length);
[[nodiscard]] int kvactivecontent_check_CDFv2_for_macro(const std::uint8_t* bytes,
                                                        std::uint64_t length);
[[nodiscard]] int kvactivecontent_find_in_doc(const std::uint8_t* bytes, std::uint64_t length,
                                              const char* token);
// 1 when any entry at or below the path has a name that contains the token. The depth of the path
// is counted, not limited.
[[nodiscard]] int hasToken(int depth, const POLE::Storage& storage, const std::string& path,
                           const char* token);
