// The compound-file reader against the plain one in the test support: same loading, same names,
// same answer to the search.
#include <array>
#include <cstdlib>
#include <string>

#include "activecontent/pole.h"
#include "support/cfb_reference.h"

// Up to so many entries the search tells all lists apart, however they overlap.
static constexpr std::size_t kExactEntries = 256;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const cfb_reference reference{{reinterpret_cast<const char*>(data), size}};
  POLE::Storage storage{data, size};
  if (storage.open() != reference.is_loaded()) {
    std::abort();
  }
  if (!reference.is_loaded() || reference.entry_count() > kExactEntries) {
    return 0;
  }
  if (storage.entries("/") != reference.names("/")) {
    std::abort();
  }
  for (const std::string_view token : {"ObjectPool", "Macros", "o", "M"}) {
    const std::array<std::string_view, 1> tokens{token};
    if ((storage.find_names("/", tokens) != 0) != reference.has_token(token)) {
      std::abort();
    }
  }
  return 0;
}
