#include "api/config_replace.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "api/config_history.h"
#include "config/config.h"
#include "support/support.h"

namespace {

// Counts the system calls down; the one that it meets at zero fails, or ends the process as a kill
// would. Below zero nothing happens.
int g_calls_left = -1;
bool g_kill = false;
std::string g_failed;  // the call's name

bool fails(const char* name) {
  if (g_calls_left < 0 || g_calls_left-- > 0) return false;
  if (g_kill) ::_exit(9);
  g_failed = name;
  errno = ENOSPC;
  return true;
}

}  // namespace

// The linker leads the program's calls here (--wrap). The names are the linker's.
#define ORV_FAULTY(result, name, parameters, ...)                               \
  extern "C" result __real_##name parameters;                                   \
  extern "C" result __wrap_##name parameters;                                   \
  extern "C" result __wrap_##name parameters {                                  \
    return fails(#name) ? static_cast<result>(-1) : __real_##name(__VA_ARGS__); \
  }
ORV_FAULTY(int, stat, (const char* path, struct stat* st), path, st)
ORV_FAULTY(int, fstat, (int fd, struct stat* st), fd, st)
ORV_FAULTY(ssize_t, read, (int fd, void* into, std::size_t size), fd, into, size)
ORV_FAULTY(ssize_t, pread, (int fd, void* into, std::size_t size, off_t at), fd, into, size, at)
ORV_FAULTY(ssize_t, write, (int fd, const void* from, std::size_t size), fd, from, size)
ORV_FAULTY(int, fchown, (int fd, uid_t user, gid_t group), fd, user, group)
ORV_FAULTY(int, fchmod, (int fd, mode_t mode), fd, mode)
ORV_FAULTY(int, chmod, (const char* path, mode_t mode), path, mode)
ORV_FAULTY(int, mkdir, (const char* path, mode_t mode), path, mode)
ORV_FAULTY(int, fsync, (int fd), fd)
ORV_FAULTY(int, rename, (const char* from, const char* to), from, to)
ORV_FAULTY(int, link, (const char* from, const char* to), from, to)
ORV_FAULTY(int, unlink, (const char* path), path)

extern "C" DIR* __real_opendir(const char* path);
extern "C" DIR* __wrap_opendir(const char* path);
extern "C" DIR* __wrap_opendir(const char* path) {
  return fails("opendir") ? nullptr : __real_opendir(path);
}
extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);
  va_end(rest);
  return fails("open") ? -1 : __real_open(path, flags, mode);
}
extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd);
extern "C" int __wrap_close(int fd) {  // also a close that fails has closed
  const bool failed = fails("close");
  const int rc = __real_close(fd);
  return failed ? -1 : rc;
}

namespace orv {
namespace {

using test::read_file;
using test::TempDir;

constexpr std::int64_t kNow = 1800000000;  // 2027-01-15 08:00:00 UTC
constexpr const char* kOld = "[a]\nonce=1\n# the old one\n";
constexpr const char* kNew = "[a]\nonce=2\n";

class ConfigReplace : public ::testing::Test {
 protected:
  ConfigReplace() : path_(dir_.write("cfg", kOld, 0640)) {}
  ReplaceResult replace(std::string_view text, std::uint32_t keep, bool validate_only = false) {
    err_.fill('\0');
    const std::string before = read_file(path_);
    return replace_config({path_, before, text, keep, validate_only, kNow}, proved_, err_);
  }
  // The names below the directory, apart from the configuration's own.
  [[nodiscard]] std::string others() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
      if (!entry.is_directory()) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    std::string all;
    for (const std::string& name : names) all += name == "cfg" ? "" : name + " ";
    return all;
  }
  [[nodiscard]] bool loads() const {
    const auto config = std::make_unique<Config>();
    std::array<char, kConfigMessageSize> err{};
    return config_load(path_.c_str(), *config, err) == 0;
  }

  TempDir dir_;
  std::string path_;
  std::shared_ptr<const Config> proved_;
  std::array<char, kConfigMessageSize> err_{};
};

TEST_F(ConfigReplace, KeepsTheNewestCopiesAndTheFilesAttributes) {
  for (const char* name : {"20260101T000000Z-000.cfg", "20260101T000000Z-001.cfg", "mine.cfg"}) {
    dir_.write(std::string("cfg-history/") + name, "");
  }
  ASSERT_EQ(replace(kNew, 3), ReplaceResult::Ok) << err_.data();
  ASSERT_EQ(replace(kOld, 3), ReplaceResult::Ok) << err_.data();
  EXPECT_EQ(others(),
            "20260101T000000Z-001.cfg 20270115T080000Z-000.cfg 20270115T080000Z-001.cfg "
            "mine.cfg ");
  EXPECT_EQ(read_file(dir_.file("cfg-history/20270115T080000Z-000.cfg")), kOld);
  EXPECT_EQ(read_file(dir_.file("cfg-history/20270115T080000Z-001.cfg")), kNew);
  ASSERT_EQ(replace(kNew, 1), ReplaceResult::Ok) << err_.data();
  ASSERT_EQ(replace(kOld, 1), ReplaceResult::Ok) << err_.data();
  EXPECT_EQ(others(), "20270115T080000Z-003.cfg mine.cfg ") << "the newest is never pruned";
  const auto mode_of = [this](const char* name) {
    return static_cast<unsigned>(std::filesystem::status(dir_.file(name)).permissions());
  };
  EXPECT_EQ(mode_of("cfg"), 0640U);
  EXPECT_EQ(mode_of("cfg-history"), 0700U);
  EXPECT_EQ(mode_of("cfg-history/20270115T080000Z-003.cfg"), 0600U);
  if (::geteuid() != 0) GTEST_SKIP() << "giving the file to another user needs root";
  ASSERT_EQ(::chown(path_.c_str(), 12, 34), 0);
  ASSERT_EQ(replace(kNew, 0), ReplaceResult::Ok) << err_.data();
  struct stat st {};
  EXPECT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 12U);
  EXPECT_EQ(st.st_gid, 34U);
}

TEST_F(ConfigReplace, ReplacesWhatALinkPointsTo) {
  dir_.write("real/cfg", kOld);
  std::filesystem::remove(path_);
  std::filesystem::create_symlink("real/cfg", path_);
  ASSERT_EQ(replace(kNew, 1), ReplaceResult::Ok) << err_.data();
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(read_file(dir_.file("real/cfg")), kNew);
  EXPECT_TRUE(test::exists(dir_.file("cfg-history/20270115T080000Z-000.cfg")));
  EXPECT_EQ(others(), "20270115T080000Z-000.cfg ");
}

// An ACL as the kernel stores it: owner rw-, user 12 r--, group ---, mask r--, others ---.
TEST_F(ConfigReplace, KeepsTheAccessListAndAddsNone) {
  constexpr char kAcl[] =
      "\x02\0\0\0\x01\0\x06\0\xff\xff\xff\xff\x02\0\x04\0\x0c\0\0\0"
      "\x04\0\0\0\xff\xff\xff\xff\x10\0\x04\0\xff\xff\xff\xff\x20\0\0\0\xff\xff\xff\xff";
  constexpr const char* kAccess = "system.posix_acl_access";
  const auto acl = [this] {
    std::array<char, 256> bytes{};
    const ssize_t size = ::getxattr(path_.c_str(), kAccess, bytes.data(), bytes.size());
    return size < 0 ? std::string("none") : std::string(bytes.data(), static_cast<size_t>(size));
  };
  if (::setxattr(path_.c_str(), kAccess, kAcl, sizeof kAcl - 1, 0) != 0) {
    GTEST_SKIP() << "no access lists here";
  }
  const std::string before = acl();
  ASSERT_EQ(replace(kNew, 0), ReplaceResult::Ok) << err_.data();
  EXPECT_EQ(acl(), before);
  ASSERT_EQ(::removexattr(path_.c_str(), kAccess), 0);
  ASSERT_EQ(::setxattr(dir_.path().c_str(), "system.posix_acl_default", kAcl, sizeof kAcl - 1, 0),
            0);
  ASSERT_EQ(replace(kOld, 0), ReplaceResult::Ok) << err_.data();
  EXPECT_EQ(acl(), "none") << "the directory's default list gives nobody access";
}

TEST_F(ConfigReplace, LeavesAnEditByHandAlone) {
  dir_.write("cfg", "[a]\nonce=3\n");
  EXPECT_EQ(replace_config({path_, kOld, kNew, 2, false, kNow}, proved_, err_),
            ReplaceResult::ChangedMeanwhile);
  EXPECT_EQ(read_file(path_), "[a]\nonce=3\n");
  EXPECT_EQ(others(), "") << "nor is there a copy of what never was";
}

TEST_F(ConfigReplace, LeavesEverythingAloneWhenItOnlyValidatesOrRefuses) {
  dir_.write("cfg.api-tmp." + std::to_string(::getpid()), "left over");
  EXPECT_EQ(replace(kNew, 3, true), ReplaceResult::Ok);
  EXPECT_EQ(replace("[a]\nonce=2\nbad\n", 3), ReplaceResult::InvalidConfig);
  EXPECT_TRUE(test::contains(err_.data(), path_ + ":3: ")) << err_.data();
  EXPECT_EQ(read_file(path_), kOld);
  EXPECT_EQ(others(), "");
  EXPECT_FALSE(test::exists(dir_.file("cfg-history")));
  dir_.write("cfg-history", "a file in its place");
  EXPECT_EQ(replace(kNew, 3), ReplaceResult::IoFailure);
  EXPECT_EQ(err_.data(), "cannot create " + dir_.file("cfg-history"));
  std::filesystem::remove(dir_.file("cfg-history"));
  dir_.write("cfg-history/20270115T080000Z-999.cfg", "");
  EXPECT_EQ(replace(kNew, 3), ReplaceResult::IoFailure);
  EXPECT_EQ(err_.data(), "cannot write into " + dir_.file("cfg-history") + ": File exists");
  EXPECT_EQ(others(), "20270115T080000Z-999.cfg ");
  std::filesystem::remove(path_);
  EXPECT_EQ(replace(kNew, 3), ReplaceResult::IoFailure);
  EXPECT_EQ(err_.data(), "cannot stat " + path_ + ": No such file or directory");
  EXPECT_EQ(history_directory("cfg"), "./cfg-history");
  EXPECT_EQ(history_directory("/cfg"), "/cfg-history");
}

TEST_F(ConfigReplace, IsWholeWhicheverSystemCallFails) {
  std::map<std::string, int> refused;
  std::map<std::string, int> passed_over;
  int half_copies = 0;
  for (int call = 0;; ++call) {
    SCOPED_TRACE(call);
    dir_.write("cfg", kOld);
    std::filesystem::remove_all(dir_.file("cfg-history"));
    g_calls_left = call;
    const ReplaceResult result = replace(kNew, 2);
    const bool reached = g_calls_left < 0;
    g_calls_left = -1;
    EXPECT_EQ(read_file(path_), result == ReplaceResult::Ok ? kNew : kOld);
    EXPECT_EQ(err_[0] == '\0', result == ReplaceResult::Ok);
    EXPECT_FALSE(test::contains(others(), ".api-tmp.")) << others();
    if (test::contains(err_.data(), "cannot write " + history_directory(path_) + "/")) {
      EXPECT_EQ(others(), "") << "half a copy";
      ++half_copies;
    }
    if (!reached) break;
    ++(result == ReplaceResult::Ok ? passed_over : refused)[g_failed];
  }
  EXPECT_EQ(passed_over["fsync"], 2) << "only the directories'";
  EXPECT_EQ(refused["fsync"], 2);
  EXPECT_EQ(half_copies, 3) << "write, fsync and close";
  for (const char* name : {"write", "fchmod", "chmod", "rename"}) {
    EXPECT_GT(refused[name], 0) << name;
    EXPECT_EQ(passed_over[name], 0) << name;
  }
}

TEST_F(ConfigReplace, IsWholeWheneverTheProcessIsKilled) {
  bool old_kept = false;
  bool killed = true;
  std::error_code ignored;  // of a history that is not there yet
  for (int call = 0; killed; ++call) {
    SCOPED_TRACE(call);
    dir_.write("cfg", kOld);
    const pid_t child = ::fork();
    if (child == 0) {
      g_kill = true;
      g_calls_left = call;
      ::_exit(replace(kNew, 2) == ReplaceResult::Ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    killed = WEXITSTATUS(status) == 9;
    EXPECT_TRUE(loads());
    for (const auto& copy :
         std::filesystem::directory_iterator(dir_.file("cfg-history"), ignored)) {
      EXPECT_TRUE(copy.path().extension() != ".cfg" || read_file(copy.path()) == kOld) << "cut";
    }
    old_kept = old_kept || read_file(path_) == kOld;
    EXPECT_TRUE(read_file(path_) == kOld || read_file(path_) == kNew) << read_file(path_);
  }
  EXPECT_TRUE(old_kept);
  EXPECT_EQ(read_file(path_), kNew);
}

}  // namespace
}  // namespace orv
