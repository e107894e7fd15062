#include "activecontent/kvactivecontent_getNextTag.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "activecontent/kvactivecontent_markup.h"
#include "logging/log-helper.h"

namespace {

constexpr std::size_t kWordBytes = 64;

bool s_is_dropped(char c) {
  return c == '\r' || c == '\n' || c == '\0';
}

// Bytes that occur in the literals which tags are searched for.
bool s_may_be_in_literal(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == ':' || c == '-' || c == '?';
}

// The position behind a hyphen at or behind this one with only dropped bytes before it, or 0.
std::size_t s_behind_hyphen(std::string_view text, std::size_t position) {
  while (position < text.size() && s_is_dropped(text[position])) {
    ++position;
  }
  return position < text.size() && text[position] == '-' ? position + 1 : 0;
}

// The position behind "!--" whose "!" stands here, or 0.
std::size_t s_behind_comment_mark(std::string_view text, std::size_t bang) {
  const std::size_t behind = s_behind_hyphen(text, bang + 1);
  return behind == 0 ? 0 : s_behind_hyphen(text, behind);
}

// True when two hyphens, with only dropped bytes between them, end before the position and begin
// at or behind from.
bool s_hyphens_end_at(std::string_view text, std::size_t position, std::size_t from) {
  if (position <= from || text[position - 1] != '-') {
    return false;
  }
  --position;
  while (position > from && s_is_dropped(text[position - 1])) {
    --position;
  }
  return position > from && text[position - 1] == '-';
}

// Where the comment ends whose "!" stands at bang and whose own text begins at behind. The hyphens
// of its mark count for "-->" (so "<!-->" is a whole comment), but "--!>" needs two of its own, as
// https://html.spec.whatwg.org/multipage/parsing.html has it. Each ">" looks back no further than
// the bytes since the one before it, so that the search is linear.
std::size_t s_comment_end(std::string_view text, std::size_t bang, std::size_t behind) {
  std::size_t close = text.find('>', behind);
  for (; close != std::string_view::npos; close = text.find('>', close + 1)) {
    if (s_hyphens_end_at(text, close, bang + 1) ||
        (close > behind && text[close - 1] == '!' && s_hyphens_end_at(text, close - 1, behind))) {
      return close + 1;
    }
  }
  return text.size();
}

// The buffer's next size that holds a tag of this length: two bytes are always left.
std::size_t s_grown(std::size_t size, std::size_t length) {
  while (length >= size - std::min<std::size_t>(size, 2)) {
    size += KV_TAG_BUFFER_STEP;
  }
  return size;
}

}  // namespace

void kv_markup_structure::classify(std::size_t position) {
  chunk_ = position;
  const std::size_t left = text_.size() - position;
  std::size_t words = 0;
  if (left >= kWordBytes + KV_KERNEL_MARGIN) {
    words = std::min(next_words_, (left - KV_KERNEL_MARGIN) / kWordBytes);
    kernels_.structure(text_.data() + position, words, less_than_.data(), events_.data());
    next_words_ = std::min(kChunkWords, next_words_ * 2);
  } else {
    std::array<char, 2 * kWordBytes + KV_KERNEL_MARGIN> padded{};
    std::memcpy(padded.data(), text_.data() + position, left);
    words = (left + kWordBytes - 1) / kWordBytes;
    kernels_.structure(padded.data(), words, less_than_.data(), events_.data());
  }
  chunk_end_ = chunk_ + words * kWordBytes;
}

// The position is where a word begins, or behind the chunk.
std::size_t kv_markup_structure::next_mark_by_words(const marks& kind, std::size_t position) {
  while (position < text_.size()) {
    if (position >= chunk_end_) {
      classify(position);
    }
    const std::size_t words = (chunk_end_ - chunk_) / kWordBytes;
    std::size_t word = (position - chunk_) / kWordBytes;
    while (word < words && kind[word] == 0) {
      ++word;
    }
    position = chunk_ + word * kWordBytes;
    if (word < words) {
      return position + static_cast<std::size_t>(std::countr_zero(kind[word]));
    }
  }
  return text_.size();
}

// Behind the run of dropped bytes that begins here, noting whether it may part a literal.
std::size_t kv_tag_walker::skip_dropped(std::size_t position, kv_tag_extent& tag) const {
  tag.has_dropped = true;
  const bool after_literal = s_may_be_in_literal(text_[position - 1]);
  while (position < text_.size() && s_is_dropped(text_[position])) {
    ++position;
  }
  tag.may_join |= after_literal && position < text_.size() && s_may_be_in_literal(text_[position]);
  return position;
}

// Collects the tag whose "<" stands at tag.begin.
inline kv_tag_walker::outcome kv_tag_walker::collect(kv_tag_extent& tag) {
  bool quoted = false;
  std::size_t at = structure_.next_event(tag.begin + 1);
  for (; at < text_.size(); at = structure_.next_event(at)) {
    const char c = text_[at];
    if (c == '"') {
      quoted ^= text_[at - 1] != '\\';
      ++at;
    } else if (c == '>') {
      if (!quoted) {
        tag.end = at;
        position_ = at + 1;
        return outcome::tag;
      }
      ++at;
    } else if (c != '!') {
      at = skip_dropped(at, tag);
    } else if (const std::size_t behind = s_behind_comment_mark(text_, at); behind != 0) {
      position_ = s_comment_end(text_, at, behind);
      return outcome::comment;
    } else {
      ++at;
    }
  }
  position_ = text_.size();
  return outcome::end;
}

bool kv_tag_walker::next(kv_tag_extent& tag) {
  outcome found = outcome::comment;
  while (found == outcome::comment) {
    tag.begin = structure_.next_less_than(position_);
    tag.has_dropped = tag.may_join = false;
    if (tag.begin >= text_.size()) {
      position_ = text_.size();
      return false;
    }
    found = collect(tag);
  }
  return found == outcome::tag;
}

std::size_t kv_copy_tag(std::string_view tag, char* output) {
  char* const begin = output;
  while (!tag.empty()) {
    const auto* const dropped = std::find_if(tag.begin(), tag.end(), s_is_dropped);
    const auto run = static_cast<std::size_t>(dropped - tag.begin());
    std::memcpy(output, tag.data(), run);
    output += run;
    tag.remove_prefix(std::min(tag.size(), run + 1));
  }
  return static_cast<std::size_t>(output - begin);
}

void kv_log_found_tag(std::string_view tag) {
  constexpr std::size_t kShown = 80;
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvactivecontent_getNextTag", "found tag (shortened): %.*s",
            static_cast<int>(std::min(tag.size(), kShown)), tag.data());
}

int kv_get_next_tag(std::string_view text, std::size_t* position, char** tag,
                    std::size_t* tag_length, std::size_t* size, kv_reallocate_fn reallocate) {
  if (tag == nullptr || *tag == nullptr) {
    KV_LOG_ERROR("Invalid address *tag = NULL");
    return -1;
  }
  kv_tag_walker walker(text, kv_best_simd_level(), *position);
  kv_tag_extent extent;
  const bool found = walker.next(extent);
  *position = walker.position();
  if (!found) {
    return 0;
  }
  const std::string_view raw = text.substr(extent.begin, extent.end - extent.begin);
  const auto dropped = extent.has_dropped ? std::ranges::count_if(raw, s_is_dropped) : 0;
  const std::size_t needed = s_grown(*size, raw.size() - static_cast<std::size_t>(dropped));
  if (needed != *size) {
    void* const grown = reallocate(*tag, needed);
    if (grown == nullptr) {
      KV_LOG_ERROR("Reallocation of *tag failed");
      std::free(*tag);
      *tag = nullptr;
      return -1;
    }
    *tag = static_cast<char*>(grown);
    *size = needed;
  }
  *tag_length = kv_copy_tag(raw, *tag);
  (*tag)[*tag_length] = '\0';
  kv_log_found_tag({*tag, *tag_length});
  return 1;
}

int kvactivecontent_getNextTag(const char* text, std::size_t length, std::size_t* position,
                               char** tag, std::size_t* tag_length, std::size_t* size) {
  int rc = 0;
  KV_TRACE_SCOPE(rc);
  rc = kv_get_next_tag({text, length}, position, tag, tag_length, size, std::realloc);
  return rc;
}
