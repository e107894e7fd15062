#include "definitions_file.h"

#include <sys/stat.h>

#include <array>
#include <exception>
#include <stdexcept>
#include <string_view>

#include "file_helpers.h"

namespace kv_suite {
namespace {

constexpr const char* kAny = "*";

kv_json_ptr s_parse(const std::string& text) {
  const kv_json_tokener_ptr tokener{json_tokener_new()};
  kv_json_ptr root{
      json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1)};
  const json_tokener_error error = json_tokener_get_error(tokener.get());
  if (error != json_tokener_success)
    throw std::runtime_error(json_tokener_error_desc(error));
  return root;
}

// Every entry must have the form that it will be read in, so that a slip is noticed when the file
// is saved and not when a scan depends on it.
void s_check(json_object* root) {
  if (!json_object_is_type(root, json_type_object))
    throw std::runtime_error("no JSON object");
  json_object_object_foreach(root, realm, sids) {
    if (!json_object_is_type(sids, json_type_object)) {
      throw std::runtime_error(std::string("realm ") + realm + " is no object of SIDs");
    }
    json_object_object_foreach(sids, sid, switches) {
      if (!json_object_is_type(switches, json_type_object)) {
        throw std::runtime_error(std::string(realm) + "/" + sid + " is no object of switches");
      }
      json_object_object_foreach(switches, name, value) {
        if (!json_object_is_type(value, json_type_int)) {
          throw std::runtime_error(std::string("switch ") + name + " is no integer");
        }
      }
    }
  }
}

json_object* s_member(json_object* object, const std::string& key) {
  json_object* value = nullptr;
  json_object_object_get_ex(object, key.c_str(), &value);
  return value;
}

}  // namespace

definitions_file::definitions_file(std::string path, std::function<void(const std::string&)> note)
    : path_(std::move(path)), note_(std::move(note)) {
  refresh();
}

definitions_file::stamp definitions_file::stamp_of_file() const {
  struct stat status {};
  if (::stat(path_.c_str(), &status) != 0)
    return {};
  return {status.st_ino, status.st_size,
          std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

void definitions_file::refresh() {
  const stamp now = stamp_of_file();
  if (root_ && now == seen_)
    return;
  try {
    kv_json_ptr root = s_parse(read_file(path_));
    s_check(root.get());
    root_ = std::move(root);
    if (seen_ != stamp{})
      note_("definitions read anew from " + path_);
  } catch (const std::exception& failure) {
    if (now != seen_ || !root_) {
      note_("definitions in " + path_ + " cannot be used: " + failure.what());
    }
  }
  seen_ = now;
}

kv_json_ptr definitions_file::lookup(const std::string& realm, const std::string& sid) {
  refresh();
  kv_json_ptr list{json_object_new_array()};
  for (const std::string& realm_key : {realm, std::string(kAny)}) {
    json_object* sids = s_member(root_.get(), realm_key);
    for (const std::string& sid_key : {sid, std::string(kAny)}) {
      json_object* switches = s_member(sids, sid_key);
      if (switches == nullptr)
        continue;
      json_object_object_foreach(switches, name, value) {
        json_object* pair = json_object_new_array();
        json_object_array_add(pair, json_object_new_string(name));
        json_object_array_add(pair, json_object_new_int(json_object_get_int(value)));
        json_object_array_add(list.get(), pair);
      }
      return list;
    }
  }
  return list;
}

const char* example_definitions() {
  return R"({
  "*": {
    "*": {
      "EXECUTABLE": 1,
      "FLASH": 1,
      "GIFAR": 1,
      "HTML_EVENTHANDLER": 1,
      "HTML_SCRIPT": 1,
      "MSOFFICE_JAVA": 1,
      "MSOFFICE_OLE": 1,
      "MSOFFICE_DDE": 1,
      "MSOFFICE_MACRO": 1,
      "MSOFFICE_MACRO_SIGNED": 1,
      "PDF_ACROFORM": 1,
      "PDF_ACTIVEACTION": 1,
      "PDF_JAVASCRIPT": 1,
      "PDF_LAUNCH": 1,
      "PDF_OPENACTION": 1,
      "PDF_RICHMEDIA": 1,
      "PDF_METADATA_PERL": 1,
      "PDF_METADATA_PHP": 1,
      "SILVERLIGHT": 1,
      "ZIP_JAVA_ARCHIVE": 1,
      "XML_JAVASCRIPT": 0,
      "XML_XSLT": 0,
      "CSV_INJECTION": 1
    }
  }
}
)";
}

}  // namespace kv_suite
