// Any bytes as the header of a 7z archive (as it is, as a member packed without compression, behind
// a program) or as the table of contents of a xar archive, with the lengths and checksums that
// they need to be looked at. What the guards let pass, the library holds within the walk's
// allowance. The first byte chooses.
#include <malloc.h>

#include <cstdlib>

#include "common/kv_archive_walk.h"
#include "support/hostile_archives.h"

#if defined(__SANITIZE_ADDRESS__)
#define KV_FUZZ_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_FUZZ_ASAN 1
#endif
#endif
#if defined(KV_FUZZ_ASAN)
// Of the sanitizers' allocator interface, whose header not every compiler brings.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

std::size_t s_allocated() {
#if defined(KV_FUZZ_ASAN)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

std::string s_archive(std::string_view header, unsigned kind) {
  switch (kind) {
    case 0:
      return archive_7z(header);
    case 1:
      return archive_7z_encoded(header.size(), kCopy7z, header);
    case 2:
      return "MZ" + std::string(0x27000 - 2, '\0') + archive_7z(header);
    default:
      return archive_xar(header, stored_deflate(header));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view header{reinterpret_cast<const char*>(data) + 1, size - 1};
  const std::string object = s_archive(header, data[0] % 4);
  const std::size_t before = s_allocated();
  kv_archive_walk walk{{reinterpret_cast<const std::uint8_t*>(object.data()), object.size()}};
  if (walk.open() && walk.next()) {
    const std::uint64_t held = s_allocated() - before;
    if (held > kv_archive_budget{object.size(), {}}.allowance()) {
      std::abort();
    }
    for (int members = 0; members < 1000 && walk.next(); ++members) {
    }
  }
  return 0;
}
