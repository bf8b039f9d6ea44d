#include "sched/live_state.h"

namespace orv {
void test_mail_add(TestMailRing& ring, std::uint32_t id) {
  TestMail& mail = ring.mails[ring.next % kTestMailsKept];
  mail = {};
  mail.id = id;
  ring.next = (ring.next + 1) % kTestMailsKept;
}

void test_mail_result(TestMailRing& ring, std::uint32_t id, std::uint32_t status,
                      std::string_view error) {
  if (id == 0) return;  // marks a slot that was never used
  for (TestMail& mail : ring.mails) {
    if (mail.id != id) continue;
    mail.state = status == 0 ? TestMailState::Sent : TestMailState::Failed;
    mail.error.set_truncated(error);
    return;
  }
}

const TestMail* test_mail_find(const TestMailRing& ring, std::uint32_t id) {
  if (id == 0) return nullptr;
  for (const TestMail& mail : ring.mails) {
    if (mail.id == id) return &mail;
  }
  return nullptr;
}

}  // namespace orv
