// Pushes numbered records into a queue and prints the id of each that was acknowledged:
// queue_pusher PARENT NAME LABEL COUNT [PAUSE_US]. Records alternate between logs and events.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "logging/kv_log.h"
#include "logging/kv_pqueue.h"

namespace {

constexpr std::size_t kPadding = 300;

std::string s_record(const std::string& id) {
  return "{\"EventID\":\"" + id + "\",\"Padding\":\"" + std::string(kPadding, 'x') +
         "\",\"End\":\"" + id + "\"}";
}

// Unbuffered: what stands there was acknowledged, whatever becomes of this process.
bool s_tell(const std::string& id) {
  const std::string line = id + "\n";
  return write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: queue_pusher PARENT NAME LABEL COUNT [PAUSE_US]\n");
    return 2;
  }
  const kv_pqueue_ptr queue{kv_pqueue_open(argv[1], argv[2], KV_LOG_QUEUE_MAX_ENTRIES,
                                           KV_LOG_QUEUE_MAX_BYTES, O_CREAT, 1)};
  if (!queue) {
    std::fprintf(stderr, "no queue\n");
    return 2;
  }
  const long count = std::strtol(argv[4], nullptr, 10);
  const long pause_us = argc > 5 ? std::strtol(argv[5], nullptr, 10) : 0;
  int refused = 0;
  for (long number = 0; number < count; ++number) {
    const char type = number % 2 == 0 ? KV_PQUEUE_LOG : KV_PQUEUE_EVENT;
    const std::string id = type + (std::string("-") + argv[3]) + "-" + std::to_string(number);
    const std::string record = s_record(id);
    if (kv_pqueue_push(queue.get(), type, record.data(), record.size()) != 0) {
      ++refused;
    } else if (!s_tell(id)) {
      return 2;
    }
    usleep(static_cast<useconds_t>(pause_us));
  }
  return refused == 0 ? 0 : 1;
}
