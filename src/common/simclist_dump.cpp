// Dumping a list to a file and restoring it. The format is told in the header.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/kv_guard.h"
#include "common/simclist_internal.h"

namespace {

constexpr std::string_view kMagic = "KVLIST01";
constexpr std::string_view kEndMark = "KVLISTEND";
constexpr std::size_t kHeaderSize = 32;
constexpr std::size_t kReadBlock = 65536;

using bytes_ptr = kv_malloc_ptr<void>;

class descriptor_guard {
 public:
  explicit descriptor_guard(int value) : value_(value) {}
  ~descriptor_guard() {
    if (value_ >= 0) {
      close(value_);
    }
  }
  descriptor_guard(const descriptor_guard&) = delete;
  descriptor_guard& operator=(const descriptor_guard&) = delete;
  [[nodiscard]] int get() const { return value_; }

 private:
  int value_;
};

template <class T>
void s_put(std::string& out, T number) {
  for (std::size_t i = 0; i < sizeof number; ++i) {
    out.push_back(static_cast<char>((number >> (8 * i)) & 0xffU));
  }
}

template <class T>
bool s_take(std::string_view& rest, T& number) {
  if (rest.size() < sizeof number) {
    return false;
  }
  number = 0;
  for (std::size_t i = 0; i < sizeof number; ++i) {
    number =
        static_cast<T>(number | static_cast<T>(static_cast<unsigned char>(rest[i])) << (8 * i));
  }
  rest.remove_prefix(sizeof number);
  return true;
}

bool s_write_all(int descriptor, std::string_view rest) {
  while (!rest.empty()) {
    const ssize_t written = write(descriptor, rest.data(), rest.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    rest.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
  }
  return true;
}

// Up to limit bytes more, in blocks: a length that a file claims allocates nothing by itself.
bool s_read(int descriptor, std::uint64_t limit, std::string& out) {
  std::array<char, kReadBlock> block;
  while (limit > 0) {
    const ssize_t got =
        read(descriptor, block.data(), std::min<std::uint64_t>(limit, block.size()));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return got == 0;
    }
    out.append(block.data(), static_cast<std::size_t>(got));
    limit -= static_cast<std::uint64_t>(got);
  }
  return true;
}

// Appends one element's length and bytes.
bool s_serialize(const list_state& state, const void* element, std::string& out) {
  std::uint32_t length = 0;
  if (state.serializer != nullptr) {
    const bytes_ptr bytes{state.serializer(element, &length)};
    if (!bytes) {
      return false;
    }
    s_put(out, length);
    out.append(static_cast<const char*>(bytes.get()), length);
    return true;
  }
  const std::size_t size = state.meter == nullptr ? SIZE_MAX : state.meter(element);
  if (size > UINT32_MAX) {
    return false;
  }
  s_put(out, static_cast<std::uint32_t>(size));
  out.append(static_cast<const char*>(element), size);
  return true;
}

bool s_print(const list_state& state, std::string& out) {
  std::string elements;
  for (const void* element : state.elements) {
    if (!s_serialize(state, element, elements)) {
      return false;
    }
  }
  out.append(kMagic);
  s_put(out, static_cast<std::uint64_t>(std::time(nullptr)));
  s_put(out, static_cast<std::uint64_t>(state.elements.size()));
  s_put(out, static_cast<std::uint64_t>(elements.size()));
  out.append(elements).append(kEndMark);
  return true;
}

// Takes the elements apart. False when they are not what the header promised.
bool s_parse_elements(std::string_view rest, std::uint64_t count,
                      std::vector<std::string_view>& out) {
  while (!rest.empty()) {
    std::uint32_t length = 0;
    if (!s_take(rest, length) || length > rest.size()) {
      return false;
    }
    out.push_back(rest.substr(0, length));
    rest.remove_prefix(length);
  }
  return out.size() == count;
}

struct dump {
  list_dump_info_t info{};
  std::string bytes;                       // of the elements
  std::vector<std::string_view> elements;  // within bytes
};

// False for what does not begin like a dump, or an error of reading.
bool s_load(int descriptor, dump& out) {
  std::string header;
  if (!s_read(descriptor, kHeaderSize, header) || header.size() != kHeaderSize ||
      !header.starts_with(kMagic)) {
    return false;
  }
  std::string_view rest(header);
  rest.remove_prefix(kMagic.size());
  std::uint64_t size = 0;
  if (!s_take(rest, out.info.timestamp) || !s_take(rest, out.info.count) || !s_take(rest, size) ||
      size > UINT64_MAX - kHeaderSize - kEndMark.size()) {
    return false;
  }
  out.info.size = size + kHeaderSize + kEndMark.size();
  std::string end_mark;
  if (!s_read(descriptor, size, out.bytes) || !s_read(descriptor, kEndMark.size(), end_mark)) {
    return false;
  }
  out.info.complete = out.bytes.size() == size && end_mark == kEndMark &&
                              s_parse_elements(out.bytes, out.info.count, out.elements)
                          ? 1
                          : 0;
  return true;
}

// One element in the form that the list stores, or null.
bytes_ptr s_unserialize(const list_state& state, std::string_view bytes) {
  if (state.unserializer != nullptr) {
    auto length = static_cast<std::uint32_t>(bytes.size());
    return bytes_ptr{state.unserializer(bytes.data(), &length)};
  }
  bytes_ptr copy{std::malloc(std::max<std::size_t>(bytes.size(), 1))};
  if (copy) {
    std::memcpy(copy.get(), bytes.data(), bytes.size());
  }
  return copy;
}

bool s_append_all(list_state& state, const std::vector<std::string_view>& elements) {
  std::vector<bytes_ptr> restored;
  restored.reserve(elements.size());
  for (const std::string_view bytes : elements) {
    restored.push_back(s_unserialize(state, bytes));
    if (!restored.back()) {
      return false;
    }
  }
  std::list<void*> added;
  for (const bytes_ptr& element : restored) {
    added.push_back(element.get());
  }
  for (bytes_ptr& element : restored) {
    static_cast<void>(element.release());  // the list has them now
  }
  state.elements.splice(state.elements.end(), added);
  return true;
}

}  // namespace

int list_dump_filedescriptor(const list_t* list, int descriptor) {
  if (list == nullptr || list->state == nullptr) {
    return -1;
  }
  try {
    std::string text;
    return s_print(*list->state, text) && s_write_all(descriptor, text) ? 0 : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

int list_dump_file(const list_t* list, const char* path) {
  if (path == nullptr) {
    return -1;
  }
  const descriptor_guard file{open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
  return file.get() < 0 ? -1 : list_dump_filedescriptor(list, file.get());
}

int list_restore_filedescriptor(list_t* list, int descriptor) {
  if (list == nullptr || list->state == nullptr || list->state->iterator_active ||
      (list->state->unserializer == nullptr && !list->state->copies)) {
    return -1;
  }
  try {
    dump loaded;
    return s_load(descriptor, loaded) && loaded.info.complete == 1 &&
                   s_append_all(*list->state, loaded.elements)
               ? 0
               : -1;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

int list_restore_file(list_t* list, const char* path) {
  if (path == nullptr) {
    return -1;
  }
  const descriptor_guard file{open(path, O_RDONLY | O_CLOEXEC)};
  return file.get() < 0 ? -1 : list_restore_filedescriptor(list, file.get());
}

int list_dump_getinfo_filedescriptor(int descriptor, list_dump_info_t* info) {
  if (info == nullptr) {
    return -1;
  }
  try {
    dump loaded;
    if (!s_load(descriptor, loaded)) {
      return -1;
    }
    *info = loaded.info;
    return 0;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}

int list_dump_getinfo_file(const char* path, list_dump_info_t* info) {
  if (path == nullptr) {
    return -1;
  }
  const descriptor_guard file{open(path, O_RDONLY | O_CLOEXEC)};
  return file.get() < 0 ? -1 : list_dump_getinfo_filedescriptor(file.get(), info);
}
