#pragma once
// Takes the compressions off an object, one layer at a time, so that time and size are checked
// between any two of them. Left to itself the library stacks the layers inside one call: an object
// of a few hundred bytes, compressed four times, can hold such a call for hours. Each layer found
// by the library's own tests is therefore an opening of its own that reads from the one below.
// Filters that start external programs (lrzip, lzop, grzip) are never offered. One thread per
// chain; the object outlives it.

#include <archive.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "common/kv_archive_budget.h"
#include "common/kv_guard.h"

using kv_archive_ptr = std::unique_ptr<archive, kv_free_pointer<archive_read_free>>;

// Gives bytes block by block. A block stays valid until the next call.
class kv_block_source {
 public:
  kv_block_source() = default;
  kv_block_source(const kv_block_source&) = delete;
  kv_block_source& operator=(const kv_block_source&) = delete;
  virtual ~kv_block_source() = default;
  // Length of the block, 0 at the end, -1 on damage or once the budget is spent.
  virtual ssize_t next(const void** block) = 0;
};

// A source whose first bytes can be looked at before it is read.
class kv_peek_source : public kv_block_source {
 public:
  explicit kv_peek_source(std::unique_ptr<kv_block_source> upstream)
      : upstream_(std::move(upstream)) {}
  ssize_t next(const void** block) override;
  // The first bytes, as many as wanted or as there are; more than wanted at most by one block.
  [[nodiscard]] std::span<const std::uint8_t> peek(std::size_t wanted);

 private:
  std::unique_ptr<kv_block_source> upstream_;
  std::string kept_;
  ssize_t pending_ = 1;       // what the last read behind the kept bytes answered
  std::size_t replayed_ = 0;  // of the kept bytes
};

// False when no filter can take the object, judged by its first bytes: most objects need no search.
[[nodiscard]] bool kv_may_be_filtered(std::span<const std::uint8_t> object);

// What a gzip stream unpacks to; null when it does not begin as one.
[[nodiscard]] std::unique_ptr<kv_block_source> kv_gunzip(std::unique_ptr<kv_block_source> packed,
                                                         kv_archive_budget& budget);

// How taking the layers off ended.
enum class kv_filter_result { none, filtered, refused };

class kv_filter_chain {
 public:
  // Takes every layer off the object. filtered: source() gives what was inside. refused: a layer is
  // damaged, there are too many, or the budget is spent.
  [[nodiscard]] kv_filter_result open(std::span<const std::uint8_t> object,
                                      kv_archive_budget& budget);
  [[nodiscard]] kv_peek_source& source() { return *top_; }

 private:
  std::unique_ptr<kv_peek_source> top_;
};
