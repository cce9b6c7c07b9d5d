// The endpoint's settings from the environment: where it listens, the
// bearer token, the web configuration file (basic-auth users, TLS), how often the scheduler samples every table, and whether
// /metrics also carries the raw per-table gauges.
#pragma once

#include <optional>
#include <string>

#include "framework/serve/web_config.h"

namespace framework {

inline constexpr const char* kDefaultListen = "127.0.0.1:19433";
inline constexpr int kDefaultSampleInterval = 30;  // seconds

struct HttpSettings {
  bool enabled = true;  // KZQ_HTTP_LISTEN=off turns the endpoint off
  std::string host = "127.0.0.1";
  int port = 19433;  // 0: any free port, told on standard output
  std::string token;
  std::string web_config_path;  // KZQ_WEB_CONFIG; empty: none
  WebConfig web;                // what that file says
  int sample_interval = kDefaultSampleInterval;
  bool raw_metrics = false;  // KZQ_METRICS_RAW=1
};

// Reads KZQ_HTTP_LISTEN (host:port, [v6]:port or off), KZQ_HTTP_TOKEN,
// KZQ_WEB_CONFIG, KZQ_SAMPLE_INTERVAL and KZQ_METRICS_RAW (0 or 1). A
// setting that cannot be used, or a non-loopback address that neither a
// token nor basic-auth users guard, gives std::nullopt and a one-line reason.
std::optional<HttpSettings> ReadHttpSettings(std::string* error);

// Parses "host:port" / "[v6]:port" into *settings; false with a reason.
bool ParseListen(const std::string& text, HttpSettings* settings, std::string* error);

bool IsLoopbackHost(const std::string& host);

}  // namespace framework
