#include "framework/serve/http_settings.h"

#include <cstdlib>

#include "platform/environment.h"

namespace framework {
namespace {

bool ParsePort(const std::string& text, int* port) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *port = atoi(text.c_str());
  return *port <= 65535;
}

}  // namespace

bool IsLoopbackHost(const std::string& host) {
  return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

bool ParseListen(const std::string& text, HttpSettings* settings, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    *error = "KZQ_HTTP_LISTEN='" + text + "' is not host:port";
    return false;
  }
  std::string host = text.substr(0, colon);
  if (host.front() == '[') {
    if (host.back() != ']' || host.size() < 3) {
      *error = "KZQ_HTTP_LISTEN='" + text + "' has an unclosed [IPv6 address]";
      return false;
    }
    host = host.substr(1, host.size() - 2);
  }
  if (!ParsePort(text.substr(colon + 1), &settings->port)) {
    *error = "KZQ_HTTP_LISTEN='" + text + "' has no port from 0 to 65535";
    return false;
  }
  settings->host = host;
  return true;
}

std::optional<HttpSettings> ReadHttpSettings(std::string* error) {
  HttpSettings settings;
  const std::string listen = platform::GetEnv("KZQ_HTTP_LISTEN").value_or("");
  if (listen == "off") {
    settings.enabled = false;
  } else if (!ParseListen(listen.empty() ? kDefaultListen : listen, &settings, error)) {
    return std::nullopt;
  }
  settings.token = platform::GetEnv("KZQ_HTTP_TOKEN").value_or("");
  settings.web_config_path = platform::GetEnv("KZQ_WEB_CONFIG").value_or("");
  if (!settings.web_config_path.empty()) {
    auto web = ReadWebConfig(settings.web_config_path, error);
    if (!web) {
      *error = "KZQ_WEB_CONFIG: " + *error;
      return std::nullopt;
    }
    settings.web = std::move(*web);
  }
  const std::string interval = platform::GetEnv("KZQ_SAMPLE_INTERVAL").value_or("");
  if (!interval.empty()) {
    char* end = nullptr;
    const long seconds = strtol(interval.c_str(), &end, 10);
    if (*end != '\0' || seconds < 1 || seconds > 86400) {
      *error = "KZQ_SAMPLE_INTERVAL='" + interval + "' is not a number of seconds from 1 to 86400";
      return std::nullopt;
    }
    settings.sample_interval = static_cast<int>(seconds);
  }
  const std::string raw = platform::GetEnv("KZQ_METRICS_RAW").value_or("");
  if (raw != "" && raw != "0" && raw != "1") {
    *error = "KZQ_METRICS_RAW='" + raw + "' is neither 0 nor 1";
    return std::nullopt;
  }
  settings.raw_metrics = raw == "1";
  // Anyone who reaches a non-loopback address could read every table and
  // run commands on the database host.
  if (settings.enabled && settings.token.empty() && settings.web.users.empty() && !IsLoopbackHost(settings.host)) {
    *error = "refusing to listen on " + settings.host +
             " without KZQ_HTTP_TOKEN: set a token or basic_auth_users in KZQ_WEB_CONFIG, or listen on a loopback "
             "address";
    return std::nullopt;
  }
  return settings;
}

}  // namespace framework
