#include "api/config_text.h"
#include "api_fixture.h"

namespace orv::test {
namespace {

constexpr const char* kNeedsTag =
    "428 precondition_required: If-Match with the current config_etag is required for changes";
constexpr const char* kStale =
    "412 precondition_failed: the configuration was changed in the meantime: reload it and retry";
constexpr const char* kBadName =
    "400 invalid_name: job names created through the API must match "
    "[A-Za-z0-9][A-Za-z0-9._-]{0,63} and must not be sched, mail or api";

class WriteEndpoints : public ApiFixture {
 protected:
  static constexpr const char* kConfig =
      "# head\n[api]\nhistory-keep=2\n"
      "[base] ; nightly\ncommand = verify  # check\nargs= --all \"a b\"\nschedule=0 1 * * *\n\n"
      "[next]\nafter=base\n"
      "[gone]\ncommand=restore\nenabled=no";
  // PUT settings/NAME with {NAME: value} and the present tag.
  std::string put_settings(const std::string& name, std::string_view value) {
    return change("PUT", "settings/" + name, "{\"" + name + "\":" + std::string(value) + "}")
        .verdict();
  }
};

TEST_F(WriteEndpoints, ChecksThePreconditionsInTheirOrder) {
  load(kConfig);
  // clang-format off
  static constexpr struct { const char *path, *body, *tag, *verdict; } kPuts[] = {
      {"jobs/n",         "",                              "",      "400 invalid_json: a JSON body is required"},
      {"jobs/n",         "[]",                            "",      "400 invalid_json: the body must be a JSON object"},
      {"jobs/n",         R"({"name":"n"})",               "",      "400 unknown_field: unknown field 'name'"},
      {"jobs/n",         "{}",                            "",      kNeedsTag},
      {"jobs/n",         R"({"enabled":1})",              "\"1\"", kStale},
      {"jobs/api",       "{}",                            "",      kBadName},
      {"settings/sched", R"({"sched":1})",                "",      "400 invalid_value: body must be {\"sched\": {...}}"},
      {"settings/sched", R"({"sched":{"job_log_dir":1}})", "",     "403 read_only: job_log_dir cannot be changed through the API"},
      {"settings/sched", R"({"sched":{"poll_interval":-1}})", "x", kStale},
      {"settings/mail",  "{}",                            "",      "400 invalid_value: body must be {\"mail\": {...}} or {\"mail\": null}"},
      {"settings/mail",  R"({"mail":null})",              "",      kNeedsTag},
  };
  // clang-format on
  for (const auto& c : kPuts) {
    EXPECT_EQ(send("PUT", c.path, c.body, c.tag).verdict(), c.verdict) << c.path << " " << c.body;
  }
  EXPECT_EQ(send("DELETE", "jobs/sched").verdict(), "404 not_found: no job named 'sched'");
  EXPECT_EQ(config_text(), kConfig);
  EXPECT_FALSE(live.config_changed);
}

TEST_F(WriteEndpoints, CreatesAJobAndReportsTheTagThatTheNextChangeNeeds) {
  load(kConfig);
  const Answer made = put_job(
      "new.1",
      R"({"retention":"4w","command":"agent","profile":"it's \u00e9 #1","after":["base","next"],)"
      R"("after_mode":"finished","enabled":true,"timeout_seconds":10000000,)"
      R"("notify":"inherit",)"
      R"("run_background":false,"args":null})");
  EXPECT_EQ(made.verdict(), "201");
  EXPECT_EQ(config_text(),
            std::string(kConfig) +
                "\n\n[new.1]\ncommand=agent\nprofile=\"it's \xc3\xa9 #1\"\nafter=base,next\n"
                "after-mode=finished\nenabled=yes\ntimeout-seconds=10000000\n"
                "run-background=no\nretention=4w\n");
  EXPECT_EQ(made.text("config_etag"), tag());
  EXPECT_EQ(made.etag, tag());
  EXPECT_EQ(made.text("job/profile"), "it's \xc3\xa9 #1");
  EXPECT_EQ(made.text("job/state/status"), "PENDING");
  EXPECT_TRUE(live.config_changed);
  EXPECT_EQ(read_file(dir.file("cfg-history/20270115T080000Z-000.cfg")), kConfig);
  EXPECT_EQ(send("PUT", "jobs/new.1", R"({"after":[]})", made.etag).verdict(),
            "400 config_invalid: [new.1]: needs at least one of 'schedule', 'once' or 'after' (or "
            "set enabled=no)");
  EXPECT_EQ(send("PUT", "jobs/new.1", R"({"enabled":false})", made.etag).verdict(), "200");
}

TEST_F(WriteEndpoints, RefusesFieldsAndPoliciesThatAPutBreaks) {
  load(kConfig);
  struct Case {
    std::string name, body, verdict;
  };
  const std::string text_rule =
      "400 invalid_value: 'profile' must be 1..127 characters without control characters or "
      "leading/trailing spaces";
  const std::string number_rule =
      "400 invalid_value: 'timeout_seconds' must be an integer 0..10000000 or null";
  const std::string long_after = R"({"after":[")" + std::string(1015, 'x') + R"(","base","next"]})";
  // clang-format off
  std::vector<Case> cases = {
      {"a b", "{}", kBadName},
      {".a",  "{}", kBadName},
      {std::string(65, 'x'), "{}", kBadName},
      {"n", R"({"command":"format"})",      "400 invalid_value: unknown command 'format'"},
      {"n", R"({"profile":7})",             "400 invalid_value: 'profile' must be a string or null"},
      {"n", R"({"after":"base"})",          "400 invalid_value: 'after' must be an array of at most 16 job names"},
      {"n", R"({"after":["base"," "]})",    "400 invalid_value: 'after' entries must be job names"},
      {"n", long_after,                     "400 invalid_value: a value cannot be written to the configuration file"},
      {"n", R"({"after_mode":"inherit"})",  "400 invalid_value: 'after_mode' must be \"success\", \"finished\" or null"},
      {"n", R"({"enabled":null})",          "400 invalid_value: 'enabled' must be true or false"},
      {"n", R"({"run_background":"yes"})",  "400 invalid_value: 'run_background' must be true, false or null"},
      {"n", R"({"retention_class":"A"})",   "400 invalid_value: 'retention_class' may only contain a-z, 0-9, '_' and '-'"},
      {"n", R"({"retention":"0d"})",        "400 invalid_value: 'retention' must be <n>d, <n>w, <n>m, <n>y (n >= 1, "
                                            "at most 100 years), \"forever\" or null"},
      {"n", R"({"command":"maint-prune"})", "403 command_not_allowed: command 'maint-prune' may not be used "
                                            "through the API ([api] allowed-commands)"},
      {"gone", R"({"command":"agent"})",    "403 command_not_allowed: job 'gone' has command 'restore', which "
                                            "the API may not change ([api] allowed-commands)"},
  };
  // clang-format on
  for (const std::string& text :
       {std::string(), std::string(" a"), std::string("a "), std::string("a\\tb"),
        std::string("a\\u007f"), std::string(128, 'a')})
    cases.push_back({"n", R"({"profile":")" + text + "\"}", text_rule});
  for (const char* number : {"10000001", "-1", "5.0", "\"5\"", "true"})
    cases.push_back({"n", std::string(R"({"timeout_seconds":)") + number + "}", number_rule});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + c.body);
    const std::string path = c.name == "a b" ? "a%20b" : c.name;
    EXPECT_EQ(put_job(path, c.body).verdict(), c.verdict);

    std::string body = c.body;
    body.insert(1, R"("name":")" + c.name + (body == "{}" ? "\"" : "\","));
    const Answer checked = send("POST", "validate/job", body, {}, TokenRole::Read);
    EXPECT_EQ(checked.status, 200u);
    EXPECT_EQ(json_boolean(checked.at("valid")), false);
    EXPECT_TRUE(contains(c.verdict, checked.text("result/error/code") + ": " +
                                        checked.text("result/error/message")));
  }
  EXPECT_EQ(config_text(), kConfig);
  const std::string longest(127, 'a');
  EXPECT_EQ(put_job("next", R"({"profile":")" + longest + "\"}").text("job/profile"), longest);
}

TEST_F(WriteEndpoints, ValidatesAJobWithoutWritingAnything) {
  load(kConfig);
  EXPECT_EQ(send("POST", "validate/job", "{}").verdict(),
            "400 invalid_value: 'name' (string) is required");
  EXPECT_EQ(send("POST", "validate/job", R"({"name":"n","after":["base"]})").body,
            R"({"valid":true,"result":null})");
  const Answer bad = send("POST", "validate/job", R"({"name":"base","schedule":"* *"})");
  EXPECT_EQ(bad.text("result/error/code"), "config_invalid");
  EXPECT_TRUE(bad.text("result/error/message").starts_with(live.config_path + ":7: invalid"));
  EXPECT_EQ(config_text(), kConfig);
  EXPECT_FALSE(exists(dir.file("cfg-history")));
  EXPECT_FALSE(live.config_changed);
}

TEST_F(WriteEndpoints, LeavesArgumentsAloneWhenTheyMayNotBeChanged) {
  load(std::string("[api]\nallow-args=no\n") + (kConfig + std::string("# head\n[api]\n").size()));
  constexpr const char* kRefused =
      "403 args_not_allowed: 'args' may not be set or changed through the API ([api] "
      "allow-args=no)";
  EXPECT_EQ(put_job("base", R"({"args":"--all"})").verdict(), kRefused);
  EXPECT_EQ(put_job("base", R"({"args":null})").verdict(), kRefused);
  EXPECT_EQ(put_job("n", R"({"args":"-x","after":["base"]})").verdict(), kRefused);
  EXPECT_EQ(put_job("next", R"({"args":null})").verdict(), "200");
  EXPECT_EQ(put_job("base", R"({"args":"--all \"a b\"","timeout_seconds":7})").verdict(), "200");
  EXPECT_TRUE(contains(config_text(), "args= --all \"a b\"\n"));
}

TEST_F(WriteEndpoints, DeletesAJobThatNothingNeeds) {
  load(kConfig);
  EXPECT_EQ(change("DELETE", "jobs/base").verdict(),
            "409 job_referenced: job 'base' is named in 'after' of job 'next'");
  (void)live.running.job.set("next");
  EXPECT_EQ(change("DELETE", "jobs/next").verdict(), "409 job_running: job 'next' is running");
  live.running.job.clear();
  const Answer gone = change("DELETE", "jobs/next");
  EXPECT_EQ(gone.verdict(), "200");
  EXPECT_EQ(gone.text("config_etag"), tag());
  EXPECT_FALSE(contains(config_text(), "next"));
  EXPECT_EQ(change("DELETE", "jobs/base").verdict(), "200");
  EXPECT_EQ(config_text(), "# head\n[api]\nhistory-keep=2\n[gone]\ncommand=restore\nenabled=no");
}

TEST_F(WriteEndpoints, ChangesTheSchedulerSettings) {
  load(kConfig);
  EXPECT_EQ(
      put_settings("sched", R"({"poll_interval":9,"job_log_keep":0,"busy_retry_seconds":null})"),
      "200");
  EXPECT_TRUE(config_text().ends_with("enabled=no\n\n[sched]\npoll-interval=9\njob-log-keep=0\n"));
  EXPECT_EQ(put_settings("sched", R"({"poll_interval":null})"), "200");
  EXPECT_TRUE(config_text().ends_with("[sched]\njob-log-keep=0\n"));
  EXPECT_EQ(put_settings("sched", R"({"job_log_keep":100000001})"),
            "400 invalid_value: 'job_log_keep' must be an integer 0..100000000 or null");
}

TEST_F(WriteEndpoints, ATextThatStaysAsItIsIsNoChange) {
  load(std::string(kConfig) + "\n[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d\n");
  connect_network_process();
  const std::string before = config_text();
  EXPECT_EQ(change("PUT", "settings/sched", R"({"sched":{}})").text("config_etag"), tag());
  EXPECT_EQ(put_job("base", R"({"schedule":"0 1 * * *"})").text("job/schedule"), "0 1 * * *");
  EXPECT_EQ(config_text(), before);
  EXPECT_FALSE(live.config_changed);
  EXPECT_FALSE(exists(dir.file("cfg-history")));
  EXPECT_EQ(next_mail(), "");
}

TEST_F(WriteEndpoints, ChangesAndRemovesTheMailSettings) {
  load(kConfig);
  const auto put = [this](const std::string& fields) {
    return put_settings("mail",
                        R"({"smtp_host":"mx","from":"a@b","to":["c@d","e@f"])" + fields + "}");
  };
  EXPECT_EQ(put_settings("mail", R"(null)"), "404 not_found: there is no [mail] section");
  EXPECT_EQ(put_settings("mail", R"({"smtp_host":"mx","from":"a@b"})"),
            "400 invalid_value: 'smtp_host', 'from' and 'to' are required");
  EXPECT_EQ(put_settings("mail", R"({"to":[]})"),
            "400 invalid_value: 'to' must be an array of 1..16 addresses");
  EXPECT_EQ(put_settings("mail", R"({"to":["a"]})"),
            "400 invalid_value: 'to' entries must be plain addresses like backup@example.com");
  for (const char* reference : {"file:/etc/shadow", "kms:x"}) {
    EXPECT_EQ(put(std::string(R"(,"smtp_user":"u","smtp_password":")") + reference + "\""),
              "403 forbidden: smtp_password references (file:, kms:) can only be set on the server "
              "itself");
  }
  EXPECT_EQ(put(R"(,"smtp_user":"u","smtp_password":"#hush","smtp_port":0,"timeout_seconds":0,)"
                R"("notify":"inherit","tls":"smtps")"),
            "200");
  const std::string section =
      "\n[mail]\nsmtp-host=mx\ntls=smtps\nsmtp-user=u\nsmtp-password='#hush'\nfrom=a@b\n"
      "to=c@d,e@f\n";
  EXPECT_TRUE(config_text().ends_with(section));
  EXPECT_EQ(put(R"(,"smtp_port":2525,"tls":null)"), "200");  // the password stays
  EXPECT_TRUE(contains(config_text(), "smtp-password='#hush'\n"));
  EXPECT_TRUE(contains(config_text(), "smtp-port=2525\n"));
  EXPECT_FALSE(contains(config_text(), "tls="));
  EXPECT_EQ(put_settings("mail", R"(null)"), "200");
  EXPECT_FALSE(contains(config_text(), "smtp-"));
}

TEST_F(WriteEndpoints, AnnouncesAChangeByMailUnlessToldNotTo) {
  constexpr const char* kMail =
      "[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d\nsmtp-user=u\nsmtp-password=old\n";
  load(kMail);
  connect_network_process();
  EXPECT_EQ(put_settings("mail", R"({"smtp_host":"mx","from":"a@b","to":["c@d"],)"
                                 R"("smtp_user":"v","smtp_password":"new"})"),
            "200");
  const std::string mail = next_mail();
  EXPECT_TRUE(contains(
      mail, ": orv_sched configuration changed via API (updated [mail])\n\nThe orv_sched "));
  EXPECT_TRUE(mail.ends_with(
      " was changed through the API.\n\nChange:  updated [mail]\nToken:   ops\n"
      "Client:  192.0.2.7\nFile:    " +
      live.config_path + "\nHistory: " + dir.file("cfg-history") +
      "\n\n--- changed lines ---\n-    smtp-user=u\n-    smtp-password=***\n+5: smtp-user=v\n"
      "+6: smtp-password=***\n"));
  load(std::string(kMail) + "[api]\nnotify-changes=no\n");
  EXPECT_EQ(put_settings("sched", R"({"poll_interval":5})"), "200");
  EXPECT_EQ(next_mail(), "");
}

TEST_F(WriteEndpoints, RefusesATextThatCouldNotBeReadAgain) {
  std::string config = std::string(kConfig) + "\n";
  while (config.size() < kMaxConfigFile - 60) config += "# a comment that fills the file\n";
  load(config);
  EXPECT_EQ(put_job("n", R"({"after":["base"],"args":"--more-than-what-is-left-of-the-mebibyte"})")
                .verdict(),
            "400 config_invalid: " + live.config_path + " would be larger than 1048576 bytes");
  EXPECT_EQ(config_text(), config);
}

}  // namespace
}  // namespace orv::test
