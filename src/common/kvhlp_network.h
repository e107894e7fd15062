#pragma once
// Who this host is, whether another one answers, and the parts of an address text. Any thread; a
// static buffer belongs to the calling thread and holds until its next call.

#include <memory>

#include "common/kv_guard.h"

// Size of the buffer for an error text.
inline constexpr int KV_CONNECT_ERROR_SIZE = 1024;

// Parts of "scheme://host:port/path". Texts are owned by the record.
struct kvhlp_url_t {
  char* scheme;
  char* host;
  char* port;
  char* path;
};

// Parts of "user:password@host:port". Texts are owned by the record; a missing part is empty.
struct kvhlp_url_auth_t {
  char* user;
  char* password;
  char* host;
  char* port;
};

[[nodiscard]] kvhlp_url_t* kvhlp_url_new();
void kvhlp_url_free(kvhlp_url_t** record);
using kvhlp_url_ptr = std::unique_ptr<kvhlp_url_t, kv_free_address<kvhlp_url_free>>;

[[nodiscard]] kvhlp_url_auth_t* kvhlp_url_auth_new();
void kvhlp_url_auth_free(kvhlp_url_auth_t** record);
using kvhlp_url_auth_ptr = std::unique_ptr<kvhlp_url_auth_t, kv_free_address<kvhlp_url_auth_free>>;

// Connects over IPv4 within 3 seconds and closes again. 0 when that works; -2 when the host does
// not answer and -1 for a bad port or no socket, with the reason in error_out (1024 bytes, may be
// null).
[[nodiscard]] int kvhlp_CheckConnect(const char* host, const char* port, char* error_out);

// The host name, in a static buffer, or null.
[[nodiscard]] const char* kvhlp_GetMyFQDN();

// The IPv4 address of the first interface that is up and not the loopback, else "127.0.0.1", in a
// static buffer.
[[nodiscard]] const char* kvhlp_GetMyIP();

// Takes a URL apart. The scheme is empty where there is no "://"; the port is "5672" and the path
// "/" where the URL has none. 0, or -1 for a null URL, one without a host, or no memory; the record
// is then as it was.
[[nodiscard]] int kvhlp_split_url(kvhlp_url_t* record, const char* url);

// Takes a text "user:password@host:port" apart: the last "@" ends the password, the first ":"
// before it the user, the last ":" behind it the host (an address in brackets keeps its colons). 0,
// or -1 as above.
[[nodiscard]] int kvhlp_parse_url_auth(kvhlp_url_auth_t* record, const char* text);
