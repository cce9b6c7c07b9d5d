#include "framework/serve/http_access.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>

#include "framework/serve/bcrypt_hash.h"

namespace framework {
namespace {

// Standard base64, padding optional; false on anything else.
bool DecodeBase64(const std::string& text, std::string* out) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  uint32_t bits = 0;
  int held = 0;
  size_t end = text.size();
  while (end > 0 && text[end - 1] == '=' && text.size() - end < 2) --end;
  for (size_t i = 0; i < end; ++i) {
    const char* at = text[i] != '\0' ? std::strchr(kAlphabet, text[i]) : nullptr;
    if (at == nullptr) return false;
    bits = (bits << 6) | static_cast<uint32_t>(at - kAlphabet);
    held += 6;
    if (held >= 8) {
      held -= 8;
      out->push_back(static_cast<char>((bits >> held) & 0xff));
    }
  }
  return held < 6;
}

}  // namespace

std::optional<BasicCredentials> BasicCredentialsOf(const HttpRequest& request) {
  const std::string header = request.Header("Authorization");
  std::string scheme = header.substr(0, 6);
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (scheme != "basic ") return std::nullopt;
  const size_t start = std::min(header.find_first_not_of(' ', 6), header.size());
  std::string decoded;
  if (!DecodeBase64(header.substr(start), &decoded)) return std::nullopt;
  const size_t colon = decoded.find(':');
  if (colon == std::string::npos) return std::nullopt;
  return BasicCredentials{decoded.substr(0, colon), decoded.substr(colon + 1)};
}

bool SameSecret(const std::string& a, const std::string& b) {
  const size_t size = std::max(a.size(), b.size());
  unsigned char difference = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < size; ++i)
    difference |= static_cast<unsigned char>((i < a.size() ? a[i] : 0) ^ (i < b.size() ? b[i] : 0));
  return difference == 0;
}

AccessRules::AccessRules(std::string token, std::map<std::string, std::string> users)
    : token_(std::move(token)), users_(std::move(users)) {}

bool AccessRules::TokenCarried(const HttpRequest& request, bool header_only) const {
  if (token_.empty()) return false;
  // The token must match exactly: not with blanks after it either.
  const std::string header = request.Header("Authorization");
  if (header.rfind("Bearer ", 0) == 0 && SameSecret(header.substr(7), token_)) return true;
  // A token in the address ends up in logs and histories; it is taken only
  // where a browser cannot send the header (reading pages and streams).
  return !header_only && (request.method == "GET" || request.method == "HEAD") &&
         request.HasParam("access_token") && SameSecret(request.Param("access_token"), token_);
}

bool AccessRules::VerifiedBefore(const BasicCredentials& credentials) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = verified_.find(credentials.user);
  return it != verified_.end() && SameSecret(it->second, credentials.password);
}

bool AccessRules::Verify(const BasicCredentials& credentials) const {
  if (users_.empty()) return false;
  const auto user = users_.find(credentials.user);
  // An unknown name is checked against a known user's hash, so that the
  // time taken does not tell which names exist.
  const std::string& hash = user != users_.end() ? user->second : users_.begin()->second;
  const bool matches = BcryptMatches(credentials.password, hash) && user != users_.end();
  if (matches) {
    std::lock_guard<std::mutex> guard(lock_);
    verified_[credentials.user] = credentials.password;
  }
  return matches;
}

std::shared_ptr<const AccessRules> HttpAccess::Current() const {
  std::lock_guard<std::mutex> guard(lock_);
  return rules_;
}

void HttpAccess::Replace(std::shared_ptr<const AccessRules> rules) {
  std::lock_guard<std::mutex> guard(lock_);
  rules_ = std::move(rules);
}

}  // namespace framework
