#include "messaging/kv_qpid_body.h"

#include <proton/codec.h>
#include <sodium.h>
#include <proton/codec/decoder.hpp>
#include <proton/uuid.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

namespace {

// The C++ binding copies every element into a value of its own; this opens its data to the C
// functions, which give views.
struct s_reader : proton::codec::decoder {
  explicit s_reader(const proton::value& value) : decoder(value) {}
  [[nodiscard]] pn_data_t* data() const { return pn_object(); }
};
std::string_view s_view(pn_bytes_t bytes) {
  return bytes.start == nullptr ? std::string_view{} : std::string_view{bytes.start, bytes.size};
}

kv_body_error s_take_json(pn_data_t* data, kv_body& out) {
  if (pn_data_type(data) != PN_STRING) {
    return kv_body_error::wrong_json_type;
  }
  out.json = s_view(pn_data_get_string(data));
  return out.json.empty() ? kv_body_error::empty_json : kv_body_error::none;
}

kv_body_error s_take_data(pn_data_t* data, kv_body& out) {
  switch (pn_data_type(data)) {
    case PN_STRING:
      out.data = s_view(pn_data_get_string(data));
      return kv_body_error::none;
    case PN_BINARY:
      out.data = s_view(pn_data_get_binary(data));
      return kv_body_error::none;
    case PN_NULL:
      return kv_body_error::none;
    default:
      return kv_body_error::wrong_data_type;
  }
}

// The elements of the list or array that the reader has entered.
kv_body_error s_take_sequence(pn_data_t* data, kv_body& out) {
  if (!pn_data_next(data)) {
    return kv_body_error::empty_message;
  }
  const kv_body_error error = s_take_json(data, out);
  if (error != kv_body_error::none || !pn_data_next(data)) {
    return error;
  }
  return s_take_data(data, out);
}

std::string_view s_map_key(pn_data_t* data) {
  switch (pn_data_type(data)) {
    case PN_STRING:
      return s_view(pn_data_get_string(data));
    case PN_SYMBOL:
      return s_view(pn_data_get_symbol(data));
    default:
      return {};
  }
}

// The entries of the map that the reader has entered; keys of no meaning here are skipped.
kv_body_error s_take_map(pn_data_t* data, kv_body& out) {
  kv_body_error found = kv_body_error::empty_message;
  while (pn_data_next(data)) {
    const std::string_view key = s_map_key(data);
    if (!pn_data_next(data)) {
      break;
    }
    if (key == "json") {
      found = s_take_json(data, out);
      if (found != kv_body_error::none) {
        return found;
      }
    } else if (key == "data" && s_take_data(data, out) != kv_body_error::none) {
      return kv_body_error::wrong_data_type;
    }
  }
  return found;
}

kv_body_error s_take_array(pn_data_t* data, kv_body& out) {
  const bool described = pn_data_is_array_described(data);
  pn_data_enter(data);
  if (described) {
    pn_data_next(data);  // the descriptor stands before the elements
  }
  return s_take_sequence(data, out);
}

constexpr std::uint64_t kNumberSize = 4;
constexpr std::uint64_t kBodyRoom = 12;  // section and list before the elements

constexpr std::uint64_t s_string_size(std::string_view text) {
  return 1 + kNumberSize + text.size();
}

void s_put_number(std::vector<char>& bytes, std::uint64_t number) {
  if (number > std::numeric_limits<std::uint32_t>::max()) {
    throw std::length_error("Message too long");
  }
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<char>(number >> shift));
  }
}

// AMQP 1.0, 1.6.20: str32-utf8.
void s_put_string(std::vector<char>& bytes, std::string_view text) {
  bytes.push_back('\xb1');
  s_put_number(bytes, text.size());
  bytes.insert(bytes.end(), text.begin(), text.end());
}

// Fetched for many ids at once: each fetch is a system call. No byte is given out twice.
void s_random_bytes(std::uint8_t* out, std::size_t count) {
  thread_local std::array<std::uint8_t, 1024> pool;
  thread_local std::size_t left = 0;
  if (left < count) {
    randombytes_buf(pool.data(), pool.size());
    left = pool.size();
  }
  left -= count;
  std::copy_n(pool.data() + left, count, out);
}

}  // namespace

kv_body_error kv_body_decode(const proton::value& body, kv_body& out) {
  if (body.empty()) {
    return kv_body_error::empty_message;
  }
  const s_reader reader(body);
  pn_data_t* data = reader.data();
  pn_data_rewind(data);
  if (!pn_data_next(data)) {
    return kv_body_error::empty_message;
  }
  switch (pn_data_type(data)) {
    case PN_NULL:
      return kv_body_error::empty_message;
    case PN_LIST:
      pn_data_enter(data);
      return s_take_sequence(data, out);
    case PN_ARRAY:
      return s_take_array(data, out);
    case PN_MAP:
      pn_data_enter(data);
      return s_take_map(data, out);
    default:
      return kv_body_error::wrong_json_type;
  }
}

const char* kv_body_error_text(kv_body_error error) {
  switch (error) {
    case kv_body_error::none:
      return "";
    case kv_body_error::empty_message:
      return "Empty message";
    case kv_body_error::empty_json:
      return "Empty json in message";
    case kv_body_error::wrong_json_type:
      return "Invalid data type in message";
    case kv_body_error::wrong_data_type:
      return "Invalid data type in message (element 1)";
  }
  return "";
}

std::vector<char> kv_encode_message(const proton::message& head, std::string_view json,
                                    std::string_view data) {
  std::vector<char> bytes = head.encode();
  constexpr std::string_view kNullBody("\x00\x53\x77\x40", 4);
  if (std::string_view(bytes.data(), bytes.size()).ends_with(kNullBody)) {
    bytes.resize(bytes.size() - kNullBody.size());
  }
  const std::uint64_t count = data.empty() ? 1 : 2;
  const std::uint64_t size = s_string_size(json) + (data.empty() ? 0 : s_string_size(data));
  bytes.reserve(bytes.size() + kBodyRoom + size);
  // AMQP 1.0, 3.2.8 (amqp-value) and 1.6.23 (list32): the size counts what follows it.
  bytes.insert(bytes.end(), {'\x00', '\x53', '\x77', '\xd0'});
  s_put_number(bytes, size + kNumberSize);
  s_put_number(bytes, count);
  s_put_string(bytes, json);
  if (!data.empty()) {
    s_put_string(bytes, data);
  }
  return bytes;
}

std::string kv_message_id_key(const proton::message_id& id) {
  if (id.empty()) {
    return {};
  }
  std::string key(1, static_cast<char>(id.type()));
  if (id.type() == proton::UUID) {
    const auto uuid = proton::get<proton::uuid>(id);
    key.append(reinterpret_cast<const char*>(uuid.begin()), uuid.size());
    return key;
  }
  return key + proton::to_string(id);
}

proton::message_id kv_new_message_id() {
  proton::uuid uuid;
  s_random_bytes(uuid.begin(), uuid.size());
  // Version 4, variant 1 (RFC 4122, section 4.4).
  uuid[6] = static_cast<std::uint8_t>((uuid[6] & 0x0F) | 0x40);
  uuid[8] = static_cast<std::uint8_t>((uuid[8] & 0x3F) | 0x80);
  return uuid;
}
