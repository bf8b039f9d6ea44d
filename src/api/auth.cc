#include "api/auth.h"

#include <openssl/rand.h>

#include <array>
#include <cstring>
#include <iterator>

#include "common/text.h"

namespace orv {
namespace {

constexpr std::string_view kBearer = "Bearer ";
constexpr std::string_view kSigned = "ORV-HMAC-SHA256 ";
constexpr std::size_t kSignatureLength = 2 * kSha256Size;

constexpr const char* kResultTexts[] = {
    "ok",
    "no credentials (Authorization: Bearer or ORV-HMAC-SHA256 expected)",
    "malformed Authorization header",
    "unknown token",
    "wrong secret or signature",
    "admin tokens must sign their requests (ORV-HMAC-SHA256), not use Bearer",
    "request timestamp outside the allowed window (check the client's clock)",
    "nonce already used",
    "too many signed requests in the last minutes",
};

// key=NAME, ts=TIME, nonce=NONCE, sig=SIGNATURE: the pieces, borrowed from the header.
struct SignedHeader {
  std::string_view name, timestamp, nonce, signature;
};

// Takes `label` and the piece up to the next comma off the front of `rest`.
bool take_piece(std::string_view& rest, std::string_view label, std::size_t max,
                std::string_view& out) {
  if (!rest.starts_with(label)) return false;
  rest.remove_prefix(label.size());
  out = rest.substr(0, rest.find(','));
  rest.remove_prefix(out.size());
  return !out.empty() && out.size() <= max;
}

bool is_lower_hex(std::string_view text, std::size_t length) {
  return text.size() == length &&
         text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// One time has one spelling: the text is signed, and leading zeros would make many of it.
bool is_timestamp(std::string_view text) {
  if (text.find_first_not_of("0123456789") != std::string_view::npos) return false;
  return text == "0" || text.front() != '0';
}

// Order and separators are fixed. A piece that is too long is malformed before anything is looked
// up by it; what it must look like is checked once all are there.
bool parse_signed(std::string_view text, SignedHeader& out) {
  if (!take_piece(text, "key=", kMaxTokenName, out.name)) return false;
  if (!take_piece(text, ", ts=", 23, out.timestamp)) return false;
  if (!take_piece(text, ", nonce=", 39, out.nonce)) return false;
  if (!take_piece(text, ", sig=", 79, out.signature) || !text.empty()) return false;
  return check_token_name(out.name) && is_lower_hex(out.nonce, kNonceLength) &&
         is_lower_hex(out.signature, kSignatureLength) && is_timestamp(out.timestamp);
}

bool in_window(std::string_view timestamp, std::int64_t now) {
  std::int64_t at = 0;
  // A number beyond 64 bits is as far outside as any other.
  return parse_i64(timestamp, at) && at >= now - kTimestampWindow && at <= now + kTimestampWindow;
}

AuthResult check_bearer(const TokenStore& store, std::string_view text, Authenticated& out) {
  const std::size_t dot = text.find('.');
  if (dot == std::string_view::npos || dot == 0 || dot > kMaxTokenName)
    return AuthResult::Malformed;
  const ApiToken* token = find_token(store, text.substr(0, dot));
  if (token == nullptr) return AuthResult::UnknownToken;
  const std::string_view secret = text.substr(dot + 1);
  // The length is no secret; only texts of equal length can be compared in constant time.
  if (secret.size() != kTokenSecretLength || !equal_constant_time(secret, token->secret.view()))
    return AuthResult::WrongSecret;
  if (token->role == TokenRole::Admin) return AuthResult::AdminMustSign;
  out.token = token;
  return AuthResult::Ok;
}

AuthResult check_signed(const TokenStore& store, NonceCache& nonces, std::int64_t now,
                        const ApiRequest& request, std::string_view text, Authenticated& out) {
  SignedHeader header;
  if (!parse_signed(text, header)) return AuthResult::Malformed;
  const ApiToken* token = find_token(store, header.name);
  if (token == nullptr) return AuthResult::UnknownToken;
  std::string canonical;
  if (!canonical_request(request, header.timestamp, header.nonce, canonical))
    return AuthResult::Malformed;
  HexDigest expected = hmac_sha256_hex(token->secret.view(), canonical);
  const bool matches = equal_constant_time(expected.view(), header.signature);
  expected.wipe();  // for a forged request this is the signature the attacker wants
  if (!matches) return AuthResult::WrongSecret;
  // Time and nonce only now: without the secret nobody learns about the clock, or fills the ring.
  if (!in_window(header.timestamp, now)) return AuthResult::OutsideWindow;
  if (const AuthResult rc = nonces.accept(header.nonce, now); rc != AuthResult::Ok) return rc;
  out.token = token;
  out.is_signed = true;
  (void)out.nonce.set(header.nonce);  // fits: its length was checked
  return AuthResult::Ok;
}

}  // namespace

const char* auth_result_text(AuthResult result) {
  const auto index = static_cast<std::size_t>(result);
  return index < std::size(kResultTexts) ? kResultTexts[index] : "?";
}

// The ring holds the nonces in the order of their acceptance. Beside it an index of chained hash
// buckets leads from a nonce to its latest slot: when a nonce is in the ring twice, the earlier
// slot had expired when the later one was taken, so the later one alone decides.
struct NonceCache::Ring {
  using Link = std::uint16_t;
  static constexpr Link kNone = kNonceSlots;
  static constexpr std::size_t kBuckets = 2 * kNonceSlots;

  struct Slot {
    std::array<char, kNonceLength> nonce;
    std::int64_t accepted;
    Link next;  // in the bucket's chain
    bool used = false;
    [[nodiscard]] bool holds(std::string_view text) const {
      return std::memcmp(nonce.data(), text.data(), nonce.size()) == 0;
    }
    [[nodiscard]] bool young(std::int64_t now) const { return now - accepted < kNonceLifetime; }
  };

  Ring() {
    buckets.fill(kNone);
    // The seed keeps clients from choosing nonces of one bucket. Without random numbers the index
    // is merely easier to slow down.
    (void)RAND_bytes(reinterpret_cast<unsigned char*>(&seed), sizeof seed);
  }

  [[nodiscard]] Link& bucket(const char* nonce) {
    std::uint64_t hash = seed;
    for (std::size_t i = 0; i < kNonceLength; i += sizeof hash) {
      std::uint64_t word = 0;
      std::memcpy(&word, nonce + i, sizeof word);
      // Twice: a product carries differences upwards only, and clients may count their nonces up.
      hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
      hash = (hash ^ hash >> 32) * 0xbf58476d1ce4e5b9U;
      hash ^= hash >> 32;
    }
    return buckets[hash % kBuckets];
  }

  [[nodiscard]] const Slot* latest(std::string_view nonce) {
    Link at = bucket(nonce.data());
    while (at != kNone && !slots[at].holds(nonce)) at = slots[at].next;
    return at == kNone ? nullptr : &slots[at];
  }

  // Takes a slot that is about to be reused out of its bucket's chain.
  void drop(Link index) {
    Slot& slot = slots[index];
    if (!slot.used) return;
    Link* at = &bucket(slot.nonce.data());
    while (*at != index) at = &slots[*at].next;
    *at = slot.next;
    slot.used = false;
  }

  void store(Link index, std::string_view nonce, std::int64_t now) {
    drop(index);
    Slot& slot = slots[index];
    std::memcpy(slot.nonce.data(), nonce.data(), kNonceLength);
    slot.accepted = now;
    slot.used = true;
    Link& head = bucket(slot.nonce.data());
    slot.next = head;  // the latest comes first, so that latest() finds it
    head = index;
  }

  std::uint64_t seed = 0x2545f4914f6cdd1dU;
  Link position = 0;
  std::array<Slot, kNonceSlots> slots;
  std::array<Link, kBuckets> buckets;
};

NonceCache::NonceCache() = default;
NonceCache::~NonceCache() = default;

AuthResult NonceCache::accept(std::string_view nonce, std::int64_t now) {
  if (nonce.size() != kNonceLength) return AuthResult::Malformed;
  if (!ring_) ring_ = std::make_unique<Ring>();
  // An expired nonce may come again. A slot that is still young must not be given away: its nonce
  // could then be replayed.
  const Ring::Slot* known = ring_->latest(nonce);
  if (known != nullptr && known->young(now)) return AuthResult::NonceUsed;
  const Ring::Slot& oldest = ring_->slots[ring_->position];
  if (oldest.used && oldest.young(now)) return AuthResult::TooManyRequests;
  ring_->store(ring_->position, nonce, now);
  ring_->position = static_cast<Ring::Link>((ring_->position + 1U) % kNonceSlots);
  return AuthResult::Ok;
}

AuthResult authenticate(const TokenStore& store, NonceCache& nonces, std::int64_t now,
                        const ApiRequest& request, Authenticated& out) {
  const std::string_view header = request.authorization.view();
  if (header.empty()) return AuthResult::NoCredentials;
  if (header.starts_with(kBearer)) return check_bearer(store, header.substr(kBearer.size()), out);
  if (!header.starts_with(kSigned)) return AuthResult::Malformed;
  return check_signed(store, nonces, now, request, header.substr(kSigned.size()), out);
}

bool canonical_request(const ApiRequest& request, std::string_view timestamp,
                       std::string_view nonce, std::string& out) {
  const HexDigest body = to_hex(sha256(request.body));
  const std::string_view lines[] = {
      request.method.view(), request.path.view(),    request.query.view(), timestamp, nonce,
      body.view(),           request.if_match.view()};
  out = "ORV1";
  for (const std::string_view line : lines) {
    out += '\n';
    out += line;
  }
  return out.size() <= kMaxCanonicalText;
}

HexDigest sign_response(std::string_view secret, std::string_view nonce, std::uint32_t status,
                        std::string_view body) {
  std::string text = "ORV1-R\n";
  text += nonce;
  text += '\n';
  text += std::to_string(status);
  text += '\n';
  text += to_hex(sha256(body)).view();
  return hmac_sha256_hex(secret, text);
}

}  // namespace orv
