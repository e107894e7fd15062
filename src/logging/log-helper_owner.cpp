// Who holds the trace semaphore, and its repair after the holder died.
//
// A POSIX semaphore has no owner: one that was taken by a process that was killed stays at 0 for
// good. So the processes of one trace file share, beside the semaphore, one 64-bit word in shared
// memory ("own." before the semaphore's name): process id, start time of the process, and a
// sequence number that grows with every change. Only the holder of the semaphore writes it:
//
//   acquire: sem_timedwait succeeds, then word := (me, sequence + 1)
//   release: word (me, n) -> (nobody, n + 1) by compare-and-swap; who succeeds posts, once
//   repair:  word (dead, n) -> (nobody, n + 1) by compare-and-swap; who succeeds posts, once
//
// - A semaphore that is legitimately busy, however long (packing a large trace file), names a live
//   process and is never repaired. Start times tell a process from a later one with the same id.
// - Each change of the word from somebody to nobody is followed by exactly one post, whoever makes
//   it. Of several processes that want to repair one wins; the value becomes 1, never 2. The dead
//   process cannot post any more. Should a live holder be taken for dead (process ids of another
//   namespace over the same shared memory), its own release finds the word changed and does not
//   post: the number of posts stays right.
// - A process can die in the few instructions in which it has the semaphore but not yet, or no
//   longer, the word. The word then names nobody. That is repaired when the word did not change at
//   all over three time-outs in a row, at least ten seconds, in which nobody else took the
//   semaphore either. A process that was merely suspended in those instructions for so long is the
//   one case in which two can hold the semaphore; lines stay whole, since each is one appending
//   write, and an archive is never overwritten.
//
// A release that no acquisition of this process stands behind is none of this record's: the
// semaphore was taken past the log's lock function, and is posted like any other.
//
// Time-outs are counted per process in rounds: waits of several threads that overlap count once,
// and a wait that succeeds starts the count over.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "common/kv_time.h"
#include "common/kvsemaphore.h"
#include "logging/log-helper_internal.h"

namespace {

using owner_word = std::atomic<std::uint64_t>;
static_assert(owner_word::is_always_lock_free, "shared between processes");

constexpr int kRoundsBeforeRepair = 3;
constexpr mode_t kRecordMode = 0666;

// Layout of the word: sequence (18 bits), start time (24 bits), process id (22 bits; Linux has at
// most 2^22 processes).
constexpr int kPidBits = 22;
constexpr int kStartBits = 24;
constexpr std::uint64_t kPidMask = (1ULL << kPidBits) - 1;
constexpr std::uint64_t kStartMask = (1ULL << kStartBits) - 1;
constexpr std::uint64_t kProcessMask = (1ULL << (kPidBits + kStartBits)) - 1;

struct owner_state {
  std::atomic<owner_word*> word{nullptr};
  std::atomic<const sem_t*> semaphore{nullptr};
  std::atomic<int> held{0};  // acquisitions of this process that were not released yet
  std::mutex mutex;
  // Guarded by the mutex.
  int rounds = 0;                // time-outs in a row
  int unchanged_rounds = 0;      // of these, with the word as it was in the round before
  std::uint64_t last_word = 0;   // in the round before
  std::uint64_t last_round = 0;  // when that round ended
};
constinit owner_state O;

struct process_facts {
  bool gone;
  std::uint64_t start_ticks;
};

// Reads state, thread count and start time from /proc/PID/stat. False when that cannot be read.
bool s_read_process(std::uint64_t pid, process_facts& out) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%llu/stat", static_cast<unsigned long long>(pid));
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return false;
  }
  char text[1024];
  const ssize_t size = read(descriptor, text, sizeof text - 1);
  close(descriptor);
  if (size <= 0) {
    return false;
  }
  text[size] = '\0';
  // The name in parentheses may hold anything, so fields are counted from its last parenthesis.
  const char* const rest = std::strrchr(text, ')');
  char state = 0;
  long threads = 0;
  unsigned long long start = 0;
  if (rest == nullptr ||
      std::sscanf(rest + 1,
                  " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld %*s "
                  "%llu",
                  &state, &threads, &start) != 3) {
    return false;
  }
  // A zombie holds nothing any more, though its entry stays until the parent asks for it.
  out = {.gone = (state == 'Z' || state == 'X') && threads <= 1, .start_ticks = start};
  return true;
}

bool s_is_dead(std::uint64_t process) {
  const std::uint64_t pid = process & kPidMask;
  if (kill(static_cast<pid_t>(pid), 0) == -1 && errno == ESRCH) {
    return true;
  }
  process_facts facts{};
  if (!s_read_process(pid, facts)) {
    return false;  // it exists, and no more is known
  }
  return facts.gone || (facts.start_ticks & kStartMask) != process >> kPidBits;
}

// This process as the low bits of the word. The start time is read once, and again after a fork.
std::uint64_t s_this_process() {
  static constinit std::atomic<std::uint64_t> known{0};
  const auto pid = static_cast<std::uint64_t>(getpid());
  std::uint64_t process = known.load(std::memory_order_relaxed);
  if ((process & kPidMask) != pid) {
    process_facts facts{};
    process = pid;
    if (s_read_process(pid, facts)) {
      process |= (facts.start_ticks & kStartMask) << kPidBits;
    }
    known.store(process, std::memory_order_relaxed);
  }
  return process;
}

std::uint64_t s_next(std::uint64_t word, std::uint64_t process) {
  return (((word >> (kPidBits + kStartBits)) + 1) << (kPidBits + kStartBits)) | process;
}

owner_word* s_word_of(const sem_t* semaphore) {
  return O.semaphore.load(std::memory_order_acquire) == semaphore
             ? O.word.load(std::memory_order_acquire)
             : nullptr;
}

void s_forget_rounds() {
  const std::lock_guard guard(O.mutex);
  O.rounds = 0;
  O.unchanged_rounds = 0;
}

// Counts a wait that began at wait_start. False when it overlaps the round counted before.
bool s_count_round(std::uint64_t word, std::uint64_t wait_start) {
  if (O.rounds > 0 && wait_start < O.last_round) {
    return false;
  }
  O.unchanged_rounds = O.rounds > 0 && word == O.last_word ? O.unchanged_rounds + 1 : 1;
  ++O.rounds;
  O.last_word = word;
  O.last_round = kv_current_time_ms();
  return true;
}

bool s_may_repair(std::uint64_t word) {
  if (O.rounds < kRoundsBeforeRepair) {
    return false;
  }
  const std::uint64_t process = word & kProcessMask;
  return process == 0 ? O.unchanged_rounds >= kRoundsBeforeRepair : s_is_dead(process);
}

owner_word* s_map_record(const char* name) {
  const int descriptor = shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, kRecordMode);
  if (descriptor < 0) {
    return nullptr;
  }
  void* memory = MAP_FAILED;
  // Growing to the size it already has changes nothing, so every process may do it.
  if (ftruncate(descriptor, sizeof(owner_word)) == 0) {
    memory = mmap(nullptr, sizeof(owner_word), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  }
  close(descriptor);
  return memory == MAP_FAILED ? nullptr : static_cast<owner_word*>(memory);
}

}  // namespace

void kv_log_owner_open(const char* semaphore_name, sem_t* semaphore) {
  // Without the record (no shared memory) the log works as ever, only nothing is repaired.
  owner_word* const word = s_map_record((std::string("own.") + semaphore_name).c_str());
  s_forget_rounds();
  O.word.store(word, std::memory_order_release);
  O.semaphore.store(word == nullptr ? nullptr : semaphore, std::memory_order_release);
}

void kv_log_owner_close() {
  O.semaphore.store(nullptr, std::memory_order_release);
  owner_word* const word = O.word.exchange(nullptr);
  if (word != nullptr) {
    munmap(static_cast<void*>(word), sizeof(owner_word));
  }
}

void kv_log_owner_acquired(const sem_t* semaphore) {
  owner_word* const word = s_word_of(semaphore);
  if (word == nullptr) {
    return;
  }
  word->store(s_next(word->load(), s_this_process()));
  O.held.fetch_add(1);
  s_forget_rounds();
}

bool kv_log_owner_released(const sem_t* semaphore) {
  owner_word* const word = s_word_of(semaphore);
  if (word == nullptr || O.held.load() == 0) {
    return true;
  }
  O.held.fetch_sub(1);
  std::uint64_t held = word->load();
  return (held & kProcessMask) == s_this_process() &&
         word->compare_exchange_strong(held, s_next(held, 0));
}

bool kv_log_owner_timed_out(sem_t* semaphore, std::uint64_t wait_start_ms) {
  owner_word* const word = s_word_of(semaphore);
  if (word == nullptr) {
    return false;
  }
  const std::lock_guard guard(O.mutex);
  std::uint64_t seen = word->load();
  int value = 0;
  if (!s_count_round(seen, wait_start_ms) || !s_may_repair(seen) ||
      sem_getvalue(semaphore, &value) != 0 || value != 0 ||
      !word->compare_exchange_strong(seen, s_next(seen, 0))) {
    return false;
  }
  O.rounds = 0;
  O.unchanged_rounds = 0;
  return KVsem_post(semaphore) == 0;
}
