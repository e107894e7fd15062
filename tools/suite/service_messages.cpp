#include "service_messages.h"

#include <proton/binary.hpp>
#include <proton/codec/map.hpp>
#include <proton/codec/vector.hpp>
#include <proton/duration.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/value.hpp>

#include <exception>
#include <vector>

namespace kv_suite {
namespace {

// Decoding costs memory several times the message: no status message comes near this.
constexpr std::size_t kMaxRequest = std::size_t{16} << 20;

// An answer that its requester has not fetched by then is of no use to it.
constexpr std::uint32_t kReplyTtlMs = 60'000;

std::string s_text(const proton::value& value) {
  if (value.type() == proton::BINARY)
    return std::string(proton::get<proton::binary>(value));
  return proton::coerce<std::string>(value);
}

std::string s_json(const proton::value& body) {
  if (body.type() == proton::MAP) {
    std::map<std::string, proton::value> members;
    proton::get(body, members);
    return s_text(members["json"]);
  }
  if (body.type() == proton::LIST || body.type() == proton::ARRAY) {
    std::vector<proton::value> elements;
    proton::get(body, elements);
    return elements.empty() ? std::string() : s_text(elements.front());
  }
  return s_text(body);
}

service_reply s_reply(const proton::message& request, std::string json) {
  proton::message reply;
  reply.to(request.reply_to());
  reply.correlation_id(request.correlation_id().empty() ? request.id() : request.correlation_id());
  reply.id(request.id());
  reply.ttl(proton::duration(kReplyTtlMs));
  reply.body(std::vector<proton::value>{std::move(json)});
  const std::vector<char> bytes = reply.encode();
  return {reply.to(), {bytes.begin(), bytes.end()}};
}

}  // namespace

service_handler make_json_service(json_service service) {
  return [service = std::move(service)](std::string_view encoded) -> std::optional<service_reply> {
    if (encoded.size() > kMaxRequest)
      return std::nullopt;
    try {
      proton::message request;
      request.decode({encoded.begin(), encoded.end()});
      std::string json;
      try {
        json = s_json(request.body());
      } catch (const std::exception&) {
        // No text at all is answered like a text that is no JSON.
      }
      std::string answer = service(json);
      if (request.reply_to().empty())
        return std::nullopt;
      return s_reply(request, std::move(answer));
    } catch (const std::exception&) {
      return std::nullopt;
    }
  };
}

}  // namespace kv_suite
