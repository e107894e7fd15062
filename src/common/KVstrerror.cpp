#include "common/KVstrerror.h"

#include <cstdio>
#include <cstring>

const char* KVstrerror(int error) {
  thread_local char text[1024];
  char buffer[sizeof text];
  // The form of strerror that takes a buffer: the plain one is not safe with other threads.
  std::snprintf(text, sizeof text, "%s", strerror_r(error, buffer, sizeof buffer));
  return text;
}
