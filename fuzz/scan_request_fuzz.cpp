// A scan request from its JSON text to its reply. The input is the text, and behind a zero the
// object's bytes; every switch is on.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/kv_json.h"
#include "support/service_fixture.h"

namespace {

service_fixture& s_service() {
  static service_fixture service;
  service.answer_definition(R"([["EXECUTABLE",1],["FLASH",1],["GIFAR",1],["HTML_EVENTHANDLER",1],
    ["HTML_SCRIPT",1],["MSOFFICE_JAVA",1],["MSOFFICE_OLE",1],["MSOFFICE_DDE",1],
    ["MSOFFICE_MACRO",1],["PDF_ACROFORM",1],["PDF_ACTIVEACTION",1],["PDF_JAVASCRIPT",1],
    ["PDF_LAUNCH",1],["PDF_OPENACTION",1],["PDF_RICHMEDIA",1],["SILVERLIGHT",1],
    ["ZIP_JAVA_ARCHIVE",1],["CSV_INJECTION",1]])");
  return service;
}

void s_require(bool held) {
  if (!held) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input{reinterpret_cast<const char*>(data), size};
  const std::string_view text = input.substr(0, input.find('\0'));
  const std::string_view bytes = input.substr(std::min(size, text.size() + 1));
  const kv_json_ptr request = kv_json_parse(text, __func__, "fuzz", __LINE__);
  if (!request) {
    return 0;
  }
  service_fixture& service = s_service();
  const kv_const_request_reply_ptr pair{kv_const_request_reply_new()};
  pair->request->data = bytes.data();
  pair->request->data_size = bytes.size();
  s_require(kv_worker_handle_scan_request(&service.config, pair.get(), request.get(),
                                          &service.thread) == 0);
  s_require(pair->reply->json != nullptr);
  const kv_json_ptr reply{json_tokener_parse(pair->reply->json)};
  s_require(json_object_object_get_ex(reply.get(), "ReturnCode", nullptr) != 0);
  kvactivecontent_free_definitions(service.state(), nullptr, nullptr, true);
  return 0;
}
