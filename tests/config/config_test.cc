#include "config/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "config/after_list.h"
#include "config/dependencies.h"
#include "config/key_tables.h"
#include "support/support.h"

namespace orv {
namespace {

using test::TempDir;

struct Loaded {
  int rc = 0;
  std::unique_ptr<Config> config = std::make_unique<Config>();
  std::string message;
};

Loaded parse(std::string_view text) {
  Loaded loaded;
  std::array<char, kConfigMessageSize> err{};
  loaded.rc = config_parse(text, "f", *loaded.config, err);
  loaded.message = err.data();
  return loaded;
}

Loaded load(const std::string& path) {
  Loaded loaded;
  std::array<char, kConfigMessageSize> err{};
  loaded.rc = config_load(path.c_str(), *loaded.config, err);
  loaded.message = err.data();
  return loaded;
}

constexpr std::string_view kMail = "[mail]\nsmtp-host=h\nfrom=a@b\nto=c@d\n";

std::string mail_with(std::string_view lines) { return std::string(kMail).append(lines); }

// A job that starts after nothing needs no more than this.
std::string job_with(std::string_view lines) {
  return std::string("[j]\nenabled=no\n").append(lines);
}

struct Fault {
  std::string text;
  std::string message;
};

void expect_faults(std::span<const Fault> faults) {
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.text.substr(0, 200));
    const Loaded loaded = parse(fault.text);
    EXPECT_EQ(loaded.rc, -1);
    EXPECT_EQ(loaded.message, fault.message);
  }
}

TEST(ConfigLoad, HasDefaultsWithoutAnySetting) {
  const Loaded loaded = parse("# nothing\n\n ; at all\r\n[sched]\n[api] # c\n[Mail]\nenabled=No");
  ASSERT_EQ(loaded.rc, 0) << loaded.message;
  const Config& config = *loaded.config;
  EXPECT_EQ(config.sched.poll_interval_s, 0U);
  EXPECT_FALSE(config.api.enabled);
  EXPECT_EQ(config.api.listen.host, "0.0.0.0");
  EXPECT_EQ(config.api.listen.port, 8447U);
  EXPECT_EQ(config.api.allowed_commands, 967U);
  EXPECT_FALSE(config.mail.present);
  ASSERT_EQ(config.jobs.size(), 1U);  // [Mail] is a job
  EXPECT_EQ(find_job(config, "Mail"), &config.jobs[0]);
  EXPECT_EQ(find_job(config, "mail"), nullptr);
}

TEST(ConfigLoad, StoresEveryKey) {
  const Loaded loaded = parse(
      "[sched]\npoll-interval=\" +5\"\nbusy-retry-seconds=6\njob-timeout-seconds=4294967295\n"
      "job-log-dir=logs\njob-log-keep=8\n"
      "[api]\nenabled=TRUE\nlisten=[::1]:8443\ncert=/c\nkey=/k\ntokens-file=/t\n"
      "allow-config-write=no\nallow-args=0\nnotify-changes=false\n"
      "allowed-commands=restore,, maint-prune ,\nmax-clients=256\nhistory-keep=0\n"
      "[mail]\nsmtp-host=mx\nsmtp-port=65535\ntls=smtps\nsmtp-user=u\nsmtp-password='s#3 '\n"
      "from=a@b\nto=c@d,, e@f ,\nca-file=ca\ntimeout-seconds=7\nnotify=failed\n"
      "[a]\ncommand=xenv\nprofile=p\nargs=\"x \\\"y z\\\"\"\nschedule=5 4 * * 1\nenabled=yes\n"
      "run-background=no\nstart-background=yes\nretention=4w\nretention-class=w_1-x\n"
      "notify=never\ntimeout-seconds=0\n"
      "[b]\nonce=1700000000\nafter=a, Mail\nafter-mode=finished\n[Mail]\nenabled=no\n");
  ASSERT_EQ(loaded.rc, 0) << loaded.message;
  const Config& c = *loaded.config;
  EXPECT_EQ(c.sched.poll_interval_s, 5U);
  EXPECT_EQ(c.sched.job_timeout_s, UINT32_MAX);
  EXPECT_EQ(c.sched.job_log_dir, "logs");
  EXPECT_TRUE(c.api.enabled);
  EXPECT_EQ(c.api.listen.host, "::1");
  EXPECT_EQ(c.api.cert, "/c");
  EXPECT_EQ(c.api.tokens_file, "/t");
  EXPECT_FALSE(c.api.allow_config_write || c.api.allow_args || c.api.notify_changes);
  EXPECT_EQ(c.api.allowed_commands, (1U << 3) | (1U << 10));
  EXPECT_EQ(c.api.history_keep, 0U);
  EXPECT_EQ(c.mail.smtp_port, 65535U);
  EXPECT_EQ(c.mail.tls, TlsMode::Smtps);
  EXPECT_EQ(c.mail.smtp_password.view(), "s#3 ");
  ASSERT_EQ(c.mail.to.size(), 2U);
  EXPECT_EQ(c.mail.to[1], "e@f");
  const Job& a = c.jobs[0];
  EXPECT_THAT(a.args, testing::ElementsAre("x", "y z"));
  EXPECT_EQ(a.args_text, "x \"y z\"");
  EXPECT_TRUE(a.has_schedule && a.schedule.minute[5] == 1);
  EXPECT_EQ(a.schedule_text, "5 4 * * 1");
  EXPECT_EQ(a.run_background, Tristate::No);
  EXPECT_EQ(a.retention_class, "w_1-x");
  EXPECT_EQ(a.notify, Notify::Never);
  const Job& b = c.jobs[1];
  EXPECT_TRUE(b.has_once && b.once == 1700000000);
  EXPECT_EQ(after_text(b), "a,Mail (finished)");
  config_release(*loaded.config);
  EXPECT_TRUE(c.mail.smtp_password.empty() && c.jobs.empty() && !c.mail.present);
  EXPECT_EQ(c.api.listen.port, 8447U);
}

TEST(ConfigLoad, NamesThePlaceOfASyntaxFault) {
  const std::string long_name(128, 'n');
  std::string many_jobs;
  for (int i = 0; i < 257; ++i) many_jobs += "[j" + std::to_string(i) + "]\nenabled=no\n";
  // clang-format off
  const Fault faults[] = {
      {"\nkey=\"a\"x", "f:2: unterminated quote or text after the closing quote"},
      {"a=b", "f:1: content before any [section]"},
      {"[a", "f:1: malformed section header"},
      {"[ ]", "f:1: empty section name"},
      {"[sched]\nfoo", "f:2: expected key=value"},
      {"[sched]\n = x", "f:2: empty key"},
      {"[sched]\nfoo = # x", "f:2: empty value for 'foo'"},
      {"[sched]\nfoo=''", "f:2: empty value for 'foo'"},
      {"[sched]\njob-log-keep=1\njob-log-keep=1", "f:3: duplicate setting 'job-log-keep'"},
      {"[sched]\n[ sched ]", "f:2: duplicate [sched] section"},
      {"[a]\n[b]\n[a]", "f:3: duplicate section [a]"},
      {"[a/b]", "f:1: job name 'a/b' must not contain '/'"},
      {"[..]", "f:1: a job must not be named '..'"},
      {"[" + long_name + "]", "f:1: job name too long"},
      {many_jobs, "f:513: too many jobs"},
      {std::string("[a]\n#\0\n", 7), "f:2: the line contains a NUL byte"},
      {"\xEF\xBB\xBF[a]", "f:1: content before any [section]"},
  };
  // clang-format on
  expect_faults(faults);
}

TEST(ConfigLoad, SaysWhichValueItRefuses) {
  const std::string recipients = "to=" + [] {
    std::string list;
    for (int i = 0; i < 17; ++i) list += "a@b,";
    return list;
  }();
  const std::string once_tail =
      " (expected unix seconds or YYYY-MM-DDTHH:MM:SS local time, no timezone suffix)";
  // clang-format off
  const Fault faults[] = {
      {"[sched]\npoll-interval=+-1", "f:2: 'poll-interval' must be a number"},
      {"[sched]\njob-log-dir=" + std::string(600, 'x'), "f:2: 'job-log-dir' too long"},
      {"[sched]\nPoll-interval=1", "f:2: unknown [sched] setting 'Poll-interval'"},
      {"[mail]\nsmtp-host=a@b", "f:2: invalid 'smtp-host'"},
      {"[mail]\nsmtp-port=65536", "f:2: 'smtp-port' must be 1..65535"},
      {"[mail]\ntls=SMTPS", "f:2: 'tls' must be starttls, smtps or none"},
      {"[mail]\nsmtp-password=" + std::string(1024, 'x'), "f:2: 'smtp-password' too long"},
      {"[mail]\nfrom=<a@b>", "f:2: 'from' must be a plain address like backup@example.com"},
      {"[mail]\nto=a@b, ,c@d", "f:2: invalid address '' in 'to'"},
      {"[mail]\n" + recipients, "f:2: too many addresses in 'to'"},
      {"[api]\nenabled=on", "f:2: 'enabled' must be yes or no"},
      {"[api]\nlisten=localhost:1", "f:2: 'listen' must be <address>:<port>, [<ipv6>]:<port> or <port> (numeric address)"},
      {"[api]\ntokens-file=t", "f:2: 'tokens-file' must be an absolute path"},
      {"[api]\nallowed-commands=agent,Verify", "f:2: unknown command 'Verify' in 'allowed-commands'"},
      {"[api]\nallowed-commands=" + std::string(1024, ','), "f:2: 'allowed-commands' too long"},
      {"[api]\nmax-clients=257", "f:2: 'max-clients' must be 1..256"},
      {"[j]\ncommand=backup", "f:2: unknown command 'backup'"},
      {"[j]\nargs=a \"b", "f:2: unterminated quote in 'args'"},
      {"[j]\nschedule=* * * *" + std::string(120, ' ') + "*", "f:2: 'schedule' too long"},
      {"[j]\nonce=soon", "f:2: invalid 'once' timestamp 'soon'" + once_tail},
      {"[j]\nonce=" + std::string(64, '0'), "f:2: 'once' too long"},
      {"[j]\nafter=a, ,b", "empty job name in 'after'"},
      {"[j]\nafter=,", "empty job name in 'after'"},
      {"[j]\nafter=a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q", "too many 'after' entries"},
      {"[j]\nafter=" + std::string(128, 'x'), "job name '" + std::string(128, 'x') + "' too long"},
      {"[j]\nafter-mode=always", "f:2: 'after-mode' must be success or finished"},
      {"[j]\nretention=1D", "f:2: 'retention' must be <n>d, <n>w, <n>m, <n>y (n >= 1, at most 100 years) or forever"},
      {"[j]\nretention-class=A", "f:2: 'retention-class' may only contain a-z, 0-9, '_' and '-' (at most 31 characters)"},
      {"[j]\nnotify=Never", "f:2: 'notify' must be never, failed or always"},
      {"[j]\ncolour=red", "f:2: unknown setting 'colour'"},
  };
  // clang-format on
  expect_faults(faults);
  EXPECT_THAT(parse("[j]\nschedule=* * * * 9").message,
              testing::StartsWith("f:2: invalid 'schedule': "));
}

TEST(ConfigLoad, ChecksTheWholeFile) {
  const std::string none =
      "[j]: needs at least one of 'schedule', 'once' or 'after' (or set enabled=no)";
  // clang-format off
  const Fault faults[] = {
      {"[mail]\nfrom=a@b", "[mail]: 'smtp-host' is required"},
      {"[mail]\nsmtp-host=h", "[mail]: 'from' is required"},
      {"[mail]\nsmtp-host=h\nfrom=a@b\nto=,", "[mail]: 'to' is required"},
      {mail_with("tls=none\nsmtp-password=file:"), "[mail]: 'smtp-user' and 'smtp-password' must be set together"},
      {mail_with("smtp-user=u"), "[mail]: 'smtp-user' and 'smtp-password' must be set together"},
      {mail_with("smtp-user=u\ntls=none\nsmtp-password=file:"),
       "[mail]: 'smtp-password' needs tls=starttls or tls=smtps (it would be sent in clear text)"},
      {mail_with("smtp-user=u\nsmtp-password=file:"), "[mail]: 'smtp-password': file: needs a path"},
      {mail_with("smtp-user=u\nsmtp-password=kms:x"), "[mail]: 'smtp-password': kms: is not supported yet"},
      {mail_with("smtp-user=u\nsmtp-password=file:/nonexistent/secret"),
       "[mail]: 'smtp-password': cannot read it (file missing/unreadable, or not 1..64 characters)"},
      {"[j]\nschedule=* * * * *\nonce=0", "[j]: 'schedule' and 'once' are mutually exclusive"},
      {"[j]\ncommand=agent", none},
      {job_with("after-mode=success"), "[j]: 'after-mode' requires 'after'"},
      {job_with("notify=never"), "[j]: 'notify' needs a [mail] section"},
      {job_with("command=verify\nprofile=p"),
       "[j]: 'profile' is not applicable to command=verify; put whatever --name/--uuid/--job/--meta this "
       "command needs directly in 'args'"},
      {job_with("command=verify\nstart-background=no"),
       "[j]: 'start-background' is not applicable to command=verify (only agent, proxmox and xenv take --background)"},
      {job_with("command=maint-prune\nretention-class=x"),
       "[j]: 'retention-class' is not applicable to command=maint-prune (only agent, proxmox and xenv take a retention)"},
      {job_with("retention-class=x"), "[j]: 'retention-class' requires 'retention'"},
      {job_with("retention=1d\nargs=a --retention-class=x"),
       "[j]: set the retention either with 'retention'/'retention-class' or in 'args', not both"},
      {job_with("after=j"), "[j]: 'after' cannot reference itself"},
      {job_with("after=J"), "[j]: 'after' references unknown job 'J'"},
      {job_with("after=k\n[k]\nenabled=no\nafter=j"), "cycle in 'after': j -> k -> j"},
      {job_with("after=k\n[k]\nafter=l\n[l]\nafter=k\n"), "cycle in 'after': k -> l -> k"},
  };
  // clang-format on
  expect_faults(faults);
  EXPECT_EQ(parse(job_with("args=--retention=1d --retentions")).rc, 0);
}

TEST(ConfigLoad, ChoosesThePortByTlsMode) {
  for (const auto& [lines, port] :
       {std::pair{"", 587U}, {"tls=none", 25U}, {"tls=smtps", 465U}, {"smtp-port=1", 1U}}) {
    const Loaded loaded = parse(mail_with(lines));
    EXPECT_EQ(loaded.config->mail.smtp_port, port) << loaded.message;
    EXPECT_EQ(loaded.config->mail.timeout_s, 60U);
  }
}

TEST(ConfigLoad, BoundsTheLengthOfALine) {
  const TempDir dir;
  // Lines before it move the long line across the reader's block borders.
  for (const std::size_t before : {0U, 1U, 14337U, 16384U, 16385U}) {
    for (const char* end : {"", "\n", "\n\n[b]\nenabled=no\n"}) {
      for (const std::size_t length : {kMaxConfigLine, kMaxConfigLine + 1}) {
        std::string text(before, '\n');
        text += "#" + std::string(length - 1, 'x') + end;
        const Loaded parsed = parse(text);
        const std::string message =
            length > kMaxConfigLine ? "f:" + std::to_string(before + 1) + ": line too long" : "";
        EXPECT_EQ(parsed.message, message);

        const std::string path = dir.write("cfg", text);
        const Loaded loaded = load(path);
        EXPECT_EQ(loaded.rc, parsed.rc);
        EXPECT_EQ(loaded.message, message.empty() ? "" : path + message.substr(1));
        EXPECT_EQ(loaded.config->jobs.size(), parsed.config->jobs.size());
      }
    }
  }
}

TEST(ConfigLoad, ReadsNoMoreThanItNeeds) {
  const TempDir dir;
  for (const std::string& path : {dir.path(), dir.file("missing")}) {
    EXPECT_EQ(load(path).rc, -1);
    EXPECT_EQ(load(path).message, "cannot read the configuration file " + path);
  }
  EXPECT_EQ(load("/dev/zero").message, "/dev/zero:1: line too long");
}

TEST(ConfigLoad, AcceptsTheCommentedExample) {
  const Loaded loaded = load(ORV_SOURCE_DIR "/examples/orv_sched.cfg");
  EXPECT_EQ(loaded.rc, 0) << loaded.message;
  EXPECT_TRUE(loaded.config->mail.present && loaded.config->api.present);
}

TEST(RememberedKeys, AreTheFirstSixteenOfAtMost31Bytes) {
  RememberedKeys keys;
  const std::string longest(31, 'k');
  EXPECT_FALSE(keys.repeats(longest));
  EXPECT_TRUE(keys.repeats(longest));
  EXPECT_FALSE(keys.repeats(longest + "k"));
  EXPECT_FALSE(keys.repeats(longest + "k"));
  for (int i = 2; i <= 17; ++i) EXPECT_FALSE(keys.repeats(std::to_string(i)));
  EXPECT_TRUE(keys.repeats("16"));
  EXPECT_FALSE(keys.repeats("17"));
  keys.forget();
  EXPECT_FALSE(keys.repeats(longest));
}

TEST(After, BoundsTheWholeList) {
  std::vector<JobName> names;
  std::array<char, 64> err{};
  EXPECT_FALSE(parse_after(std::string(2048, ','), names, err));
  EXPECT_STREQ(err.data(), "'after' value too long");
  EXPECT_TRUE(parse_after("a,, b" + std::string(2042, ','), names, err));
  ASSERT_EQ(names.size(), 2U);
  EXPECT_EQ(names[1], "b");
}

TEST(Cycles, AreCutAtTheirLimitAndLongChainsAreNone) {
  Config config;
  for (std::size_t i = 0; i < kMaxJobs; ++i) {
    Job& job = config.jobs.emplace_back();
    job.name.set_truncated("job-" + std::to_string(i));
    job.after.emplace_back().set_truncated("job-" + std::to_string(i + 1));
  }
  std::array<char, kConfigMessageSize> err{};
  EXPECT_TRUE(check_cycles(config, err));
  config.jobs.back().after[0].set_truncated("job-1");
  EXPECT_FALSE(check_cycles(config, err));
  const std::string_view message = err.data();
  EXPECT_TRUE(message.starts_with("cycle in 'after': job-1 -> job-2 -> "));
  EXPECT_EQ(message.size(), std::string_view("cycle in 'after': ").size() + kMaxCycleText);
}

}  // namespace
}  // namespace orv
