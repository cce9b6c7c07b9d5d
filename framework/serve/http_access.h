// Who may use the endpoint: a bearer token and basic-auth users with
// bcrypt password hashes. A set of rules never changes once made; the
// endpoint swaps in a new set as a whole, so every request is judged by
// one set or the other, never by a mix.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "framework/serve/http_request.h"

namespace framework {

struct BasicCredentials {
  std::string user;
  std::string password;
};

// The credentials of an "Authorization: Basic <base64 of user:password>"
// header; nothing when the request carries none, or a broken one.
std::optional<BasicCredentials> BasicCredentialsOf(const HttpRequest& request);

// Compares in time that depends on neither text's content.
bool SameSecret(const std::string& a, const std::string& b);

class AccessRules {
 public:
  AccessRules(std::string token, std::map<std::string, std::string> users);

  const std::string& Token() const { return token_; }
  bool HasUsers() const { return !users_.empty(); }
  // Neither a token nor users: every request is let through.
  bool Open() const { return token_.empty() && users_.empty(); }

  // The request carries the token: in its Authorization header or, where a
  // browser cannot send that header (a GET), as ?access_token=.
  bool TokenCarried(const HttpRequest& request, bool header_only) const;

  // The credentials were verified before under these rules: cheap, for
  // the thread that must answer quickly. Any thread.
  bool VerifiedBefore(const BasicCredentials& credentials) const;
  // Checks the password against the user's bcrypt hash (an unknown user
  // costs the same time as a known one) and remembers a success. Slow by
  // design: tens of milliseconds at cost 10. Any thread.
  bool Verify(const BasicCredentials& credentials) const;

 private:
  const std::string token_;
  const std::map<std::string, std::string> users_;  // name -> bcrypt hash
  mutable std::mutex lock_;
  mutable std::map<std::string, std::string> verified_;  // name -> the password that matched
};

// The rules in force. Replace() and Current() may be called from any
// thread; a request is judged by the rules current when it arrived whole.
class HttpAccess {
 public:
  explicit HttpAccess(std::shared_ptr<const AccessRules> rules) : rules_(std::move(rules)) {}
  std::shared_ptr<const AccessRules> Current() const;
  void Replace(std::shared_ptr<const AccessRules> rules);

 private:
  mutable std::mutex lock_;
  std::shared_ptr<const AccessRules> rules_;
};

}  // namespace framework
