#include "messaging/kv_shm.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <numeric>

#include "support/trace_capture.h"

namespace {

bool segment_exists(int id) {
  shmid_ds status{};
  return shmctl(id, IPC_STAT, &status) == 0;
}

std::size_t segment_size(int id) {
  shmid_ds status{};
  return shmctl(id, IPC_STAT, &status) == 0 ? status.shm_segsz : 0;
}

unsigned segment_mode(int id) {
  shmid_ds status{};
  return shmctl(id, IPC_STAT, &status) == 0 ? status.shm_perm.mode & 0777U : 0;
}

}  // namespace

TEST(kv_shm, CreatesASegmentOfTheLengthReadableAndWritableByAll) {
  const int id = kvshm_create(5000, 7);
  ASSERT_GE(id, 0);
  EXPECT_EQ(segment_size(id), 5000u);
  EXPECT_EQ(segment_mode(id), 0666u);
  EXPECT_EQ(kvshm_delete(id), 0);
  EXPECT_FALSE(segment_exists(id));
}

TEST(kv_shm, LengthZeroMakesASegmentOfOneByte) {
  const int id = kvshm_create(0, 0);
  ASSERT_GE(id, 0);
  EXPECT_EQ(segment_size(id), 1u);
  EXPECT_EQ(kvshm_delete(id), 0);
}

TEST(kv_shm, AnImpossibleLengthFailsAfterTenAttempts) {
  const trace_capture trace;
  EXPECT_EQ(kvshm_create(UINT64_MAX / 2, 3), -1);
  EXPECT_EQ(trace.count("INFO", "Attempting to create shared memory segment of length"), 10);
  EXPECT_EQ(trace.count("WARN", " ... retrying"), 10);
  EXPECT_EQ(trace.count("and flags 3"), 10);
}

TEST(kv_shm, AttachMarksTheSegmentForRemoval) {
  const int id = kvshm_create(100, 0);
  ASSERT_GE(id, 0);
  void* address = kvshm_attach(id);
  ASSERT_NE(address, nullptr);
  std::memset(address, 'x', 100);
  EXPECT_TRUE(segment_exists(id)) << "kept while somebody is attached";
  EXPECT_EQ(kvshm_detach(id, address, "test"), 0);
  EXPECT_FALSE(segment_exists(id));
}

TEST(kv_shm, AttachingWhatDoesNotExistFailsTenTimesInAShortWhile) {
  const trace_capture trace;
  const int id = kvshm_create(1, 0);
  ASSERT_EQ(kvshm_delete(id), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kvshm_attach(id), nullptr);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(36));
  EXPECT_EQ(trace.count("ERROR", "Failed to attach to shared memory segment ID"), 10);
  EXPECT_EQ(trace.count("ERROR", "Failed to remove shared memory segment: "), 10);
  EXPECT_EQ(trace.count("DEBUG", "Retrying to attach shared memory after"), 9);
  EXPECT_EQ(trace.count("DEBUG", "Retrying to attach shared memory after 80 ms"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Exiting, rc= (nil)"), 1);
}

TEST(kv_shm, DetachingAForeignAddressIsReported) {
  const trace_capture trace;
  int local = 0;
  EXPECT_EQ(kvshm_detach(5, &local, "nobody"), -1);
  EXPECT_EQ(trace.count("DEBUG", "detaching shared memory segment ID 0x5 at"), 1);
  EXPECT_EQ(trace.count("DEBUG", " as nobody"), 1);
  EXPECT_EQ(trace.count("ERROR", "Failed to detach shared memory segment: "), 1);
}

TEST(kv_shm_segment, GivesTheBytesThatWereAskedFor) {
  const int id = kvshm_create(4096, 0);
  ASSERT_GE(id, 0);
  kv_shm_segment writer;
  ASSERT_TRUE(writer.attach(id, 4096, "writer"));
  std::iota(writer.bytes().begin(), writer.bytes().end(), std::uint8_t{0});
  kv_shm_segment reader;
  ASSERT_TRUE(reader.attach(id, 300, "reader"));
  EXPECT_EQ(reader.bytes().size(), 300u);
  EXPECT_EQ(reader.bytes()[255], 255);
  writer.detach();
  EXPECT_TRUE(segment_exists(id));
  reader.detach();
  EXPECT_FALSE(segment_exists(id));
}

TEST(kv_shm_segment, RefusesALengthBeyondTheSegmentAndLeavesNothingBehind) {
  const int id = kvshm_create(100, 0);
  ASSERT_GE(id, 0);
  kv_shm_segment segment;
  EXPECT_FALSE(segment.attach(id, 101, "test"));
  EXPECT_FALSE(segment.is_attached());
  EXPECT_FALSE(segment_exists(id));
}

TEST(kv_shm_segment, LengthZeroIsAttachedWithoutBytes) {
  const int id = kvshm_create(0, 0);
  ASSERT_GE(id, 0);
  kv_shm_segment segment;
  ASSERT_TRUE(segment.attach(id, 0, "test"));
  EXPECT_TRUE(segment.bytes().empty());
}

TEST(kv_shm_segment, MovesItsAttachment) {
  const int id = kvshm_create(10, 0);
  kv_shm_segment first;
  ASSERT_TRUE(first.attach(id, 10, "test"));
  kv_shm_segment second{std::move(first)};
  EXPECT_FALSE(first.is_attached());
  EXPECT_TRUE(second.is_attached());
  first = std::move(second);
  EXPECT_TRUE(first.is_attached());
}

TEST(kv_shm_segment, IsReadAcrossProcesses) {
  const int id = kvshm_create(6, 0);
  ASSERT_GE(id, 0);
  kv_shm_segment segment;
  ASSERT_TRUE(segment.attach(id, 6, "parent"));
  const pid_t child = fork();
  if (child == 0) {
    kv_shm_segment writer;
    if (!writer.attach(id, 6, "child")) {
      _exit(1);
    }
    std::memcpy(writer.bytes().data(), "hello", 6);
    writer.detach();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  EXPECT_STREQ(reinterpret_cast<const char*>(segment.bytes().data()), "hello");
}
