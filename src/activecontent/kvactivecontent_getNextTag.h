#pragma once
// Steps from tag to tag of a markup text without copying. A tag reaches from its "<" to the first
// ">" outside double quotes; comments are stepped over; CR, LF and NUL inside a tag count as not
// there. A walker is used by one thread; the text is borrowed for its life.

#include <array>
#include <bit>
#include <cstdint>
#include <string_view>

#include "activecontent/markup_kernels.h"

// A tag in the text, with its "<" and without its ">".
struct kv_tag_extent {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool has_dropped = false;  // CR, LF or NUL stands in it
  bool may_join = false;     // and some of them where they might part a literal
};

// Positions of "<" and of the bytes that matter inside a tag, found block by block.
class kv_markup_structure {
 public:
  kv_markup_structure(std::string_view text, kv_simd_level level)
      : text_(text), kernels_(kv_kernels_of(level)) {}

  // The first such byte at or behind the position, or the length of the text (or beyond it).
  // Positions asked for never go back.
  [[nodiscard]] std::size_t next_less_than(std::size_t position) {
    return next_mark(less_than_, position);
  }
  [[nodiscard]] std::size_t next_event(std::size_t position) {
    return next_mark(events_, position);
  }

 private:
  static constexpr std::size_t kChunkWords = 64;
  using marks = std::array<std::uint64_t, kChunkWords>;

  [[nodiscard]] std::size_t next_mark(const marks& kind, std::size_t position) {
    if (position < chunk_end_) {
      const std::size_t offset = position - chunk_;
      const std::uint64_t bits = kind[offset / 64] >> (offset % 64);
      if (bits != 0) {
        return position + static_cast<std::size_t>(std::countr_zero(bits));
      }
      position += 64 - offset % 64;
    }
    return next_mark_by_words(kind, position);
  }
  [[nodiscard]] std::size_t next_mark_by_words(const marks& kind, std::size_t position);
  void classify(std::size_t position);

  std::string_view text_;
  const kv_markup_kernels& kernels_;
  std::size_t chunk_ = 0;       // where the classified chunk begins
  std::size_t chunk_end_ = 0;   // and ends
  std::size_t next_words_ = 1;  // grows, so that a walk of one tag classifies little
  marks less_than_{};
  marks events_{};
};

class kv_tag_walker {
 public:
  kv_tag_walker(std::string_view text, kv_simd_level level, std::size_t position = 0)
      : text_(text), structure_(text, level), position_(position) {}

  // The next tag; false at the end of the text. What is open there is dropped.
  [[nodiscard]] bool next(kv_tag_extent& tag);
  // Behind the last tag, or the length of the text.
  [[nodiscard]] std::size_t position() const { return position_; }

 private:
  enum class outcome { tag, comment, end };
  [[nodiscard]] outcome collect(kv_tag_extent& tag);
  [[nodiscard]] std::size_t skip_dropped(std::size_t position, kv_tag_extent& tag) const;

  std::string_view text_;
  kv_markup_structure structure_;
  std::size_t position_;
};

// Copies the tag without CR, LF and NUL; output has room for all of it. Returns the length.
std::size_t kv_copy_tag(std::string_view tag, char* output);

void kv_log_found_tag(std::string_view tag);

// kvactivecontent_getNextTag with the allocator's function as an argument.
using kv_reallocate_fn = void* (*)(void* memory, std::size_t size);
[[nodiscard]] int kv_get_next_tag(std::string_view text, std::size_t* position, char** tag,
                                  std::size_t* tag_length, std::size_t* size,
                                  kv_reallocate_fn reallocate);
