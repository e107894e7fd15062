#include "common/kvhlp_network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "common/KVstrerror.h"
#include "common/kv_time.h"
#include "logging/log-helper.h"

namespace {

constexpr std::uint32_t kConnectTimeoutMs = 3000;
constexpr std::size_t kHostNameSize = 2048;
constexpr long kHighestPort = 65535;

class socket_guard {
 public:
  socket_guard() : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}
  ~socket_guard() {
    if (descriptor_ >= 0) {
      close(descriptor_);
    }
  }
  socket_guard(const socket_guard&) = delete;
  socket_guard& operator=(const socket_guard&) = delete;
  [[nodiscard]] int get() const { return descriptor_; }

 private:
  int descriptor_;
};

using addrinfo_ptr = std::unique_ptr<addrinfo, kv_free_pointer<freeaddrinfo>>;
using ifaddrs_ptr = std::unique_ptr<ifaddrs, kv_free_pointer<freeifaddrs>>;

template <class... Arguments>
void s_set_error(char* error_out, const char* format, Arguments... arguments) {
  if (error_out != nullptr) {
    std::snprintf(error_out, KV_CONNECT_ERROR_SIZE, format, arguments...);
  }
}

// False, with errno EINVAL, for what is no port number.
bool s_parse_port(const char* text, long& port) {
  char* end = nullptr;
  errno = 0;
  port = std::strtol(text, &end, 10);
  if (end == text || errno != 0 || port < 0 || port > kHighestPort) {
    errno = EINVAL;
    return false;
  }
  return true;
}

// Empty on success, else why the host has no address.
std::string s_resolve(const char* host, in_addr& out) {
  KV_LOG_AS(KV_LOG_LEVEL_DEBUG, "kvhlp_CheckConnect", "Resolving %s", host);
  if (inet_pton(AF_INET, host, &out) == 1) {
    return {};
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host, nullptr, &hints, &found);
  const addrinfo_ptr addresses{found};
  if (error != 0 || !addresses) {
    return gai_strerror(error);
  }
  sockaddr_in address{};
  std::memcpy(&address, addresses->ai_addr, sizeof address);
  out = address.sin_addr;
  return {};
}

// 0, or the error number of the connection attempt.
int s_wait_until_connected(int descriptor) {
  const std::uint64_t start = kv_current_time_ms();
  pollfd waiting{.fd = descriptor, .events = POLLOUT, .revents = 0};
  int ready = 0;
  do {
    ready = poll(&waiting, 1, static_cast<int>(kv_remaining_time_ms(start, kConnectTimeoutMs)));
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) {
    return ready == 0 ? ETIMEDOUT : errno;
  }
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Empty on success, else why there is no connection.
std::string s_connect(int descriptor, const char* host, long port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  std::string reason = s_resolve(host, address.sin_addr);
  if (!reason.empty()) {
    return reason;
  }
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return {};
  }
  const int error = errno == EINPROGRESS ? s_wait_until_connected(descriptor) : errno;
  return error == 0 ? "" : KVstrerror(error);
}

kv_text_ptr s_copy(std::string_view text) {
  // An empty view may have no address at all, which strndup does not take.
  return kv_text_ptr{text.empty() ? strdup("") : strndup(text.data(), text.size())};
}

void s_replace(char*& member, kv_text_ptr& text) {
  const kv_text_ptr old{std::exchange(member, text.release())};
}

// All four or none: a record is never half of one URL and half of another.
bool s_replace_all(char*& a, std::string_view a_text, char*& b, std::string_view b_text, char*& c,
                   std::string_view c_text, char*& d, std::string_view d_text) {
  kv_text_ptr copies[] = {s_copy(a_text), s_copy(b_text), s_copy(c_text), s_copy(d_text)};
  for (const kv_text_ptr& copy : copies) {
    if (!copy) {
      return false;
    }
  }
  s_replace(a, copies[0]);
  s_replace(b, copies[1]);
  s_replace(c, copies[2]);
  s_replace(d, copies[3]);
  return true;
}  // NOLINT(clang-analyzer-unix.Malloc): each copy is owned here or by the record

// Where the host ends and the port's colon stands; a colon inside brackets belongs to the host.
std::size_t s_port_colon(std::string_view address) {
  const std::size_t colon = address.rfind(':');
  const std::size_t bracket = address.rfind(']');
  const bool inside =
      bracket != std::string_view::npos && colon != std::string_view::npos && colon < bracket;
  return inside ? std::string_view::npos : colon;
}

// What stands before and behind a position; nothing behind when there is no such position.
std::pair<std::string_view, std::string_view> s_split(std::string_view text, std::size_t at) {
  if (at == std::string_view::npos) {
    return {text, text.substr(text.size())};
  }
  return {text.substr(0, at), text.substr(at + 1)};
}

}  // namespace

kvhlp_url_t* kvhlp_url_new() {
  return static_cast<kvhlp_url_t*>(std::calloc(1, sizeof(kvhlp_url_t)));
}

void kvhlp_url_free(kvhlp_url_t** record) {
  if (record == nullptr || *record == nullptr) {
    return;
  }
  for (char* text : {(*record)->scheme, (*record)->host, (*record)->port, (*record)->path}) {
    std::free(text);
  }
  std::free(std::exchange(*record, nullptr));
}

kvhlp_url_auth_t* kvhlp_url_auth_new() {
  return static_cast<kvhlp_url_auth_t*>(std::calloc(1, sizeof(kvhlp_url_auth_t)));
}

void kvhlp_url_auth_free(kvhlp_url_auth_t** record) {
  if (record == nullptr || *record == nullptr) {
    return;
  }
  for (char* text : {(*record)->user, (*record)->password, (*record)->host, (*record)->port}) {
    std::free(text);
  }
  std::free(std::exchange(*record, nullptr));
}

int kvhlp_CheckConnect(const char* host, const char* port, char* error_out) {
  if (host == nullptr || port == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  KV_LOG_TRACE("Checking connection to %s:%s", host, port);
  long number = 0;
  if (!s_parse_port(port, number)) {
    s_set_error(error_out, "Failed to convert port value to integer: %s", KVstrerror(errno));
    return -1;
  }
  std::string reason;
  bool has_socket = false;
  {
    const socket_guard connection;
    has_socket = connection.get() >= 0;
    reason = has_socket ? s_connect(connection.get(), host, number) : KVstrerror(errno);
  }
  if (reason.empty()) {
    KV_LOG_DEBUG("Connection to %s:%s successful", host, port);
    return 0;
  }
  KV_LOG_WARN("Failed to connect to %s:%s: %s", host, port, reason.c_str());
  s_set_error(error_out, "Failed to connect to %s:%d", host, static_cast<int>(number));
  return has_socket ? -2 : -1;
}

const char* kvhlp_GetMyFQDN() {
  thread_local char name[kHostNameSize];
  if (gethostname(name, sizeof name) != 0) {
    KV_LOG_ERROR("Failed to get hostname");
    return nullptr;
  }
  name[sizeof name - 1] = '\0';
  return name;
}

const char* kvhlp_GetMyIP() {
  thread_local char text[INET_ADDRSTRLEN];
  std::snprintf(text, sizeof text, "%s", "127.0.0.1");
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    KV_LOG_ERROR("Failed to list network interfaces: %s", KVstrerror(errno));
    return text;
  }
  const ifaddrs_ptr interfaces{list};
  for (const ifaddrs* one = list; one != nullptr; one = one->ifa_next) {
    const bool usable = (one->ifa_flags & IFF_UP) != 0 && (one->ifa_flags & IFF_LOOPBACK) == 0;
    if (usable && one->ifa_addr != nullptr && one->ifa_addr->sa_family == AF_INET) {
      sockaddr_in address{};
      std::memcpy(&address, one->ifa_addr, sizeof address);
      inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
      break;
    }
  }
  return text;
}

int kvhlp_split_url(kvhlp_url_t* record, const char* url) {
  if (record == nullptr || url == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  const std::string_view text(url);
  const std::size_t mark = text.find("://");
  const bool has_scheme = mark != std::string_view::npos;
  const std::string_view scheme = has_scheme ? text.substr(0, mark) : std::string_view{};
  const std::string_view address = has_scheme ? text.substr(mark + 3) : text;
  const std::string_view host = address.substr(0, address.find_first_of(":/"));
  if (host.empty()) {
    return -1;
  }
  const std::string_view rest = address.substr(host.size());
  const std::size_t slash = rest.find('/');
  const std::string_view path = slash == std::string_view::npos ? "/" : rest.substr(slash);
  std::string_view port = rest.starts_with(':') ? rest.substr(1) : std::string_view{};
  port = port.substr(0, port.find_first_not_of("0123456789"));
  return s_replace_all(record->scheme, scheme, record->host, host, record->port,
                       port.empty() ? "5672" : port, record->path, path)
             ? 0
             : -1;
}

int kvhlp_parse_url_auth(kvhlp_url_auth_t* record, const char* text) {
  if (record == nullptr || text == nullptr) {
    KV_LOG_ERROR("Got NULL pointer");
    return -1;
  }
  const std::string_view whole(text);
  const std::size_t at = whole.rfind('@');
  const std::string_view account = at == std::string_view::npos ? "" : whole.substr(0, at);
  const std::string_view address = at == std::string_view::npos ? whole : whole.substr(at + 1);
  const auto [user, password] = s_split(account, account.find(':'));
  const auto [host, port] = s_split(address, s_port_colon(address));
  if (host.empty()) {
    return -1;
  }
  return s_replace_all(record->user, user, record->password, password, record->host, host,
                       record->port, port)
             ? 0
             : -1;
}
