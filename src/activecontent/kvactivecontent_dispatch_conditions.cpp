#include "activecontent/kvactivecontent_dispatch_rows.h"

#include <algorithm>
#include <array>

namespace {

std::string_view s_view(const char* text) {
  return text == nullptr ? std::string_view{} : std::string_view{text};
}

// ASCII only: the texts are protocol names, and the process never sets a locale.
std::string s_lower_case(std::string_view text) {
  std::string folded{text};
  std::ranges::transform(folded, folded.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return folded;
}

// MIME types of Office packages, tested with regard to letter case.
constexpr std::array<std::string_view, 8> kPackageMimeParts{
    "openxmlformats", "vnd.ms-", "msword",   "msexcel",
    "mspowerpoint",   "ms-word", "ms-excel", "ms-powerpoint",
};

// The single-file XML formats of Office carry compound-file type texts of their own.
constexpr std::array<std::string_view, 4> kOfficeXmlTypes{
    "microsoft office xml",
    "microsoft office excel xml",
    "microsoft office word xml",
    "microsoft office powerpoint xml",
};

}  // namespace

object_kind::object_kind(const scanobject& job)
    : exact_mime(s_view(job.mime_type)),
      exact_type(s_view(job.file_type)),
      mime(s_lower_case(exact_mime)),
      type(s_lower_case(exact_type)),
      extension(s_lower_case(s_view(job.extension))) {}

bool dispatch_is_javascript_source(const object_kind& kind) {
  return kind.mime_has("application/javascript") || kind.type_has("javascript source");
}

bool dispatch_is_java_archive(const object_kind& kind) {
  return kind.mime_has("x-jar") || kind.mime_has("application/java-archive");
}

bool dispatch_is_flash(const object_kind& kind) {
  return kind.type_has("macromedia flash");
}

bool dispatch_is_silverlight(const object_kind& kind) {
  return kind.mime_has("application/x-silverlight");
}

bool dispatch_is_executable(const object_kind& kind) {
  return kind.type_has("executable") || kind.mime_has("portable-executable") ||
         kind.type_has("shared object") || kind.type_has("shared library") ||
         kind.mime_has("sharedlib");
}

bool dispatch_is_batch_file(const object_kind& kind) {
  return kind.extension == ".bat" && kind.mime_has("text/plain");
}

bool dispatch_is_msi(const object_kind& kind) {
  return kind.mime_has("application/x-msi") || kind.type_has("msi installer");
}

bool dispatch_is_markup(const object_kind& kind) {
  return kind.mime_has("html") || kind.mime_has("image/");
}

bool dispatch_is_pdf(const object_kind& kind) {
  return kind.mime_has("application/pdf");
}

bool dispatch_is_compound_office(const object_kind& kind) {
  const bool named =
      kind.type_has("composite document file v2 document") || kind.mime_has("application/msword") ||
      kind.mime_has("application/vnd.ms-excel") || kind.mime_has("application/vnd.ms-powerpoint");
  const bool xml = std::ranges::any_of(kOfficeXmlTypes,
                                       [&](std::string_view text) { return kind.type_has(text); });
  return named && !xml && kind.type_has("microsoft") && !kind.type_has("2007+");
}

bool dispatch_is_ooxml(const object_kind& kind) {
  const bool named = std::ranges::any_of(kPackageMimeParts, [&](std::string_view part) {
    return kind.exact_mime.find(part) != std::string_view::npos;
  });
  return named || (kind.type_has("microsoft") && kind.type_has("2007+"));
}

bool dispatch_is_delimited_text(const object_kind& kind) {
  return kind.mime_has("text/") && !kind.mime_has("html");
}

bool dispatch_is_anything(const object_kind&) {
  return true;
}
