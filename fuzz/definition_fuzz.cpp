// A control service's answer to the request for a definition, loaded, applied to a job and flushed.
#include <string>

#include "support/service_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static service_fixture service;
  service.answer(std::string{reinterpret_cast<const char*>(data), size});
  const kv_scanobject_ptr job{kv_worker_new_scanobject()};
  static_cast<void>(kvactivecontent_extract_ac_parameters(&service.config, job.get(),
                                                          service.state(), "realm", "SID"));
  kvactivecontent_free_definitions(service.state(), "realm", nullptr, false);
  return service.state()->definitions.all().empty() ? 0 : (__builtin_trap(), 1);
}
