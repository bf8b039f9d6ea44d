#include "api/tokens.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/support.h"

namespace orv {
namespace {

const std::string kSecret = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";

class TokensFile : public testing::Test {
 protected:
  int read() {
    char err[1024] = "";
    const int rc = static_cast<int>(read_tokens(path_.c_str(), store_, err));
    message_ = err;
    return rc;
  }
  test::TempDir dir_;
  std::string path_ = dir_.file("tokens");
  TokenStore store_;
  std::string message_;
};

TEST_F(TokensFile, LinesAreReadAsFourWords) {
  const std::string s = kSecret, line = "a read 1 " + s, name64(64, 'n');
  const std::string words = ":1: expected '<name> <role> <created> <secret>'";
  const struct {
    std::string text, message;  // message: after the path; empty: accepted
    std::size_t tokens;
  } cases[] = {{"# only\n\n \t\r\n  ; remarks\n", "", 0},
               {line + "\r\nb\tadmin  -5 " + s + " # remark\n" + name64 + " read 0 " + s, "", 3},
               {line + std::string(510 - 9 - 43, ' ') + "\n", "", 1},
               {line + std::string(511 - 9 - 43, ' ') + "\n", ":1: line too long", 0},
               {line + " surplus\n", words, 0},
               {"a readreadreadread 1 " + s, words, 0},
               {line + std::string("\0x", 2), words, 0},
               {"\n\n" + name64 + "n read 0 " + s, ":3: invalid token name", 0},
               {"a.b read 1 " + s, ":1: invalid token name", 0},
               {"a Read 1 " + s, ":1: role must be read or admin", 0},
               {"a read 1 " + s.substr(1), ":1: malformed secret", 0},
               {"a read 1 +" + s.substr(1), ":1: malformed secret", 0},
               {line + "\na admin 1 " + s, ":2: duplicate token name 'a'", 0},
               {line + "\nx = \"open", ":2: unterminated quote", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    dir_.write("tokens", c.text, 0600);
    EXPECT_EQ(read(), c.message.empty() ? 0 : -1);
    EXPECT_EQ(message_, c.message.empty() ? "" : path_ + c.message);
    EXPECT_EQ(store_.tokens.size(), c.tokens);
  }
}

TEST_F(TokensFile, OnlyAPrivateRegularFileIsRead) {
  EXPECT_EQ(read(), 0) << "a missing file holds no tokens";
  dir_.write("tokens", "a read 1 " + kSecret, 0601);
  EXPECT_EQ(read(), -1);
  EXPECT_EQ(message_, path_ + " must not be accessible by group/others (chmod 600)");
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", path_.c_str()), 0);
  EXPECT_EQ(read(), -1) << "a dangling link is not a missing file";
  EXPECT_EQ(message_, "cannot read " + path_ + ": Too many levels of symbolic links");
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(read(), -1);
  EXPECT_EQ(message_, path_ + " is not a regular file");
  EXPECT_TRUE(store_.tokens.empty());
}

TEST_F(TokensFile, WhatIsWrittenReadsBackInOrder) {
  for (int i = 0; i < 256; ++i) {
    auto token = std::make_unique<ApiToken>();
    ASSERT_TRUE(token->name.set(std::string(60, 'n') + std::to_string(1000 - i)));
    token->role = i % 2 == 0 ? TokenRole::Read : TokenRole::Admin;
    token->created = i == 0 ? INT64_MIN : INT64_MAX - i;
    ASSERT_EQ(new_token_secret(token->secret), 0);
    store_.tokens.push_back(std::move(token));
  }
  // What a process of the same id left behind is not written through.
  const std::string temp = path_ + ".tmp." + std::to_string(::getpid());
  const std::string victim = dir_.write("victim", "precious");
  ASSERT_EQ(::symlink(victim.c_str(), temp.c_str()), 0);
  char err[1024] = "";
  ASSERT_EQ(write_tokens(path_.c_str(), store_, err), 0) << err;
  EXPECT_EQ(test::read_file(victim), "precious");
  TokenStore written;
  std::swap(written.tokens, store_.tokens);
  ASSERT_EQ(read(), 0) << message_;
  ASSERT_EQ(store_.tokens.size(), 256U);
  for (std::size_t i = 0; i < 256; ++i) {
    EXPECT_EQ(store_.tokens[i]->name, written.tokens[i]->name);
    EXPECT_EQ(store_.tokens[i]->created, written.tokens[i]->created);
    EXPECT_EQ(store_.tokens[i]->secret.view(), written.tokens[i]->secret.view());
  }
  dir_.write("tokens", test::read_file(path_) + "surplus read 1 " + kSecret + "\n", 0600);
  EXPECT_EQ(read(), -1);
  EXPECT_EQ(message_, path_ + ": too many tokens");
}

TEST_F(TokensFile, ChangesOfManyProcessesAreAllKept) {
  constexpr int kProcesses = 8;
  for (int i = 0; i < kProcesses; ++i) {
    if (::fork() != 0) continue;
    char err[1024] = "";
    const ScopedFd lock = lock_tokens(path_.c_str(), err);
    if (!lock.valid() || read() != 0) ::_exit(1);
    auto token = std::make_unique<ApiToken>();
    if (!token->name.set("n" + std::to_string(i)) || !token->secret.set(kSecret)) ::_exit(1);
    store_.tokens.push_back(std::move(token));
    ::_exit(write_tokens(path_.c_str(), store_, err) == 0 ? 0 : 1);
  }
  for (int i = 0; i < kProcesses; ++i) {
    int status = 0;
    ASSERT_GT(::wait(&status), 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(read(), 0) << message_;
  EXPECT_EQ(store_.tokens.size(), std::size_t{kProcesses});
}

TEST_F(TokensFile, AFailedWriteSaysWhyAndLeavesNothing) {
  char err[1024] = "";
  const std::string temp = ".tmp." + std::to_string(::getpid());
  const std::string directory = dir_.write("tokens/inside", "x");
  EXPECT_EQ(write_tokens(path_.c_str(), store_, err), -1);
  EXPECT_EQ(err, "cannot write " + path_ + ": Is a directory");
  EXPECT_FALSE(test::exists(path_ + temp));
}

}  // namespace
}  // namespace orv
