// The asking side of the end-to-end benchmark: keeps a number of requests in flight for some
// seconds, after a quarter of that time to warm up, and prints one JSON line.
// Usage: kv_bench_client PORT QUEUE REQUEST BYTES IN_FLIGHT SECONDS [CA]
// REQUEST is "least", a JSON text of 14 bytes, or "scan", a scan request of 2 KB with every key for
// an object that no detector looks at. The first reply must say "ReturnCode" 0.
#include <unistd.h>

#include <proton/connection.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unordered_map>

#include "bench_peer.h"
#include "common/kv_json.h"
#include "messaging/kv_qpid_body.h"
#include "scan_request.h"

namespace {

using bench_clock = std::chrono::steady_clock;

// Lists of a usual length make it 2 KB.
std::string s_scan_request(std::size_t bytes) {
  kv_scan::object_description object;
  object.name = "in/report.bin";
  object.size = bytes;
  object.mime = "application/octet-stream";
  object.type = "data";
  object.extension = ".bin";
  const kv_json_ptr request = kv_scan::make_request(object, {}, kv_scan::make_event_id());
  std::string list;
  while (list.size() < 450) {
    list += "application/x-type-" + std::to_string(list.size()) + ";";
  }
  for (const char* key : {"SCANMIMETYPES", "BLOCKMIMETYPES"}) {
    json_object_object_add(request.get(), key, json_object_new_string(list.c_str()));
  }
  return json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_SPACED);
}

bool s_clean(const proton::message& reply) {
  kv_body body;
  if (kv_body_decode(reply.body(), body) != kv_body_error::none) {
    return false;
  }
  std::int32_t code = -1;
  const kv_json_ptr parsed = kv_json_parse(body.json, __func__, "bench", __LINE__);
  return kv_json_get_int(parsed.get(), "ReturnCode", code) && code == 0;
}

class client : public proton::messaging_handler {
 public:
  explicit client(char** arguments)
      : port_(arguments[1]),
        queue_(arguments[2]),
        data_(std::strtoul(arguments[4], nullptr, 10), 'd'),
        json_(std::string_view(arguments[3]) == "scan" ? s_scan_request(data_.size())
                                                       : R"({"Command": 0})"),
        in_flight_(std::atoi(arguments[5])),
        length_(std::chrono::duration_cast<bench_clock::duration>(
            std::chrono::duration<double>(std::atof(arguments[6])))),
        ca_file_(arguments[7] != nullptr ? arguments[7] : ""),
        replies_("bench-replies-" + std::to_string(getpid())) {}

  int report() {
    if (latencies_.empty()) {
      std::puts("{\"requests\": 0}");
      return 1;
    }
    std::ranges::sort(latencies_);
    const double seconds = std::chrono::duration<double>(last_ - measured_from_).count();
    std::printf(
        "{\"requests\": %zu, \"all\": %zu, \"rps\": %.1f, \"p50_us\": %.1f, "
        "\"p99_us\": %.1f}\n",
        latencies_.size(), answered_, static_cast<double>(latencies_.size()) / seconds,
        latencies_[latencies_.size() / 2], latencies_[latencies_.size() * 99 / 100]);
    return 0;
  }

 private:
  void on_container_start(proton::container& container) override {
    container.connect(bench_url(port_), bench_options(ca_file_));
  }
  void on_connection_open(proton::connection& connection) override {
    connection.open_receiver(replies_, proton::receiver_options().credit_window(100));
    connection.open_sender("");
  }
  void on_sender_open(proton::sender& sender) override { link_ = bench_link(sender); }
  void on_sendable(proton::sender&) override {
    if (started_) {
      return;
    }
    started_ = true;
    measured_from_ = bench_clock::now() + length_ / 4;
    end_ = measured_from_ + length_;
    for (int i = 0; i < in_flight_; ++i) {
      ask();
    }
  }
  void ask() {
    proton::message request;
    request.id(++next_id_);
    request.to(queue_);
    request.reply_to(replies_);
    sent_[next_id_] = bench_clock::now();
    link_.send(kv_encode_message(request, json_, data_));
  }
  void on_message(proton::delivery& delivery, proton::message& reply) override {
    const auto now = bench_clock::now();
    const auto sent = sent_.find(proton::get<std::uint64_t>(reply.correlation_id()));
    if (sent == sent_.end()) {
      return;
    }
    if (answered_++ == 0 && !s_clean(reply)) {
      std::fprintf(stderr, "the service does not answer with code 0\n");
      std::exit(1);
    }
    if (sent->second >= measured_from_) {
      latencies_.push_back(std::chrono::duration<double, std::micro>(now - sent->second).count());
      last_ = now;
    }
    sent_.erase(sent);
    if (now < end_) {
      ask();
    } else if (sent_.empty()) {
      delivery.connection().close();
    }
  }

  std::string port_;
  std::string queue_;
  std::string data_;
  std::string json_;
  int in_flight_;
  bench_clock::duration length_;
  std::string ca_file_;
  std::string replies_;
  bench_link link_;
  bool started_ = false;
  std::uint64_t next_id_ = 0;
  std::size_t answered_ = 0;
  bench_clock::time_point measured_from_{};
  bench_clock::time_point end_{};
  bench_clock::time_point last_{};
  std::unordered_map<std::uint64_t, bench_clock::time_point> sent_;
  std::vector<double> latencies_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 7) {
    std::fprintf(stderr, "usage: %s PORT QUEUE least|scan BYTES IN_FLIGHT SECONDS [CA]\n", argv[0]);
    return 2;
  }
  client asking(argv);
  proton::container(asking).run();
  return asking.report();
}
