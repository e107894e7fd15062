#pragma once
// The occurrences of literals that can matter in a scan, found in one pass and kept by position for
// the walk over the tags. Only so many are kept at once: a text with more of them is searched again
// from where they end, so that memory stays bounded and time linear. One thread; the text is
// borrowed.

#include <array>
#include <span>
#include <string_view>
#include <vector>

#include "activecontent/kvactivecontent_html_internal.h"
#include "activecontent/markup_literals.h"

// Which occurrences can change a scan's outcome: it leaves out what no test asks for, and words
// that are seen at once not to stand alone. Bytes that a tag drops, and a tag's own ends, leave it
// open.
class kv_hit_filter {
 public:
  [[nodiscard]] static kv_hit_filter of(const kv_markup_scan& scan);
  [[nodiscard]] bool matters(std::string_view text, const kv_literal_hit& hit) const;

 private:
  bool invocations_ = false;
  bool children_ = false;
  bool handlers_ = false;
  std::array<bool, kBannedTags.size()> banned_{};
};

class kv_hit_store {
 public:
  // Searches all of the text.
  kv_hit_store(std::string_view text, kv_simd_level level, const kv_hit_filter& filter);

  // Everything that occurs, whether it matters or not.
  [[nodiscard]] const kv_literal_presence& present() const { return present_; }
  [[nodiscard]] const kv_hit_filter& filter() const { return filter_; }
  // True when nothing that matters lies between what was asked for last and this position: the
  // quick answer for nearly every tag.
  [[nodiscard]] bool none_before(std::size_t end) const { return end <= next_position_; }
  // What matters in this part of the text; parts asked for never go back. Valid until the next
  // call.
  [[nodiscard]] std::span<const kv_literal_hit> between(std::size_t begin, std::size_t end);

 private:
  void refill(std::size_t begin, std::size_t end);
  void pass_hits_before(std::size_t position);

  std::string_view text_;
  kv_simd_level level_;
  kv_hit_filter filter_;
  kv_literal_presence present_;
  std::vector<kv_literal_hit> hits_;
  std::size_t next_ = 0;     // the first hit not yet passed
  std::size_t covered_ = 0;  // hits before this position are all kept
  // Of the next hit, or where the kept ones end.
  std::size_t next_position_ = 0;
};

// All that matters in a text, into hits, whose old contents go.
void kv_collect_hits(std::string_view text, kv_simd_level level, const kv_hit_filter& filter,
                     std::vector<kv_literal_hit>& hits);
