#include "activecontent/PDFscan.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "activecontent/PDFscan_internal.h"
#include "activecontent/kv_byte_blocks.h"
#include "logging/log-helper.h"
#include "worker/kv_worker_scan_types.h"

namespace {

constexpr std::string_view kObject = "obj";
constexpr std::string_view kTrailer = "trailer";
constexpr std::string_view kEncrypt = "/Encrypt";
// Looking for keywords in the whole of such an object costs less than finding its dictionary.
constexpr std::size_t kShortObject = 1024;
constexpr std::size_t kNowhere = std::string_view::npos;

// Finds one "obj" after the other. Each block is looked at once, however many stand in it.
class object_finder {
 public:
  object_finder(std::string_view in, kv_simd_level level)
      : in_(in), kernels_(kv_pdf_kernels_of(level)) {}

  // The next one at or behind from that lies whole within the bytes. From call to call from goes
  // on, behind what was found.
  std::size_t find(std::size_t from) {
    if (from < behind_) {
      hits_ &= ~kv_low_bits(KV_BLOCK_SIZE - (behind_ - from));
    } else {
      behind_ = from;
      hits_ = 0;
    }
    if (hits_ == 0) {
      step();
    }
    return hits_ == 0 ? in_.find(kObject, behind_) : behind_ - KV_BLOCK_SIZE + kv_first_bit(hits_);
  }

 private:
  // To the next block with hits, or behind the last one that can be looked at.
  void step() {
    constexpr std::size_t kMargin = kObject.size() - 1;
    const std::size_t left = in_.size() - std::min(behind_, in_.size());
    const std::size_t blocks = left < kMargin ? 0 : (left - kMargin) / KV_BLOCK_SIZE;
    const kv_pdf_object_marks next = kernels_.objects(in_.data() + behind_, blocks);
    hits_ = next.marks;
    behind_ += (next.blocks_before + (hits_ == 0 ? 0 : 1)) * KV_BLOCK_SIZE;
  }

  std::string_view in_;
  const kv_pdf_kernels& kernels_;
  std::size_t behind_ = 0;  // the block last looked at
  std::uint64_t hits_ = 0;  // in it
};

// The nearest line break before an offset, but behind start.
std::size_t s_find_line_break(std::string_view in, std::size_t start, std::size_t before) {
  constexpr std::size_t kUsualHeader = 32;  // bytes worth a look each; longer lines are rare
  std::size_t at = before;
  while (at > start + 1 && before - at < kUsualHeader) {
    --at;
    if (in[at] == '\n' || in[at] == '\r') {
      return at;
    }
  }
  if (at <= start + 1) {
    return kNowhere;
  }
  const char* begin = in.data() + start + 1;
  std::size_t found = kNowhere;
  for (const char line_break : {'\n', '\r'}) {
    const char* rest = found == kNowhere ? begin : in.data() + found + 1;
    const void* nearest =
        memrchr(rest, line_break, static_cast<std::size_t>(in.data() + at - rest));
    if (nearest != nullptr) {
      found = static_cast<std::size_t>(static_cast<const char*>(nearest) - in.data());
    }
  }
  return found;
}

// True when "end" stands before an offset.
bool s_follows_end(std::string_view in, std::size_t at) {
  return at >= 3 && in[at - 3] == 'e' && in[at - 2] == 'n' && in[at - 1] == 'd';
}

// What a printed line shows of bytes.
std::string s_as_text(std::string_view bytes) {
  return std::string{bytes};
}

class pdf_scan {
 public:
  pdf_scan(std::string_view in, const kv_pdf_keyword_t* table, std::int32_t& match_index,
           kv_simd_level level, std::pmr::memory_resource& memory)
      : in_(in),
        objects_(in, level),
        table_(table),
        keywords_(table, level),
        match_index_(match_index),
        clean_(&memory),
        canonical_(&memory) {}

  std::int32_t run() {
    std::int32_t code = KV_RESULT_CLEAN;
    while (code == KV_RESULT_CLEAN && next_object()) {
      code = analyse_object();
    }
    return code;
  }

 private:
  // Steps to the next object; false when there is none.
  bool next_object() {
    const std::size_t object = finished_ ? kNowhere : objects_.find(end_);
    const std::size_t line = object == kNowhere ? kNowhere : s_find_line_break(in_, end_, object);
    if (line == kNowhere) {
      return false;
    }
    const std::size_t closing = find_closing(object);
    if (closing == kNowhere) {
      // Going on behind the line break would meet the same "obj", with no line break before it.
      KV_LOG_WARN("No corresponding closing tag found");
      return false;
    }
    begin_ = line;
    end_ = closing;
    KV_LOG_TRACE("object from offset 0x%x to offset 0x%x", static_cast<unsigned>(begin_),
                 static_cast<unsigned>(end_));
    return true;
  }

  // The "j" of the "endobj" that closes an object whose first "obj" is given. Every "endobj" ends
  // in an "obj"; the line break in front of the first one keeps "end" from reaching back behind it.
  std::size_t find_closing(std::size_t object) {
    while (object != kNowhere && !s_follows_end(in_, object)) {
      object = objects_.find(object + kObject.size());
    }
    return object == kNowhere ? kNowhere : object + kObject.size() - 1;
  }

  std::int32_t analyse_object() {
    const kv_text_window object{in_.data() + begin_, end_ - begin_, in_.size() - begin_};
    if (object.size <= kShortObject && !traced_ && !keywords_.may_stand_in(object)) {
      return KV_RESULT_CLEAN;
    }
    kv_pdf_dictionary_t dictionary = kv_pdf_find_dictionary(object);
    if (dictionary.presence == kv_pdf_presence::behind_zero) {
      if (!copy_without_zeros()) {
        KV_LOG_ERROR("Failed to allocate %s", "object text");
        return KV_RESULT_FAILED;
      }
      dictionary = kv_pdf_find_dictionary({clean_.data(), clean_.size(), clean_.size()});
    }
    if (dictionary.presence != kv_pdf_presence::found) {
      KV_LOG_TRACE("PDFExtractDictionary(): No dictionary found");
      return KV_RESULT_CLEAN;
    }
    KV_LOG_DEBUG("Dictionary: %s", s_as_text(dictionary.window.text()).c_str());
    KV_LOG_TRACE("Analyzing dictionary %s", s_as_text(dictionary.window.text()).c_str());
    return match(dictionary.window);
  }

  bool copy_without_zeros() {
    try {
      clean_.clear();
      clean_.reserve(end_ - begin_);
    } catch (const std::bad_alloc&) {
      return false;
    }
    for (const char byte : in_.substr(begin_, end_ - begin_)) {
      if (byte != '\0') {
        clean_.push_back(byte);
      }
    }
    return true;
  }

  std::int32_t match(kv_text_window dictionary) {
    if (std::memchr(dictionary.bytes, '#', dictionary.size) != nullptr) {
      const std::optional<kv_text_window> canonical = canonicalise(dictionary);
      if (!canonical) {
        KV_LOG_ERROR("failed to canonicalize dictionary");
        finished_ = true;
        return KV_RESULT_CLEAN;
      }
      dictionary = *canonical;
    }
    const std::int32_t row = keywords_.find(dictionary);
    if (row == KV_PDF_NO_MATCH) {
      return KV_RESULT_CLEAN;
    }
    KV_LOG_DEBUG("\"%s\" found in %s", table_[row].keyword, s_as_text(dictionary.text()).c_str());
    match_index_ = row;
    return KV_RESULT_ACTIVE_CONTENT;
  }

  // The dictionary with its escapes undone; none when out of memory.
  std::optional<kv_text_window> canonicalise(const kv_text_window& dictionary) {
    KV_LOG_DEBUG("Encoded dictionary entry found");
    try {
      canonical_.clear();
      canonical_.reserve(dictionary.size);
    } catch (const std::bad_alloc&) {
      return std::nullopt;
    }
    if (!kv_pdf_canonicalise(dictionary.text(), canonical_)) {
      return dictionary;
    }
    KV_LOG_DEBUG("Converted \"%s\" to \"%s\"", s_as_text(dictionary.text()).c_str(),
                 s_as_text(canonical_).c_str());
    return kv_text_window{canonical_.data(), canonical_.size(), canonical_.size()};
  }

  std::string_view in_;
  object_finder objects_;
  const kv_pdf_keyword_t* table_;
  kv_pdf_keywords keywords_;
  std::int32_t& match_index_;
  std::size_t begin_ = 0;  // of the object: the line break before its header
  std::size_t end_ = 0;    // behind its text, where the search goes on
  bool finished_ = false;
  // Asked once: a document may hold a hundred thousand objects.
  bool traced_ = log_is_enabled(KV_LOG_LEVEL_DEBUG);
  std::pmr::string clean_;      // an object's text without its zero bytes
  std::pmr::string canonical_;  // a dictionary without its escapes
};

}  // namespace

std::int32_t kv_PDFscan(const void* bytes, std::size_t length, const kv_pdf_keyword_t* table,
                        std::int32_t* match_index) {
  return kv_pdf_scan_with(bytes, length, table, match_index, kv_best_simd_level(),
                          *std::pmr::new_delete_resource());
}

std::int32_t kv_pdf_scan_with(const void* bytes, std::size_t length, const kv_pdf_keyword_t* table,
                              std::int32_t* match_index, kv_simd_level level,
                              std::pmr::memory_resource& memory) {
  std::int32_t rc = KV_RESULT_FAILED;
  KV_TRACE_SCOPE(rc);
  const std::string_view in{static_cast<const char*>(bytes), bytes == nullptr ? 0 : length};
  rc = pdf_scan(in, table, *match_index, level, memory).run();
  KV_LOG_DEBUG("Returning %d", rc);
  return rc;
}

const char* s_GetEncrypt(const void* bytes, std::size_t length) {
  if (bytes == nullptr || length < kTrailer.size()) {
    KV_LOG_ERROR("Invalid Parameter: in: 0x%x, len: %d",
                 static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(bytes)),
                 static_cast<int>(length));
    return nullptr;
  }
  const std::string_view in{static_cast<const char*>(bytes), length};
  const std::size_t trailer = in.rfind(kTrailer);
  if (trailer == kNowhere) {
    KV_LOG_DEBUG("Trailer not found.");
    return nullptr;
  }
  // One that reaches the very end has no value behind it.
  const std::size_t entry = in.substr(0, length - 1).find(kEncrypt, trailer);
  return entry == kNowhere ? nullptr : in.data() + entry;
}

int kv_PDF_IsEncrypted(const void* bytes, std::size_t length) {
  if (s_GetEncrypt(bytes, length) == nullptr) {
    return 0;
  }
  KV_LOG_DEBUG("Found \"/Encrypt\"");
  return 1;
}
