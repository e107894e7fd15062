#include "activecontent/markup_hits.h"

#include "activecontent/markup_matcher.h"
#include "activecontent/markup_words.h"

using namespace std::string_view_literals;
using markup_literals::kAll;
using markup_literals::kFirstBanned;

namespace {

constexpr std::size_t kKept = 8192;

// Only a handler's name begins with another literal, so that a hit of any other stands for itself.
static_assert([] {
  for (markup_literals::id i = kFirstBanned; i < markup_literals::kCount; ++i) {
    if (markup_literals::kPrefix[i] != markup_literals::kNone) {
      return false;
    }
  }
  return true;
}());

// False when no tag around this word can leave it isolated.
bool s_may_be_isolated(std::string_view text, std::size_t position, std::size_t length) {
  const std::size_t behind = position + length;
  const auto open_before = [](char c) { return kv_may_precede_word(c) || c == '<' || c == '\0'; };
  const auto open_behind = [](char c) { return kv_may_follow_word(c) || c == '>' || c == '\0'; };
  return (position == 0 || open_before(text[position - 1])) &&
         (behind >= text.size() || open_behind(text[behind]));
}

}  // namespace

kv_hit_filter kv_hit_filter::of(const kv_markup_scan& scan) {
  kv_hit_filter filter;
  filter.children_ = kv_scan_switch_is_on(*scan.job, KV_AC_HTML_SCRIPT);
  filter.handlers_ = filter.children_ && scan.wants_handlers();
  filter.invocations_ = filter.children_ || kv_scan_switch_is_on(*scan.job, KV_AC_XML_JAVASCRIPT);
  for (const kv_banned_word& word : scan.words) {
    if (word.number != markup_literals::kNone) {
      filter.banned_[word.number - kFirstBanned] = true;
    }
  }
  return filter;
}

bool kv_hit_filter::matters(std::string_view text, const kv_literal_hit& hit) const {
  const markup_literals::id number = hit.number();
  if (markup_literals::is_handler(number)) {
    return handlers_;
  }
  if (!markup_literals::is_banned(number)) {
    return children_ && number != markup_literals::kRegistration;
  }
  if (invocations_ && number == markup_literals::kJavascript &&
      text.substr(hit.position()).starts_with("javascript:"sv)) {
    return true;
  }
  return banned_[number - kFirstBanned] &&
         s_may_be_isolated(text, hit.position(), kAll[number].length);
}

kv_hit_store::kv_hit_store(std::string_view text, kv_simd_level level, const kv_hit_filter& filter)
    : text_(text), level_(level), filter_(filter), covered_(text.size()) {
  kv_literal_matcher matcher(text, level);
  for (kv_literal_hit hit; matcher.next(hit);) {
    present_.add(hit.number());
    if (covered_ < text.size() || !filter.matters(text, hit)) {
      continue;
    }
    if (hits_.size() < kKept) {
      hits_.push_back(hit);
    } else {
      covered_ = hit.position();
    }
  }
  pass_hits_before(0);
}

void kv_hit_store::refill(std::size_t begin, std::size_t end) {
  hits_.clear();
  next_ = 0;
  covered_ = text_.size();
  kv_literal_matcher matcher(text_, level_, begin);
  for (kv_literal_hit hit; matcher.next(hit);) {
    if (!filter_.matters(text_, hit)) {
      continue;
    }
    if (hits_.size() >= kKept && hit.position() >= end) {
      covered_ = hit.position();
      return;
    }
    hits_.push_back(hit);
  }
}

void kv_hit_store::pass_hits_before(std::size_t position) {
  while (next_ < hits_.size() && hits_[next_].position() < position) {
    ++next_;
  }
  next_position_ = next_ < hits_.size() ? hits_[next_].position() : covered_;
}

std::span<const kv_literal_hit> kv_hit_store::between(std::size_t begin, std::size_t end) {
  if (end > covered_) {
    refill(begin, end);
  }
  pass_hits_before(begin);
  const std::size_t first = next_;
  pass_hits_before(end);
  return std::span(hits_).subspan(first, next_ - first);
}

void kv_collect_hits(std::string_view text, kv_simd_level level, const kv_hit_filter& filter,
                     std::vector<kv_literal_hit>& hits) {
  hits.clear();
  kv_literal_matcher matcher(text, level);
  for (kv_literal_hit hit; matcher.next(hit);) {
    if (filter.matters(text, hit)) {
      hits.push_back(hit);
    }
  }
}

std::vector<kv_literal_hit> kv_all_hits(std::string_view text, kv_simd_level level) {
  std::vector<kv_literal_hit> hits;
  kv_literal_matcher matcher(text, level);
  for (kv_literal_hit hit; matcher.next(hit);) {
    hits.push_back(hit);
  }
  return hits;
}
