// Faults of a thread, which a host's crash handler hears of.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_FAULTS_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_FAULTS_H_

#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <ostream>

namespace lumso_test {

struct Fault {
  const char* name;
  int signal;
  void (*commit)();
};

inline void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

// Reads from a page of `file` (-1: of none) that is not there.
inline void ReadMissingPage(int protection, int flags, int file) {
  constexpr size_t kPage = 4096;
  void* page = mmap(nullptr, kPage, protection, flags | MAP_PRIVATE, file, 0);
  *static_cast<volatile char*>(page);
}

// Where the processor has no instruction of a kind that is the same on all, the
// thread sends itself the signal: blocked, that does not arrive either.
inline constexpr Fault kFaults[] = {
    {"SIGSEGV", SIGSEGV, [] { ReadMissingPage(PROT_NONE, MAP_ANONYMOUS, -1); }},
    {"SIGBUS", SIGBUS,
     [] { ReadMissingPage(PROT_READ, 0, memfd_create("empty", 0)); }},
#ifdef __x86_64__
    {"SIGFPE", SIGFPE,
     [] {
       asm volatile("idivl %0" : : "r"(0) : "eax", "edx", "cc");
     }},
    {"SIGILL", SIGILL, [] { asm volatile("ud2"); }},
    {"SIGTRAP", SIGTRAP, [] { asm volatile("int3"); }},
#else
    {"SIGFPE", SIGFPE, [] { raise(SIGFPE); }},
    {"SIGILL", SIGILL, [] { raise(SIGILL); }},
    {"SIGTRAP", SIGTRAP, [] { raise(SIGTRAP); }},
#endif
    {"SIGSYS", SIGSYS, [] { raise(SIGSYS); }},
    // Not abort(), which opens its signal by itself in glibc before 2.41.
    {"SIGABRT", SIGABRT, [] { raise(SIGABRT); }},
};

// The signals of all of them as bits, as the kernel shows a thread's mask.
inline uint64_t FaultSignals() {
  uint64_t bits = 0;
  for (const Fault& fault : kFaults) bits |= uint64_t{1} << (fault.signal - 1);
  return bits;
}

inline thread_local sigjmp_buf after_fault;

// Commits a fault on the calling thread and returns whether a handler of the
// process ran there, which gets the thread out of it. A process that has the
// signal of a real fault blocked ends here.
inline bool ReachesTheCrashHandler(const Fault& fault) {
  struct sigaction handler = {};
  struct sigaction before = {};
  handler.sa_handler = [](int) { siglongjmp(after_fault, 1); };
  sigaction(fault.signal, &handler, &before);
  volatile bool reached = false;
  if (sigsetjmp(after_fault, 1) == 0) {
    fault.commit();
  } else {
    reached = true;
  }
  sigaction(fault.signal, &before, nullptr);
  return reached;
}

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_FAULTS_H_
