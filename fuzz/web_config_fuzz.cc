// Web configuration files as anyone may write them: the parser accepts
// only users whose hashes are bcrypt hashes and TLS settings with both
// files, and every refusal names the file and a line.
#include <cstdint>
#include <string>
#include <string_view>

#include "framework/serve/bcrypt_hash.h"
#include "framework/serve/web_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto config = framework::ParseWebConfig(text, "/etc/kzq/web.yml", &error);
  if (!config) {
    if (error.rfind("/etc/kzq/web.yml:", 0) != 0 || error.size() < 20) __builtin_trap();
    return 0;
  }
  for (const auto& [user, hash] : config->users) {
    std::string reason;
    if (user.empty() || user.find(':') != std::string::npos || !framework::IsBcryptHash(hash, &reason))
      __builtin_trap();
  }
  if (config->tls && (config->tls->cert_file.empty() || config->tls->key_file.empty())) __builtin_trap();
  return 0;
}
