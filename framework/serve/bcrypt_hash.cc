#include "framework/serve/bcrypt_hash.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace framework {
namespace {

constexpr size_t kSaltBytes = 16;
constexpr size_t kHashBytes = 23;  // of the 24 enciphered: bcrypt drops the last
constexpr size_t kSaltChars = 22;
constexpr size_t kHashChars = 31;
constexpr size_t kSettingChars = 7 + kSaltChars;  // "$2b$10$" and the salt
constexpr size_t kMaxKeyBytes = 72;
constexpr int kMinCost = 4;
constexpr int kMaxCost = 31;

// bcrypt's own base-64 alphabet: not the MIME one, and no padding.
constexpr char kAlphabet[] = "./ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

constexpr uint32_t kPiWords[] = {
#include "framework/serve/blowfish_pi_words.inc"
};
static_assert(sizeof kPiWords / sizeof kPiWords[0] == 18 + 4 * 256);

int SixBits(char c) {
  const char* at = std::strchr(kAlphabet, c);
  return c != '\0' && at != nullptr ? static_cast<int>(at - kAlphabet) : -1;
}

// Decodes `chars` characters into `size` bytes; false on a character
// outside the alphabet. The unused low bits of the last character are
// ignored, as every bcrypt does.
bool Decode(std::string_view text, uint8_t* bytes, size_t size) {
  uint32_t bits = 0;
  int held = 0;
  size_t out = 0;
  for (char c : text) {
    const int value = SixBits(c);
    if (value < 0) return false;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    held += 6;
    if (held >= 8 && out < size) {
      held -= 8;
      bytes[out++] = static_cast<uint8_t>(bits >> held);
    }
  }
  return out == size;
}

std::string Encode(const uint8_t* bytes, size_t size) {
  std::string text;
  uint32_t bits = 0;
  int held = 0;
  for (size_t i = 0; i < size; ++i) {
    bits = (bits << 8) | bytes[i];
    held += 8;
    while (held >= 6) {
      held -= 6;
      text += kAlphabet[(bits >> held) & 63];
    }
  }
  if (held > 0) text += kAlphabet[(bits << (6 - held)) & 63];
  return text;
}

struct Blowfish {
  std::array<uint32_t, 18> p;
  std::array<std::array<uint32_t, 256>, 4> s;

  Blowfish() {
    std::memcpy(p.data(), kPiWords, sizeof p);
    for (size_t box = 0; box < 4; ++box) std::memcpy(s[box].data(), kPiWords + 18 + 256 * box, sizeof s[box]);
  }

  uint32_t F(uint32_t x) const { return ((s[0][x >> 24] + s[1][(x >> 16) & 0xff]) ^ s[2][(x >> 8) & 0xff]) + s[3][x & 0xff]; }

  void Encipher(uint32_t* left, uint32_t* right) const {
    uint32_t l = *left, r = *right;
    for (int i = 0; i < 16; i += 2) {
      l ^= p[i];
      r ^= F(l);
      r ^= p[i + 1];
      l ^= F(r);
    }
    *left = r ^ p[17];
    *right = l ^ p[16];
  }

  // The key schedule with bcrypt's salt: the key is mixed into the
  // P-array, then every word of the state is replaced by enciphering the
  // previous output, with the salt (when given) mixed in.
  void Expand(const uint8_t* key, size_t key_size, const uint8_t* salt) {
    size_t at = 0;
    for (uint32_t& word : p) word ^= NextWord(key, key_size, &at);
    uint32_t l = 0, r = 0;
    size_t salt_at = 0;
    const auto step = [&](uint32_t* a, uint32_t* b) {
      if (salt != nullptr) {
        l ^= NextWord(salt, kSaltBytes, &salt_at);
        r ^= NextWord(salt, kSaltBytes, &salt_at);
      }
      Encipher(&l, &r);
      *a = l;
      *b = r;
    };
    for (size_t i = 0; i < p.size(); i += 2) step(&p[i], &p[i + 1]);
    for (auto& box : s)
      for (size_t i = 0; i < box.size(); i += 2) step(&box[i], &box[i + 1]);
  }

  // The next four bytes of `data`, taken round and round, big-endian.
  static uint32_t NextWord(const uint8_t* data, size_t size, size_t* at) {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) {
      word = (word << 8) | data[*at];
      *at = (*at + 1) % size;
    }
    return word;
  }
};

// The 23 bytes bcrypt keeps of "OrpheanBeholderScryDoubt" enciphered 64
// times under the expensive key schedule.
std::array<uint8_t, kHashBytes> Hash(std::string_view password, const uint8_t* salt, int cost) {
  // The key is the password with its terminating zero byte, 72 bytes at most.
  uint8_t key[kMaxKeyBytes];
  const size_t key_size = std::min(password.size() + 1, kMaxKeyBytes);
  std::memcpy(key, password.data(), std::min(password.size(), key_size));
  if (password.size() < key_size) key[password.size()] = 0;
  Blowfish state;
  state.Expand(key, key_size, salt);
  for (uint64_t round = 0; round < (uint64_t{1} << cost); ++round) {
    state.Expand(key, key_size, nullptr);
    state.Expand(salt, kSaltBytes, nullptr);
  }
  static const char kMagic[] = "OrpheanBeholderScryDoubt";
  uint32_t text[6];
  size_t at = 0;
  for (uint32_t& word : text) word = Blowfish::NextWord(reinterpret_cast<const uint8_t*>(kMagic), 24, &at);
  for (int i = 0; i < 64; ++i)
    for (int j = 0; j < 6; j += 2) state.Encipher(&text[j], &text[j + 1]);
  std::array<uint8_t, kHashBytes> hash;
  for (size_t i = 0; i < kHashBytes; ++i) hash[i] = static_cast<uint8_t>(text[i / 4] >> (24 - 8 * (i % 4)));
  std::memset(key, 0, sizeof key);
  return hash;
}

// Reads "$2b$10$<salt>": the cost and the salt's bytes; false with a reason.
bool ReadSetting(std::string_view setting, int* cost, uint8_t* salt, std::string* reason) {
  if (setting.size() < kSettingChars) {
    *reason = "is shorter than a bcrypt hash";
    return false;
  }
  if (setting.substr(0, 2) != "$2" || std::strchr("aby", setting[2]) == nullptr || setting[2] == '\0' ||
      setting[3] != '$') {
    *reason = "does not begin with $2a$, $2b$ or $2y$";
    return false;
  }
  if (setting[4] < '0' || setting[4] > '9' || setting[5] < '0' || setting[5] > '9' || setting[6] != '$') {
    *reason = "has no two-digit cost after its prefix";
    return false;
  }
  *cost = (setting[4] - '0') * 10 + (setting[5] - '0');
  if (*cost < kMinCost || *cost > kMaxCost) {
    *reason = "has cost " + std::to_string(*cost) + ", not one from 4 to 31";
    return false;
  }
  if (!Decode(setting.substr(7, kSaltChars), salt, kSaltBytes)) {
    *reason = "has a character outside bcrypt's alphabet in its salt";
    return false;
  }
  return true;
}

}  // namespace

bool IsBcryptHash(std::string_view hash, std::string* reason) {
  int cost = 0;
  uint8_t salt[kSaltBytes];
  if (!ReadSetting(hash, &cost, salt, reason)) return false;
  uint8_t digest[kHashBytes];
  if (hash.size() != kSettingChars + kHashChars || !Decode(hash.substr(kSettingChars), digest, kHashBytes)) {
    *reason = "is not 60 characters of bcrypt's alphabet";
    return false;
  }
  return true;
}

bool BcryptMatches(std::string_view password, std::string_view hash) {
  std::string reason;
  int cost = 0;
  uint8_t salt[kSaltBytes];
  uint8_t expected[kHashBytes];
  if (!IsBcryptHash(hash, &reason) || !ReadSetting(hash, &cost, salt, &reason) ||
      !Decode(hash.substr(kSettingChars), expected, kHashBytes))
    return false;
  const auto got = Hash(password, salt, cost);
  uint8_t difference = 0;
  for (size_t i = 0; i < kHashBytes; ++i) difference |= static_cast<uint8_t>(got[i] ^ expected[i]);
  return difference == 0;
}

std::string BcryptHash(std::string_view password, std::string_view setting) {
  std::string reason;
  int cost = 0;
  uint8_t salt[kSaltBytes];
  if (!ReadSetting(setting, &cost, salt, &reason)) return "";
  const auto hash = Hash(password, salt, cost);
  return std::string(setting.substr(0, 7)) + Encode(salt, kSaltBytes) + Encode(hash.data(), hash.size());
}

}  // namespace framework
