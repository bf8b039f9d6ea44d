#include "api_fixture.h"

namespace orv::test {
namespace {

class RunControl : public ApiFixture {
 protected:
  static constexpr const char* kConfig =
      "[one]\nenabled=no\n[two]\nenabled=no\n[risky]\ncommand=restore\nenabled=no\n";
  Answer post(std::string_view path) { return send("POST", path); }
};

TEST_F(RunControl, QueuesEachJobOnceUpToTheLimit) {
  load(kConfig);
  EXPECT_EQ(post("jobs/none/run").verdict(), "404 not_found: no job named 'none'");
  EXPECT_EQ(post("jobs/risky/run").verdict(),
            "403 command_not_allowed: jobs with command 'restore' may not be started through the "
            "API");
  (void)live.running.job.set("one");
  EXPECT_EQ(post("jobs/one/run").verdict(), "409 job_running: job 'one' is already running");
  live.run_queue.resize(1);
  (void)live.run_queue[0].job.set("other");
  EXPECT_EQ(post("jobs/two/run").body,
            R"({"queued":true,"already_queued":false,"position":2,"running_job":"one"})");
  live.running.job.clear();
  EXPECT_EQ(post("jobs/two/run").body,
            R"({"queued":true,"already_queued":true,"position":2,"running_job":null})");
  ASSERT_EQ(live.run_queue.size(), 2u);
  EXPECT_EQ(live.run_queue[1].token, "ops");
  live.run_queue.resize(kMaxQueuedRuns);
  EXPECT_EQ(post("jobs/one/run").verdict(), "503 run_queue_full: too many queued runs");
  EXPECT_EQ(post("jobs/two/run").status, 200u);
}

TEST_F(RunControl, CancelsTheRunningJobOrAQueuedRun) {
  load(kConfig);
  EXPECT_EQ(post("jobs/one/cancel").verdict(), "409 not_running: job 'one' is not running");
  EXPECT_FALSE(live.running.cancel_requested);  // nor will the next run be hit
  (void)live.running.job.set("risky");
  EXPECT_EQ(post("jobs/risky/cancel").verdict(),
            "403 command_not_allowed: jobs with command 'restore' may not be cancelled through the "
            "API");
  (void)live.running.job.set("one");
  EXPECT_EQ(post("jobs/two/run").status, 200u);
  EXPECT_EQ(post("jobs/two/cancel").body, R"({"cancelled":"queued_run_removed"})");
  EXPECT_TRUE(live.run_queue.empty());
  EXPECT_FALSE(live.running.cancel_requested);
  dir.write("sched.cfg", "broken");  // the running job can be stopped whatever the file says by now
  EXPECT_EQ(post("jobs/one/cancel").body, R"({"cancelled":"stop_requested"})");
  EXPECT_TRUE(live.running.cancel_requested);
  EXPECT_EQ(live.running.cancelled_by, "ops");
}

TEST_F(RunControl, TestMailsNeedMailAndANetworkProcess) {
  load(kConfig);
  EXPECT_EQ(post("mail/test").verdict(),
            "409 mail_not_configured: there is no [mail] section (in the configuration the daemon "
            "has loaded)");
  load("[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d\n");
  EXPECT_EQ(post("mail/test").verdict(), "503 unavailable: mail cannot be sent right now");
  connect_network_process();
  const Answer sent = post("mail/test");
  EXPECT_EQ(sent.verdict(), "202");
  EXPECT_EQ(get("mail/results/" + std::to_string(sent.number("mail_id"))).text("state"), "pending");
  const std::string mail = next_mail();
  EXPECT_TRUE(contains(mail, ": test mail\n\nThis is a test mail from orv_sched on "));
  EXPECT_TRUE(mail.ends_with(", requested through the API by token 'ops' from 192.0.2.7.\n"));
}

TEST_F(RunControl, TellsOfTheLastSixteenTestMails) {
  load(kConfig);
  for (std::uint32_t id = 1; id <= 17; ++id) test_mail_add(live.test_mails, id);
  test_mail_result(live.test_mails, 16, 1, "no such host");
  test_mail_result(live.test_mails, 17, 0, "");
  EXPECT_EQ(get("mail/results/2").body, R"({"mail_id":2,"state":"pending","error":null})");
  EXPECT_EQ(get("mail/results/16").body,
            R"({"mail_id":16,"state":"failed","error":"no such host"})");
  EXPECT_EQ(get("mail/results/17").text("state"), "sent");
  for (const char* id : {"1", "4294967298"}) {
    EXPECT_EQ(get(std::string("mail/results/") + id).verdict(),
              "404 not_found: no such mail (only the last 16 test mails are remembered)");
  }
  for (const char* id : {"0", "2x", "+2", "%202"}) {
    EXPECT_EQ(get(std::string("mail/results/") + id).verdict(), "404 not_found: no such mail");
  }
}

}  // namespace
}  // namespace orv::test
