#include "net/certificate.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "net/pem.h"
#include "support/support.h"

namespace orv {
namespace {

using test::contains;

struct Files {
  test::TempDir dir;
  std::string cert = dir.file("cert.pem");
  std::string key = dir.file("key.pem");
  ErrorCode create(const char* name, bool force = false) {
    return cert_create(cert.c_str(), key.c_str(), name, 0, force);
  }
};

std::string fingerprint(const std::string& path) {
  char text[kFingerprintSize] = "";
  EXPECT_EQ(cert_fingerprint(path.c_str(), text), ErrorCode::Ok);
  return text;
}

TEST(Certificate, IsWhatAnIndependentReaderSees) {
  if (test::run_program({"sh", "-c", "command -v openssl"}).status != 0) {
    GTEST_SKIP() << "the openssl program is not installed";
  }
  const std::pair<const char*, const char*> cases[] = {
      // the alternative's whole line
      {"backup01", "DNS:backup01\n"},
      {"192.0.2.10", "IP Address:192.0.2.10\n"},
      {"::1", "IP Address:0:0:0:0:0:0:0:1\n"},
      {"10.1", "DNS:10.1\n"},
  };
  for (const auto& [name, alternative] : cases) {
    SCOPED_TRACE(name);
    Files files;
    ASSERT_EQ(files.create(name), ErrorCode::Ok);
    const auto text = test::run_program(
        {"openssl", "x509", "-in", files.cert, "-noout", "-text", "-fingerprint", "-sha256"});
    EXPECT_TRUE(contains(text.out, alternative)) << text.out;
    EXPECT_TRUE(contains(text.out, "Version: 3 (0x2)"));
    EXPECT_TRUE(contains(text.out, "Subject: CN = " + std::string(name) + "\n"));
    EXPECT_TRUE(contains(text.out, "NIST CURVE: P-256"));
    EXPECT_TRUE(contains(text.out, "Fingerprint=" + fingerprint(files.cert)));
    EXPECT_EQ(test::run_program({"openssl", "verify", "-CAfile", files.cert, files.cert}).status,
              0);
    struct stat status {};
    ASSERT_EQ(::stat(files.key.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
  }
  // One name stays one name, whatever the separators in it would mean elsewhere.
  Files files;
  ASSERT_EQ(files.create("a,DNS:evil,IP:10.0.0.1"), ErrorCode::Ok);
  const auto asn1 = test::run_program({"openssl", "asn1parse", "-in", files.cert});
  EXPECT_FALSE(contains(asn1.out, "[HEX DUMP]:3020820465766C")) << asn1.out;
  const auto match = test::run_program({"openssl", "x509", "-in", files.cert, "-noout", "-checkip",
                                        "10.0.0.1", "-checkhost", "evil"});
  EXPECT_TRUE(contains(match.out, "evil does NOT match")) << match.out;
  EXPECT_TRUE(contains(match.out, "10.0.0.1 does NOT match")) << match.out;
}

TEST(Certificate, ReplacesExistingFilesOnlyWhenForced) {
  Files files;
  files.dir.write("key.pem", "old", 0644);
  EXPECT_EQ(files.create("a"), ErrorCode::AlreadyExists);
  EXPECT_EQ(test::read_file(files.key), "old");
  EXPECT_FALSE(test::exists(files.cert));
  EXPECT_EQ(files.create("a", true), ErrorCode::Ok);
  const std::string first = fingerprint(files.cert);
  EXPECT_EQ(files.create("a", true), ErrorCode::Ok);
  EXPECT_NE(fingerprint(files.cert), first);
  EXPECT_EQ(cert_create(nullptr, "k", "n", 1, true), ErrorCode::Invalid);
  const std::string old_key = test::read_file(files.key);
  const std::string no_place = files.dir.file("none/cert.pem");
  EXPECT_EQ(cert_create(no_place.c_str(), files.key.c_str(), "n", 1, true), ErrorCode::IoError);
  EXPECT_EQ(test::read_file(files.key), old_key) << "the old pair stays whole";
  const std::filesystem::directory_iterator left(files.dir.path());
  EXPECT_EQ(std::distance(begin(left), end(left)), 2) << "no temporary file";
}

TEST(CertificatePair, IsTakenWhenItsFilesBelongTogether) {
  Files files, other;
  ASSERT_EQ(files.create("a"), ErrorCode::Ok);
  ASSERT_EQ(other.create("b"), ErrorCode::Ok);
  const std::string text = files.dir.write("text", "hello\n"), none = files.dir.file("none");
  const struct {
    std::string cert, key;
    CertPair pair;
    std::string reason;
  } cases[] = {
      {files.cert, files.key, CertPair::Usable, ""},
      {files.cert, other.key, CertPair::Unusable, other.key + " is not the key of " + files.cert},
      {text, files.key, CertPair::Unusable, text + " holds no certificate"},
      {files.cert, text, CertPair::Unusable, text + " holds no private key without a password"},
      {files.cert, none, CertPair::Unreadable,
       "cannot read " + none + ": No such file or directory"},
  };
  for (const auto& c : cases) {
    SecretString cert_pem("before"), key_pem;
    char err[512] = "";
    EXPECT_EQ(cert_load_pair(c.cert.c_str(), c.key.c_str(), cert_pem, key_pem, err), c.pair);
    EXPECT_EQ(err, c.reason);
    EXPECT_EQ(cert_pem == "before", c.pair != CertPair::Usable);
  }
}

TEST(CertificateFingerprint, SaysWhyThereIsNone) {
  const test::TempDir dir;
  char small[kFingerprintSize - 1];
  EXPECT_EQ(cert_fingerprint(dir.file("none").c_str(), small), ErrorCode::Invalid);
  char text[kFingerprintSize];
  EXPECT_EQ(cert_fingerprint(dir.file("none").c_str(), text), ErrorCode::NotFound);
  EXPECT_EQ(cert_fingerprint(dir.write("text", "hello\n").c_str(), text), ErrorCode::Invalid);
}

TEST(PemFile, IsTakenWholeOrRefused) {
  const test::TempDir dir;
  const std::pair<std::string, bool> cases[] = {{"x", true},
                                                {std::string(16384, 'x'), true},
                                                {"", false},
                                                {std::string(16385, 'x'), false},
                                                {std::string("a\0b", 3), false}};
  for (const auto& [content, taken] : cases) {
    const std::string path = dir.write("file.pem", content);
    SecretString out("before");
    char err[512] = "";
    EXPECT_EQ(read_pem_file(path.c_str(), out, err) == 0, taken);
    EXPECT_EQ(out, taken ? std::string_view(content) : "before");
    EXPECT_EQ(err, taken ? "" : path + " is empty, too large or not a PEM file");
  }
}

}  // namespace
}  // namespace orv
