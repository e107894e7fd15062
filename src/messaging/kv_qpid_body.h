#pragma once
// A message's body between AMQP and this process. Sent: an AMQP list of strings, element 0 the JSON
// text, element 1 (only when there is data) the bytes of the data. Received: such a list or array,
// whose element 1 may also be binary or null, or a map with the keys "json" and "data". Pure
// functions without locks or log lines; foreign bytes never make them fail other than by their
// result.

#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/value.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A body taken apart. An absent and an empty data element are the same.
struct kv_body {
  std::string json;
  std::string data;
};

enum class kv_body_error {
  none,
  empty_message,    // no body, or no elements
  empty_json,       // element 0 holds no text
  wrong_json_type,  // body of another form, or element 0 is no string
  wrong_data_type,  // element 1 is neither string nor binary nor null
};

// Takes a received body apart; copies each element once.
[[nodiscard]] kv_body_error kv_body_decode(const proton::value& body, kv_body& out);

// The service side's text for a body that cannot be taken apart.
[[nodiscard]] const char* kv_body_error_text(kv_body_error error);

// The wire form of a message that has no body yet, with the JSON text and the data as its body. The
// bytes are copied once: the library would copy them three times, and moves a whole buffer byte by
// byte when it grows at the wrong moment. Throws std::length_error for more than 4 GB.
[[nodiscard]] std::vector<char> kv_encode_message(const proton::message& head,
                                                  std::string_view json, std::string_view data);

// The same text for equal ids of a message, different ones for different ids; empty for no id.
[[nodiscard]] std::string kv_message_id_key(const proton::message_id& id);

// A random UUID from the system's generator of random numbers.
[[nodiscard]] proton::message_id kv_new_message_id();
