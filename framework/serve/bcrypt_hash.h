// Password hashes in the bcrypt format ("$2b$10$" + 22 characters of salt
// + 31 of hash; "$2a$" and "$2y$" are read alike), as htpasswd and the
// usual libraries make them. bcrypt costs 2^cost rounds of Blowfish's key
// schedule on purpose: at cost 10 a check takes tens of milliseconds, so
// callers keep checks off threads that must answer quickly. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace framework {

// The hash is a bcrypt hash this code can check; false with the reason.
bool IsBcryptHash(std::string_view hash, std::string* reason);

// The password hashes to `hash` (which IsBcryptHash accepts; false when it
// does not). Bytes past the 72nd of the password count for nothing, as in
// every bcrypt. The hash is compared in time that does not depend on where
// it differs.
bool BcryptMatches(std::string_view password, std::string_view hash);

// The bcrypt hash of the password with the salt and cost of `setting`
// (a hash, or its first 29 characters); "" when the setting is not one.
std::string BcryptHash(std::string_view password, std::string_view setting);

}  // namespace framework
