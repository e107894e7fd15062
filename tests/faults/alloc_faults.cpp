#include "support/alloc_faults.h"

#include <json-c/json.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

fault_point armed_point = fault_point::count;
int remaining = -1;
bool failed = false;

bool s_fails(fault_point point) {
  if (point != armed_point || remaining < 0) {
    return false;
  }
  failed = failed || remaining == 0;
  errno = ENOMEM;
  return remaining-- == 0;
}

}  // namespace

alloc_fault::alloc_fault(fault_point point, int after) {
  armed_point = point;
  remaining = after;
  failed = false;
}
alloc_fault::~alloc_fault() {
  armed_point = fault_point::count;
}
bool alloc_fault::happened() {
  return failed;
}

// The linker sends every call of NAME to __wrap_NAME, and __real_NAME to the function itself.
extern "C" {

void* __real__Znwm(std::size_t size);
void* __wrap__Znwm(std::size_t size) {
  if (s_fails(fault_point::operator_new)) {
    throw std::bad_alloc{};
  }
  return __real__Znwm(size);
}

void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
  return s_fails(fault_point::operator_new_nothrow) ? nullptr
                                                    : __real__ZnwmRKSt9nothrow_t(size, tag);
}

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text) {
  return s_fails(fault_point::duplicate) ? nullptr : __real_strdup(text);
}

char* __real_strndup(const char* text, std::size_t length);
char* __wrap_strndup(const char* text, std::size_t length) {
  return s_fails(fault_point::duplicate) ? nullptr : __real_strndup(text, length);
}

void* __real_calloc(std::size_t count, std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return s_fails(fault_point::zeroed) ? nullptr : __real_calloc(count, size);
}

void* __real_realloc(void* block, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size) {
  return s_fails(fault_point::grown) ? nullptr : __real_realloc(block, size);
}

json_object* __real_json_object_new_object();
json_object* __wrap_json_object_new_object() {
  return s_fails(fault_point::json_new_object) ? nullptr : __real_json_object_new_object();
}

json_object* __real_json_object_new_array_ext(int size);
json_object* __wrap_json_object_new_array_ext(int size) {
  return s_fails(fault_point::json_new_array) ? nullptr : __real_json_object_new_array_ext(size);
}

json_object* __real_json_object_new_string(const char* text);
json_object* __wrap_json_object_new_string(const char* text) {
  return s_fails(fault_point::json_new_string) ? nullptr : __real_json_object_new_string(text);
}

int __real_json_object_array_add(json_object* array, json_object* value);
int __wrap_json_object_array_add(json_object* array, json_object* value) {
  return s_fails(fault_point::json_array_add) ? -1 : __real_json_object_array_add(array, value);
}

int __real_json_object_object_add_ex(json_object* object, const char* key, json_object* value,
                                     unsigned options);
int __wrap_json_object_object_add_ex(json_object* object, const char* key, json_object* value,
                                     unsigned options) {
  return s_fails(fault_point::json_object_add)
             ? -1
             : __real_json_object_object_add_ex(object, key, value, options);
}

json_tokener* __real_json_tokener_new_ex(int depth);
json_tokener* __wrap_json_tokener_new_ex(int depth) {
  return s_fails(fault_point::json_new_tokener) ? nullptr : __real_json_tokener_new_ex(depth);
}

int __real_gethostname(char* name, std::size_t size);
int __wrap_gethostname(char* name, std::size_t size) {
  return s_fails(fault_point::host_name) ? -1 : __real_gethostname(name, size);
}

}  // extern "C"
