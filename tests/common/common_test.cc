#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "common/compress.h"
#include "common/digest.h"
#include "common/files.h"
#include "common/fixed_text.h"
#include "common/mail_address.h"
#include "common/message.h"
#include "common/options.h"
#include "common/replacement_file.h"
#include "common/secret.h"
#include "common/status.h"
#include "common/suggestion.h"
#include "common/text.h"
#include "common/utf8.h"
#include "support/support.h"

namespace orv {
namespace {

using test::TempDir;

TEST(FixedText, RefusesOrCutsWhatDoesNotFit) {
  FixedText<4> text;
  EXPECT_TRUE(text.set("abcd"));
  EXPECT_FALSE(text.set("abcde"));
  EXPECT_STREQ(text.c_str(), "abcd");
  text.set_truncated("vwxyz");
  EXPECT_EQ(text.view(), "vwxy");
  EXPECT_TRUE(text.set(text.view().substr(1)));  // from itself
  EXPECT_STREQ(text.c_str(), "wxy");
}

// The bytes of the object itself, where a short text lives.
template <typename Owner>
bool holds(const unsigned char* storage, std::string_view text) {
  const std::string_view bytes(reinterpret_cast<const char*>(storage), sizeof(Owner));
  return bytes.find(text) != std::string_view::npos;
}

TEST(Secrets, AreZeroedWhereTheyStood) {
  alignas(SecretString) std::array<unsigned char, sizeof(SecretString)> storage{};
  auto* const text = new (storage.data()) SecretString("hunter2");
  ASSERT_TRUE(holds<SecretString>(storage.data(), "hunter2"));
  SecretString other = std::move(*text);
  EXPECT_EQ(other, "hunter2");
  EXPECT_FALSE(holds<SecretString>(storage.data(), "unter2"));
  *text = other;
  std::destroy_at(text);
  EXPECT_FALSE(holds<SecretString>(storage.data(), "unter2"));

  std::array<char, 8> buffer{'s', 'e', 'c', 'r', 'e', 't'};
  { const ScopedWipe wipe(buffer.data(), buffer.size()); }
  EXPECT_EQ(buffer, (std::array<char, 8>{}));
}

TEST(Utf8, KnowsWhatIsASequence) {
  static constexpr struct {
    std::string_view text;
    std::size_t sequence, length;  // sequence: of the one at the front
  } kCases[] = {
      {"a\xc3\xa9", 1, 2},    {"\xc3\xa9!", 2, 2},
      {"\xe2\x82\xac", 3, 1}, {"\xf0\x9f\x92\xbe", 4, 1},
      {"\xc0\xaf", 0, 2},     {"\xe0\x80\xaf", 0, 3},
      {"\xed\xa0\x80", 0, 3}, {"\xf4\x90\x80\x80", 0, 4},
      {"\xe2\x82", 0, 2},     {"\x80", 0, 1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(utf8_sequence(c.text), c.sequence);
    EXPECT_EQ(utf8_length(c.text), c.length);
    EXPECT_EQ(utf8_begins(c.text), c.text == "\xe2\x82");
  }
  for (const std::uint32_t point : {0x7fU, 0x80U, 0x7ffU, 0x800U, 0xffffU, 0x10000U, 0x10ffffU}) {
    std::array<char, 4> bytes{};
    const std::size_t length = utf8_encode(point, bytes);
    EXPECT_EQ(utf8_sequence({bytes.data(), length}), length) << point;
  }
}

TEST(Suggestions, NameTheNearestWordOrNone) {
  constexpr std::array<std::string_view, 5> kWords = {"list", "validate", "run", "api-init",
                                                      "api-info"};
  for (const auto& [word, nearest] : {std::pair{"lsit", "list"},
                                      {"valdiate", "validate"},
                                      {"val", "validate"},
                                      {"api-int", "api-init"},
                                      {"rn", "run"},
                                      {"x", ""},
                                      {"frobnicate", ""},
                                      {"", ""}}) {
    EXPECT_EQ(nearest_word(word, kWords), nearest) << word;
  }
  EXPECT_EQ(did_you_mean("lits", kWords), " (did you mean 'list'?)");
  EXPECT_EQ(did_you_mean("x", kWords), "");
}

TEST(Options, LookupsTakeTheFirstOccurrence) {
  const std::vector<const char*> words = {
      "orv_sched", "list",    "--queue=a", "--queue",    "b",     "--config", "-h",    "--",
      "--cn",      "--force", "--keep",    "4294967296", "--odd", "12abc",    "--last"};
  const ArgList args(words);
  EXPECT_STREQ(option_value(args, "--queue", "x"), "a");
  EXPECT_STREQ(option_value(args, "--config", "x"), "-h");  // a value may look like an option
  EXPECT_TRUE(option_present(args, "--help", "-h"));        // and then counts as one
  EXPECT_STREQ(option_value(args, "--cn", "x"), "--force");
  EXPECT_TRUE(option_present(args, "--force"));
  EXPECT_STREQ(option_value(args, "--last", "x"), "x");
  EXPECT_STREQ(option_value(args, "orv_sched", "x"), "x");  // the program's name is no option
  EXPECT_FALSE(option_present(args, "--queue="));
  EXPECT_EQ(option_u32(args, "--keep", 1), UINT32_MAX);
  EXPECT_EQ(option_u32(args, "--odd", 1), 12U);
  EXPECT_EQ(option_u32(args, "--config", 1), 0U);  // no number is 0
  EXPECT_EQ(option_u32(args, "--absent", 7), 7U);
}

TEST(Numbers, AreDigitsThatFit) {
  for (const auto& [text, expected] :
       {std::pair{"0", 0U}, {"4294967295", UINT32_MAX}, {"0010", 10U}}) {
    std::uint32_t value = 99;
    EXPECT_TRUE(parse_u32(text, value));
    EXPECT_EQ(value, expected) << text;
  }
  for (const char* text : {"4294967296", "", "-1", "+1", " 1", "1 ", "0x1"}) {
    std::uint32_t value = 99;
    EXPECT_FALSE(parse_u32(text, value)) << text;
    EXPECT_EQ(value, 99U);
  }
  std::int64_t wide = 0;
  EXPECT_TRUE(parse_i64("9223372036854775807", wide));
  EXPECT_FALSE(parse_i64("9223372036854775808", wide));
  EXPECT_FALSE(parse_i64("-5", wide));
}

TEST(MailAddress, IsAPlainOne) {
  for (const char* good : {"a@b", "ops@example.com", "\xc3\xbc@example.com", "a+b'c@[192.0.2.1]"}) {
    EXPECT_TRUE(check_mail_address(good)) << good;
  }
  const std::string longest = std::string(253, 'a') + "@b";
  EXPECT_TRUE(check_mail_address(longest));
  EXPECT_FALSE(check_mail_address(longest + "c"));
  for (const char* bad : {"", "a", "@b", "a@", "a@b@c", "a b@c", "<a@b>", "a@b\n", "a,b@c",
                          "a@b\x7f", "\"a\"@b", "a;b@c", "a(b)@c", "a\\b@c"}) {
    EXPECT_FALSE(check_mail_address(bad)) << bad;
  }
}

TEST(Directories, AreMadeWithAllParents) {
  const TempDir dir;
  const std::string deep = dir.file("a/b//c/");
  EXPECT_EQ(make_directories(deep), ErrorCode::Ok);
  EXPECT_EQ(make_directories(deep), ErrorCode::Ok);
  dir.write("plain", "x");
  EXPECT_NE(make_directories(dir.file("plain")), ErrorCode::Ok);
  EXPECT_NE(make_directories(dir.file("plain/below")), ErrorCode::Ok);
  EXPECT_EQ(make_parent_directories(dir.file("p/q/file")), ErrorCode::Ok);
  EXPECT_TRUE(test::exists(dir.file("p/q")));
  EXPECT_FALSE(test::exists(dir.file("p/q/file")));
  EXPECT_EQ(make_parent_directories("file"), ErrorCode::Ok);
}

TEST(WholeFiles, AreReadUpToALimitAndReplacedWhole) {
  const TempDir dir;
  const std::string path = dir.write("file", "old");
  dir.write("file.new", "left by a crash");
  EXPECT_EQ(replace_file(path, path + ".new", "12345", 0600, DirectoryFlush::Yes), ErrorCode::Ok);
  EXPECT_FALSE(test::exists(path + ".new"));
  {
    ReplacementFile unfinished(path + ".new");
    EXPECT_EQ(unfinished.create(0600), ErrorCode::Ok);
    EXPECT_EQ(unfinished.write("half"), ErrorCode::Ok);
  }
  EXPECT_FALSE(test::exists(path + ".new"));

  const auto read = [](const std::string& name, std::size_t limit, std::string& text) {
    return read_whole(open_file(name.c_str(), O_RDONLY).get(), limit, text);
  };
  std::string text;
  EXPECT_EQ(read(path, 5, text), ErrorCode::Ok);
  EXPECT_EQ(text, "12345");
  EXPECT_EQ(read(path, 4, text), ErrorCode::IoError);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_EQ(read("/proc/self/maps", 1 << 20, text), ErrorCode::Ok);  // without a size
  EXPECT_TRUE(text.ends_with('\n'));
  EXPECT_EQ(directory_of("a"), ".");
  EXPECT_EQ(directory_of("/a"), "/");
  EXPECT_EQ(directory_of("b/a"), "b");
}

TEST(Digests, AgreeWithPublishedValues) {
  // FIPS 180-2 appendix B.3 and RFC 4231 test case 2; --selftest has another one.
  Sha256 hash;
  for (int i = 0; i < 1000; ++i) hash.update(std::string(1000, 'a'));
  hash.update("");
  EXPECT_EQ(to_hex(hash.finish()).view(),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(hmac_sha256_hex("Jefe", "what do ya want for nothing?").view(),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_TRUE(equal_constant_time("abc", "abc"));
  EXPECT_FALSE(equal_constant_time("abc", "abd"));
  EXPECT_FALSE(equal_constant_time("abc", "abcd"));
}

TEST(Crc32c, BothPathsAgreeAtEveryLength) {
  std::string text;
  for (int i = 0; i < 64; ++i) {
    EXPECT_EQ(crc32c(7, text), crc32c_portable(7, text)) << i;
    EXPECT_EQ(crc32c(crc32c(0, text), "tail"), crc32c_portable(0, text + "tail"));
    text += static_cast<char>(i * 37);
  }
  EXPECT_EQ(crc32c(0x12345678, ""), 0x12345678U);
  EXPECT_EQ(crc32c_portable(0, "123456789"), 0xE3069283U);
}

// --selftest makes the round trips.
TEST(Compression, RefusesDamageAndWhatGainsNothing) {
  const std::vector<unsigned char> zeros(16);
  std::vector<unsigned char> out(1000);
  for (const Codec codec : {Codec::Zstd, Codec::Lz4}) {
    EXPECT_EQ(decompress(codec, zeros, out, nullptr), ErrorCode::Corrupt);
    EXPECT_EQ(compress(codec, 3, std::span(zeros).first(2), out), 0U);
  }
  EXPECT_EQ(compress(Codec::None, 3, zeros, out), 0U);
  EXPECT_EQ(decompress(Codec::None, out, std::span(out).first(10), nullptr), ErrorCode::Invalid);
  EXPECT_EQ(decompress(static_cast<Codec>(9), zeros, out, nullptr), ErrorCode::Invalid);
}

TEST(Messages, AreCutToTheirBuffer) {
  std::array<char, 6> err{};
  EXPECT_EQ(fail(err, "%s-%d", "abc", 1234), -1);
  EXPECT_STREQ(err.data(), "abc-1");
  EXPECT_EQ(fail({}, "nobody listens"), -1);
  EXPECT_STREQ(error_text(static_cast<ErrorCode>(-99)), "unknown error");
}

}  // namespace
}  // namespace orv
