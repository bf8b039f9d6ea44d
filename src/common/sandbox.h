// What a program that speaks to the network gives up before it listens to anybody. A library of its
// own, orv_sandbox: the scheduler has no use for it.
#ifndef ORV_COMMON_SANDBOX_H_
#define ORV_COMMON_SANDBOX_H_

namespace orv {

// No new privileges, no core dumps, no debugger of the same account; the kernel's file rules
// (Landlock) against writing, executing and signals to others; and a filter that leaves only the
// system calls of a network client and server: no new programs, processes, listeners, files or
// executable memory. Each layer that the kernel lacks is left out with one line in the log; nothing
// here fails. Threads started later are bound by it too. Call it once, single-threaded.
void sandbox_enter();

}  // namespace orv

#endif  // ORV_COMMON_SANDBOX_H_
