// An encoded AMQP value of any kind as the body of a message: taken apart or refused.
#include <proton/error.hpp>
#include <proton/message.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "messaging/kv_qpid_body.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<char> bytes{'\x00', '\x53', '\x77'};  // the section that holds one value
  bytes.insert(bytes.end(), data, data + size);
  proton::message message;
  try {
    message.decode(bytes);
  } catch (const proton::error&) {
    return 0;
  }
  kv_body body;
  if (kv_body_decode(message.body(), body) != kv_body_error::none) {
    return 0;
  }
  // What was understood says the same when it is sent on.
  proton::message again;
  again.decode(kv_encode_message(proton::message(), body.json, body.data));
  kv_body copy;
  if (kv_body_decode(again.body(), copy) != kv_body_error::none || copy.json != body.json ||
      copy.data != body.data) {
    std::abort();
  }
  return 0;
}
