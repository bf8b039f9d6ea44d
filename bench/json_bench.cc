// What one API request costs before it reaches its endpoint: reading the largest body, and checking
// a signature with the nonce ring empty and full.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "api/auth.h"
#include "api/reply.h"
#include "json/json.h"
#include "json/json_writer.h"

namespace orv {
namespace {

constexpr std::string_view kSecret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";
constexpr std::int64_t kNow = 1767225600;
constexpr std::size_t kBatch = 256;  // requests signed beforehand

// An object of about 500 members that fills a request body.
std::string large_body() {
  std::string text = "{";
  for (int i = 0; i < 500; ++i) {
    char member[80];
    (void)std::snprintf(member, sizeof member, R"(%s"field_%03d":"a text with \u00e9 %030d")",
                        i == 0 ? "" : ",", i, i);
    text += member;
  }
  text += '}';
  if (text.size() > kJsonRequestLimits.max_bytes) std::abort();
  text.resize(kJsonRequestLimits.max_bytes, ' ');
  return text;
}

void parse_body(benchmark::State& state) {
  const std::string text = large_body();
  char err[256];
  for (auto _ : state) {
    std::unique_ptr<JsonValue> root;
    if (json_parse(text, kJsonRequestLimits, root, err) != 0) state.SkipWithError(err);
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parse_body);

void write_log_chunk(benchmark::State& state) {
  std::string chunk;
  while (chunk.size() < 49152) chunk += "2026-01-01 02:30:00 stored 4096 blocks of \"web\"\n";
  ApiReply reply;
  for (auto _ : state) {
    reply.reset();
    benchmark::DoNotOptimize(reply.json.string_limited(chunk, 60928));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(chunk.size()));
}
BENCHMARK(write_log_chunk);

std::string nonce_of(std::size_t n) {
  char text[kNonceLength + 1];
  (void)std::snprintf(text, sizeof text, "%032zx", n);
  return text;
}

std::unique_ptr<ApiRequest> signed_request(std::size_t n) {
  auto request = std::make_unique<ApiRequest>();
  std::string canonical;
  const std::string nonce = nonce_of(n), ts = std::to_string(kNow);
  if (!request->method.set("GET") || !request->path.set("/api/v1/info") ||
      !canonical_request(*request, ts, nonce, canonical))
    std::abort();
  const HexDigest signature = hmac_sha256_hex(kSecret, canonical);
  request->authorization.set_truncated("ORV-HMAC-SHA256 key=token-200, ts=" + ts +
                                       ", nonce=" + nonce + ", sig=" + signature.c_str());
  return request;
}

TokenStore many_tokens() {
  TokenStore store;
  for (std::size_t i = 0; i < kMaxTokens; ++i) {
    auto token = std::make_unique<ApiToken>();
    if (!token->name.set("token-" + std::to_string(i)) || !token->secret.set(kSecret)) std::abort();
    store.tokens.push_back(std::move(token));
  }
  return store;
}

// The argument is the number of nonces, all expired, that the ring holds beforehand.
void authenticate_signed(benchmark::State& state) {
  const TokenStore store = many_tokens();
  std::vector<std::unique_ptr<ApiRequest>> requests;
  for (std::size_t i = 0; i < kBatch; ++i) requests.push_back(signed_request(i));
  std::unique_ptr<NonceCache> nonces;
  std::size_t next = kBatch;
  for (auto _ : state) {
    if (next == kBatch) {
      state.PauseTiming();
      nonces = std::make_unique<NonceCache>();
      for (std::int64_t i = 0; i < state.range(0); ++i)
        (void)nonces->accept(nonce_of(kBatch + static_cast<std::size_t>(i)), kNow - 1000);
      next = 0;
      state.ResumeTiming();
    }
    Authenticated out;
    if (authenticate(store, *nonces, kNow, *requests[next++], out) != AuthResult::Ok)
      state.SkipWithError("refused");
  }
}
BENCHMARK(authenticate_signed)->Arg(0)->Arg(kNonceSlots);

}  // namespace
}  // namespace orv
