// Any bytes through the compound-file reader: listing, search, and reading of every stream found.
#include <array>
#include <string>

#include "activecontent/pole.h"
#include "activecontent/pole_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  POLE::Storage storage{data, size};
  if (!storage.open()) {
    return 0;
  }
  const std::array<std::string_view, 2> tokens{"ObjectPool", "Macros"};
  static_cast<void>(storage.find_names("/", tokens));
  std::size_t streams = 0;
  for (const POLE::DirEntry& entry : storage.dirEntries("/")) {
    if (++streams > 16) {
      break;
    }
    static_cast<void>(storage.isDirectory(entry.name));
    POLE::Stream stream{storage, "/" + entry.name};
    std::array<std::uint8_t, 700> buffer{};
    std::size_t rounds = 0;
    while (stream.read(buffer.data(), buffer.size()) != 0 && ++rounds < 64) {
    }
    stream.seek(stream.size() / 2);
    static_cast<void>(stream.getch());
  }
  return 0;
}
