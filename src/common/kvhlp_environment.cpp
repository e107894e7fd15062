#include "common/kvhlp_environment.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/kvhlp-path-file-operations.h"
#include "common/kvhlp_network.h"
#include "logging/log-helper.h"

namespace {

constexpr const char* kLibraryName = "libkvAV";

// False when the text is cut.
bool s_copy(const char* text, char* out, std::size_t size) {
  const int length = std::snprintf(out, size, "%s", text);
  return length >= 0 && static_cast<std::size_t>(length) < size;
}

int s_fail(const std::string& reason, char* message, std::size_t message_size) {
  KV_LOG_AS(KV_LOG_LEVEL_ERROR, "HlpEvaluateVSA_LIB", "%s", reason.c_str());
  if (message != nullptr && message_size != 0) {
    static_cast<void>(s_copy(reason.c_str(), message, message_size));
  }
  return -1;
}

}  // namespace

int HlpGetSID(char* buffer, std::size_t length) {
  if (buffer == nullptr || length == 0) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  buffer[0] = '\0';
  const char* const system = std::getenv("SAPSYSTEMNAME");
  if (system != nullptr) {
    static_cast<void>(s_copy(system, buffer, length));
    return 1;
  }
  const char* const host = kvhlp_GetMyFQDN();
  if (host == nullptr) {
    return -1;
  }
  static_cast<void>(s_copy(host, buffer, length));
  return 0;
}

int HlpEvaluateVSA_LIB(char* directory, std::size_t size, char* message, std::size_t message_size) {
  if (directory == nullptr || size == 0) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  directory[0] = '\0';
  const char* const library = std::getenv("VSA_LIB");
  if (library == nullptr) {
    return s_fail("Could not read VSA_LIB environment variable", message, message_size);
  }
  const char* const name = strcasestr(library, kLibraryName);
  const std::string path = name == nullptr ? library : std::string(library, name);
  if (path.empty() || path.size() >= size) {
    return s_fail("VSA_LIB not set or invalid", message, message_size);
  }
  if (kvhlp_IsFile(path.c_str()) == 0) {
    return s_fail(path + " does not exist", message, message_size);
  }
  if (kvhlp_IsDir(path.c_str()) == 0) {
    return s_fail(path + " is not a valid directory", message, message_size);
  }
  static_cast<void>(s_copy(path.c_str(), directory, size));
  return 0;
}
