#pragma once
// What one walk through an archive may cost: the time that its scan has left and the bytes that it
// may unpack. Unpacked bytes are bounded by what the best common compression gains on an object of
// that size, so that no small object makes a worker unpack without end. Belongs to one walk and its
// thread.

#include <algorithm>
#include <cstddef>
#include <cstdint>

// Where the time that is left comes from; without a function there is no limit.
struct kv_time_source {
  std::int64_t (*left_ms)(const void* context) = nullptr;  // 0 or less once it is spent
  const void* context = nullptr;
};

// Why a walk was cut short.
enum class kv_archive_cut { none, time, size };

class kv_archive_budget {
 public:
  // Deflate, the usual compression, gains at most this factor.
  static constexpr std::uint64_t kGain = 1032;
  // Small objects may unpack this much whatever their length.
  static constexpr std::uint64_t kAlwaysAllowed = std::uint64_t{64} << 20;

  kv_archive_budget(std::size_t object_length, kv_time_source time)
      : time_(time),
        limit_(std::max(kAlwaysAllowed, object_length * kGain)),
        allowance_(kAlwaysAllowed + std::uint64_t{3} * object_length) {}

  // Tested after each block and each header: false once the walk must end. unpacked is what one
  // source of bytes (a filter, or the members) has given so far.
  [[nodiscard]] bool allows(std::uint64_t unpacked) {
    if (cut_ == kv_archive_cut::none && unpacked > limit_) {
      cut_ = kv_archive_cut::size;
    }
    if (cut_ == kv_archive_cut::none && time_.left_ms != nullptr &&
        time_.left_ms(time_.context) <= 0) {
      cut_ = kv_archive_cut::time;
    }
    return cut_ == kv_archive_cut::none;
  }
  // The walk costs too much for another reason.
  void exhaust() { cut_ = cut_ == kv_archive_cut::none ? kv_archive_cut::size : cut_; }
  // What the library may hold in memory for the object, in bytes; also the steps that it may spend
  // on searches of its own whose cost grows with the square of what they search.
  [[nodiscard]] std::uint64_t allowance() const { return allowance_; }
  [[nodiscard]] kv_archive_cut cut() const { return cut_; }

 private:
  kv_time_source time_;
  std::uint64_t limit_;
  std::uint64_t allowance_;
  kv_archive_cut cut_ = kv_archive_cut::none;
};
