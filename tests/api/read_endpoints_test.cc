#include <sys/stat.h>
#include <unistd.h>

#include "api/log_chunk.h"
#include "api_fixture.h"
#include "config/snapshot.h"
#include "sched/job_log.h"
#include "sched/queue_file.h"

namespace orv::test {
namespace {

class ReadEndpoints : public ApiFixture {
 protected:
  static constexpr const char* kConfig =
      "[sched]\npoll-interval=5\n"
      "[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d,e@f\nsmtp-user=u\nsmtp-password=hush\n"
      "[api]\nallowed-commands=verify,agent\n"
      "[plain]\nenabled=no\n"
      "[full]\ncommand=agent\nprofile=p\nargs=--x \"y z\"\nonce=1900000000\nafter=plain,prune\n"
      "after-mode=finished\ntimeout-seconds=9\nnotify=always\nrun-background=no\n"
      "retention=4w\nretention-class=gold\n"
      "[prune]\ncommand=maint-prune\nschedule=0 3 * * *\n";

  std::string write_log(const char* id, std::string_view content) {
    return dir.write(std::string("logs/full/") + id + ".log", content);
  }
};

TEST_F(ReadEndpoints, InfoTellsOfServiceTokenAndPolicy) {
  load(kConfig);
  (void)live.running.job.set("prune");
  live.run_queue.resize(1);
  (void)live.run_queue[0].job.set("full");
  const Answer info = get("info");
  EXPECT_EQ(info.status, 200u);
  EXPECT_TRUE(info.body.starts_with(R"({"api_version":1,"server":"orv_sched","version":)"));
  EXPECT_EQ(info.number("daemon_started"), kNow - 60);
  EXPECT_EQ(info.text("running_job"), "prune");
  EXPECT_EQ(info.text("run_queue/0"), "full");
  EXPECT_EQ(info.etag, tag());
  EXPECT_EQ(info.text("token/role"), "read");
  EXPECT_TRUE(contains(info.body, R"("allowed_commands":["agent","verify"])"));
  EXPECT_TRUE(contains(info.body, R"({"name":"verify","profile":false,"retention":false})"));
  EXPECT_TRUE(contains(info.body, R"("mail_configured":true)"));
}

TEST_F(ReadEndpoints, JobObjectsShowSettingsAndState) {
  load(kConfig);
  EXPECT_EQ(get("jobs/none").verdict(), "404 not_found: no job named 'none'");
  EXPECT_TRUE(contains(
      get("jobs/full").body,
      R"("job":{"name":"full","command":"agent","profile":"p","args":"--x \"y z\"",)"
      R"("schedule":null,"once":"1900000000","once_unix":1900000000,"after":["plain","prune"],)"
      R"("after_mode":"finished","enabled":true,"timeout_seconds":9,"notify":"always",)"
      R"("run_background":false,"start_background":null,"retention":"4w",)"
      R"("retention_class":"gold","api_allowed":true,"state":{"status":"PENDING",)"
      R"("next_run":1900000000,"last_run":null,"last_finish":null,"last_exit_code":null,)"
      R"("run_requested":false}}})"));

  QueueState queue;
  queue.path = live.queue_path;
  QueueRecord record;
  record_set_name(record, "prune");
  record_set_state(record, JobState::Failed);
  record.next_run = kNever;
  record.started_at = 100;
  record.finished_at = 200;
  record.exit_code = 3;
  ASSERT_EQ(queue_upsert(queue, record), ErrorCode::Ok);
  (void)live.running.job.set("plain");
  live.run_queue.resize(1);
  (void)live.run_queue[0].job.set("prune");
  const std::string before = read_file(live.queue_path);
  const Answer jobs = get("jobs");
  EXPECT_EQ(jobs.text("jobs/0/state/status"), "RUNNING");
  EXPECT_EQ(json_kind(jobs.at("jobs/0/after_mode")), JsonKind::Null);
  EXPECT_TRUE(contains(jobs.body,
                       R"("api_allowed":false,"state":{"status":"FAILED","next_run":null,)"
                       R"("last_run":100,"last_finish":200,"last_exit_code":3,)"
                       R"("run_requested":true}})"));
  EXPECT_EQ(read_file(live.queue_path), before);  // a reader saves nothing
}

TEST_F(ReadEndpoints, PagesCoverAllJobsInTheOrderOfTheFile) {
  std::string config;
  for (int i = 0; i < 7; ++i) config += "[j" + std::to_string(i) + "]\nenabled=no\n";
  load(config);
  std::string seen;
  std::int64_t offset = 0;
  while (offset >= 0) {
    const Answer page = get("jobs?limit=3&offset=" + std::to_string(offset));
    EXPECT_EQ(page.number("total"), 7);
    for (std::size_t i = 0; i < json_size(page.at("jobs")); ++i) {
      seen += page.text("jobs/" + std::to_string(i) + "/name");
    }
    offset = page.number("next_offset");
  }
  EXPECT_EQ(seen, "j0j1j2j3j4j5j6");
  EXPECT_TRUE(contains(get("jobs?offset=7").body, R"("offset":7,"jobs":[],"next_offset":null)"));
}

TEST_F(ReadEndpoints, SettingsShowWhatIsSetAndNeverThePassword) {
  load(kConfig);
  EXPECT_TRUE(contains(get("settings/sched").body,
                       R"("sched":{"poll_interval":5,"busy_retry_seconds":null,)"
                       R"("job_timeout_seconds":null,"job_log_keep":null,"job_log_dir":null}})"));
  const Answer mail = get("settings/mail");
  EXPECT_TRUE(contains(mail.body,
                       R"("mail":{"smtp_host":"mx","smtp_port":587,"tls":"starttls",)"
                       R"("smtp_user":"u","smtp_password_set":true,)"
                       R"("smtp_password_source":"literal","from":"a@b","to":["c@d","e@f"],)"
                       R"("ca_file":null,"timeout_seconds":60,"notify":"never"}})"));
  EXPECT_FALSE(contains(mail.body, "hush"));
  load("[a]\nenabled=no\n");
  EXPECT_EQ(json_kind(get("settings/mail").at("mail")), JsonKind::Null);
}

TEST_F(ReadEndpoints, SaysWhyTheConfigurationCannotBeRead) {
  EXPECT_EQ(get("info").verdict(), "500 config_unreadable: cannot read " + live.config_path);
  dir.write("sched.cfg", "x\n");
  EXPECT_EQ(get("jobs").verdict(),
            "500 config_unreadable: " + live.config_path + ":1: content before any [section]");
  for (const std::string& text :
       {std::string("# a\0b\n", 6), std::string(kMaxConfigFile + 1, '#')}) {
    dir.write("sched.cfg", text);
    EXPECT_EQ(get("info").verdict(), "500 config_unreadable: cannot read " + live.config_path);
  }
  ASSERT_EQ(::unlink(live.config_path.c_str()), 0);
  ASSERT_EQ(::mkfifo(live.config_path.c_str(), 0600), 0);
  EXPECT_EQ(get("info").verdict(), "500 config_unreadable: cannot read " + live.config_path);
}

TEST(Snapshot, GivesUpOnAFileThatKeepsChanging) {
  static int reads;
  static int stable_after;
  const ConfigReader changing = [](const std::string&, SecretString& out) {
    out = "# " + std::to_string(std::min(++reads, stable_after)) + "\n";
    return true;
  };
  char err[256] = "";
  reads = 0;
  stable_after = 3;
  const SnapshotPtr snapshot = take_snapshot("c", err, changing);
  ASSERT_NE(snapshot, nullptr) << err;
  EXPECT_EQ(snapshot->etag, entity_tag("# 3\n"));
  reads = 0;
  stable_after = 1000;
  EXPECT_EQ(take_snapshot("c", err, changing), nullptr);
  EXPECT_STREQ(err, "c keeps changing");
  EXPECT_EQ(reads, 6);
}

// Nor is a kept snapshot used when only something that is read beside the file has changed.
TEST_F(ReadEndpoints, ATextIsParsedOnceUnlessWhatItNamesChanges) {
  const std::string secret = dir.write("secret", "first\n", 0600);
  const ScopedTimeZone zone("UTC");
  load("[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d\nsmtp-user=u\nsmtp-password=file:" + secret +
       "\n[a]\nonce=2030-01-02T03:04:05\n");
  EXPECT_EQ(get("jobs/a").number("job/once_unix"), 1893553445);
  const SnapshotPtr first = live.snapshot;
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(get("settings/mail").status, 200u);
  EXPECT_EQ(live.snapshot, first);
  EXPECT_EQ(put_job("a", R"({"timeout_seconds":5})").verdict(), "200");
  const SnapshotPtr second = live.snapshot;
  EXPECT_EQ(std::string_view(second->text), config_text());
  EXPECT_EQ(get("jobs/a").number("job/timeout_seconds"), 5);
  EXPECT_EQ(live.snapshot, second) << "what was proved before the change is not parsed again";
  dir.write("secret", "other\n", 0600);
  EXPECT_EQ(get("info").status, 200u);
  EXPECT_EQ(live.snapshot->config->mail.smtp_password.view(), "other");
  ASSERT_EQ(::unlink(secret.c_str()), 0);
  EXPECT_TRUE(contains(get("info").verdict(), "500 config_unreadable: [mail]: 'smtp-password'"));
  dir.write("secret", "other\n", 0600);
  const ScopedTimeZone east("EST5");
  EXPECT_EQ(get("jobs/a").number("job/once_unix"), 1893553445 + 5 * 3600);
}

TEST_F(ReadEndpoints, RunsAreListedNewestFirst) {
  load(kConfig);
  EXPECT_EQ(json_size(get("jobs/full/runs").at("runs")), 0u);
  write_log("20261005T140000Z", "out" + job_log_trailer(1791209999, 4, false, "API token ops"));
  write_log("20261006T000000Z", "still running");
  write_log("20261007T000000", "no run id");
  dir.write("logs/full/20270101T000000Z.log/x", "");
  ASSERT_EQ(::symlink("20261006T000000Z.log", dir.file("logs/full/20270102T000000Z.log").c_str()),
            0);
  const Answer runs = get("jobs/full/runs");
  EXPECT_TRUE(contains(
      runs.body,
      R"("runs":[{"id":"20261006T000000Z","start":1791244800,"finished":false,"finish":null,)"
      R"("exit_code":null,"timed_out":false,"cancelled":false,"size":13},)"
      R"({"id":"20261005T140000Z","start":1791208800,"finished":true,"finish":1791209999,)"
      R"("exit_code":4,"timed_out":false,"cancelled":true,"size":)"));
  EXPECT_EQ(json_size(runs.at("runs")), 2u);
  EXPECT_EQ(get("jobs/full/runs/20270102T000000Z/log").verdict(), "404 not_found: no such run");
  for (int i = 0; i < 120; ++i) {
    write_log(("20280101T0000" + std::to_string(100 + i).substr(1) + "Z").c_str(), "");
    write_log(("20280101T000" + std::to_string(100 + i) + "Z").c_str(), "");
  }
  EXPECT_EQ(json_size(get("jobs/full/runs").at("runs")), 100u);
}

TEST_F(ReadEndpoints, LogChunksReassembleExactly) {
  load(kConfig);
  std::string log(70000, '\x01');  // six bytes each as JSON: the escaped size cuts the chunk
  for (int i = 0; i < 30000; ++i) log += "\xe2\x82\xac";
  log += std::string("\xff\xed\xa0\x80\xf0\x9f\0\"\\", 9) + "\xe2\x82";
  log += job_log_trailer(1, 0, false, nullptr);
  write_log("20261005T140000Z", log);
  std::string data;
  std::int64_t offset = 0;
  bool finished = false;
  while (offset < static_cast<std::int64_t>(log.size())) {
    const Answer chunk =
        get("jobs/full/runs/20261005T140000Z/log?length=49151&offset=" + std::to_string(offset));
    ASSERT_EQ(chunk.status, 200u);
    ASSERT_LT(chunk.body.size(), kReplyBufferSize);
    ASSERT_GT(chunk.number("length"), 0);
    EXPECT_EQ(chunk.number("size"), static_cast<std::int64_t>(log.size()));
    EXPECT_EQ(chunk.number("next_offset"), offset + chunk.number("length"));
    offset = chunk.number("next_offset");
    data += chunk.body.substr(chunk.body.find(R"("data":")") + 8);
    data.erase(data.rfind(R"(","length")"));
    finished = json_boolean(chunk.at("finished")).value_or(false);
  }
  EXPECT_TRUE(finished);
  // As one string: what the chunks say together is what the whole would say.
  std::vector<char> buffer(8 * log.size());
  JsonWriter whole(buffer);
  whole.string(log);
  EXPECT_EQ("\"" + data + "\"", whole.text());
}

TEST(LogChunk, IsCutBeforeTheBeginningOfASequenceOnly) {
  static constexpr std::pair<const char*, std::size_t> kCases[] = {
      {"", 0},          {"a\xe2\x82\xac", 4}, {"a\xf0\x9f\x92\xa9", 5}, {"a\xc3", 1},
      {"a\xff", 2},     {"a\xf0\x9f\x92", 1}, {"a\xc3\xa4\x80", 4},     {"\xe2\x82", 2},
      {"a\xed\xa0", 3},
  };
  for (const auto& [chunk, whole] : kCases) EXPECT_EQ(whole_utf8(chunk), whole) << chunk;
}

}  // namespace
}  // namespace orv::test
