#include "common/kvhlp_network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "common/kv_time.h"
#include "support/trace_capture.h"

namespace {

// A socket bound to a free loopback port, listening or not.
class loopback_port {
 public:
  explicit loopback_port(bool listening) : descriptor_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    if (listening) {
      EXPECT_EQ(listen(descriptor_, 1), 0);
    }
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    text_ = std::to_string(ntohs(address.sin_port));
  }
  ~loopback_port() { close(descriptor_); }
  loopback_port(const loopback_port&) = delete;
  loopback_port& operator=(const loopback_port&) = delete;
  [[nodiscard]] const char* text() const { return text_.c_str(); }

 private:
  int descriptor_;
  std::string text_;
};

TEST(CheckConnect, ListeningPortAnswers) {
  const loopback_port port(true);
  const trace_capture trace;
  char error[KV_CONNECT_ERROR_SIZE] = "";
  EXPECT_EQ(kvhlp_CheckConnect("127.0.0.1", port.text(), error), 0);
  EXPECT_EQ(kvhlp_CheckConnect("localhost", port.text(), nullptr), 0);
  EXPECT_STREQ(error, "");
  const std::string end_point = std::string("127.0.0.1:") + port.text();
  EXPECT_EQ(trace.count("TRACE", "Checking connection to " + end_point), 1);
  EXPECT_EQ(trace.count("DEBUG", "Resolving localhost"), 1);
  EXPECT_EQ(trace.count("DEBUG", "Connection to " + end_point + " successful"), 1);
}

TEST(CheckConnect, ClosedPortIsRefusedInTime) {
  const loopback_port port(false);
  const trace_capture trace;
  char error[KV_CONNECT_ERROR_SIZE] = "";
  const std::uint64_t start = kv_current_time_ms();
  EXPECT_EQ(kvhlp_CheckConnect("127.0.0.1", port.text(), error), -2);
  EXPECT_LT(kv_elapsed_time_ms(start), 3500U);
  const std::string end_point = std::string("127.0.0.1:") + port.text();
  EXPECT_EQ(error, "Failed to connect to " + end_point);
  EXPECT_EQ(trace.count("WARN", "Failed to connect to " + end_point + ": Connection refused"), 1);
}

TEST(CheckConnect, PortThatIsNoneIsRefused) {
  for (const char* const port : {"", "x", "65536", "-1", "99999999999999999999"}) {
    char error[KV_CONNECT_ERROR_SIZE] = "";
    EXPECT_EQ(kvhlp_CheckConnect("127.0.0.1", port, error), -1) << port;
    EXPECT_STREQ(error, "Failed to convert port value to integer: Invalid argument");
  }
  EXPECT_EQ(kvhlp_CheckConnect(nullptr, "1", nullptr), -1);
}

TEST(CheckConnect, UnknownHostIsNotReached) {
  char error[KV_CONNECT_ERROR_SIZE] = "";
  EXPECT_EQ(kvhlp_CheckConnect("host..invalid", "5672", error), -2);
  EXPECT_STREQ(error, "Failed to connect to host..invalid:5672");
}

TEST(Network, ThisHostHasANameAndAnAddress) {
  char expected[256] = "";
  ASSERT_EQ(gethostname(expected, sizeof expected), 0);
  EXPECT_STREQ(kvhlp_GetMyFQDN(), expected);
  in_addr address{};
  EXPECT_EQ(inet_pton(AF_INET, kvhlp_GetMyIP(), &address), 1);
}

TEST(SplitUrl, PartsRowByRow) {
  struct {
    const char* url;
    const char *scheme, *host, *port, *path;
  } const rows[] = {
      {"amqps://broker:5671/queue", "amqps", "broker", "5671", "/queue"},
      {"amqp://broker", "amqp", "broker", "5672", "/"},
      {"amqp://broker/", "amqp", "broker", "5672", "/"},
      {"amqp://broker/a:b/c", "amqp", "broker", "5672", "/a:b/c"},
      {"amqp://broker:/x", "amqp", "broker", "5672", "/x"},
      {"amqp://broker:12x4/y", "amqp", "broker", "12", "/y"},
      {"broker:1234", "", "broker", "1234", "/"},
      {"http://a/b://c", "http", "a", "5672", "/b://c"},
  };
  for (const auto& row : rows) {
    const kvhlp_url_ptr url{kvhlp_url_new()};
    ASSERT_EQ(kvhlp_split_url(url.get(), row.url), 0) << row.url;
    EXPECT_STREQ(url->scheme, row.scheme) << row.url;
    EXPECT_STREQ(url->host, row.host) << row.url;
    EXPECT_STREQ(url->port, row.port) << row.url;
    EXPECT_STREQ(url->path, row.path) << row.url;
  }
}

TEST(SplitUrl, UrlWithoutHostLeavesTheRecordAsItWas) {
  const kvhlp_url_ptr url{kvhlp_url_new()};
  ASSERT_EQ(kvhlp_split_url(url.get(), "amqp://first"), 0);
  for (const char* const bad : {"", "amqp://", "amqp://:5672", "amqp:///x", ":5"}) {
    EXPECT_EQ(kvhlp_split_url(url.get(), bad), -1) << bad;
  }
  EXPECT_EQ(kvhlp_split_url(url.get(), nullptr), -1);
  EXPECT_EQ(kvhlp_split_url(nullptr, "amqp://x"), -1);
  EXPECT_STREQ(url->host, "first");
  ASSERT_EQ(kvhlp_split_url(url.get(), "amqp://second"), 0);
  EXPECT_STREQ(url->host, "second");
}

TEST(ParseUrlAuth, PartsRowByRow) {
  struct {
    const char* text;
    const char *user, *password, *host, *port;
  } const rows[] = {
      {"user:pass@proxy:8080", "user", "pass", "proxy", "8080"},
      {"user:p:a@s@proxy:8080", "user", "p:a@s", "proxy", "8080"},
      {"user@proxy", "user", "", "proxy", ""},
      {"proxy:8080", "", "", "proxy", "8080"},
      {"u:p@[::1]:8080", "u", "p", "[::1]", "8080"},
      {"u:p@[::1]", "u", "p", "[::1]", ""},
  };
  for (const auto& row : rows) {
    const kvhlp_url_auth_ptr parts{kvhlp_url_auth_new()};
    ASSERT_EQ(kvhlp_parse_url_auth(parts.get(), row.text), 0) << row.text;
    EXPECT_STREQ(parts->user, row.user) << row.text;
    EXPECT_STREQ(parts->password, row.password) << row.text;
    EXPECT_STREQ(parts->host, row.host) << row.text;
    EXPECT_STREQ(parts->port, row.port) << row.text;
  }
  const kvhlp_url_auth_ptr parts{kvhlp_url_auth_new()};
  EXPECT_EQ(kvhlp_parse_url_auth(parts.get(), "user:pass@"), -1);
  EXPECT_EQ(kvhlp_parse_url_auth(parts.get(), nullptr), -1);
}

TEST(UrlRecords, FreeClearsThePointerAndTakesNull) {
  kvhlp_url_t* url = kvhlp_url_new();
  kvhlp_url_free(&url);
  EXPECT_EQ(url, nullptr);
  kvhlp_url_free(&url);
  kvhlp_url_free(nullptr);
  kvhlp_url_auth_t* auth = kvhlp_url_auth_new();
  kvhlp_url_auth_free(&auth);
  EXPECT_EQ(auth, nullptr);
  kvhlp_url_auth_free(nullptr);
}

}  // namespace
