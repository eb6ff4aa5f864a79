// Linux thread priority, affinity and thread ids.
#include "common/threads/Threadplatform.h"

#include <bit>
#include <cerrno>

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace oxthreads {

namespace {

TAffinityMask CpuSetToMask(const cpu_set_t& set) {
  TAffinityMask mask = 0;
  for (int cpu = 0; cpu < 64 && cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &set)) mask |= TAffinityMask{1} << cpu;
  return mask;
}

cpu_set_t MaskToCpuSet(TAffinityMask mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int cpu = 0; cpu < 64; ++cpu)
    if (mask & (TAffinityMask{1} << cpu)) CPU_SET(cpu, &set);
  return set;
}

} // namespace

pid_t CurrentThreadTid() {
  return static_cast<pid_t>(::syscall(SYS_gettid));
}

TAffinityMask GetProcessAffinityMask() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(::getpid(), sizeof(set), &set) != 0) return 1;
  const TAffinityMask mask = CpuSetToMask(set);
  return mask != 0 ? mask : 1;
}

int CountProcessors(TAffinityMask mask) {
  return std::popcount(mask);
}

bool SetThreadAffinity(pid_t tid, TAffinityMask mask) {
  if (mask == 0) return false;
  const cpu_set_t set = MaskToCpuSet(mask);
  return ::sched_setaffinity(tid, sizeof(set), &set) == 0;
}

bool GetThreadAffinity(pid_t tid, TAffinityMask& mask) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(tid, sizeof(set), &set) != 0) return false;
  mask = CpuSetToMask(set);
  return true;
}

bool IsValidThreadPriority(int priority) {
  switch (priority) {
  case -15:
  case -2:
  case -1:
  case 0:
  case 1:
  case 2:
  case 15:
    return true;
  default:
    return false;
  }
}

int ThreadPriorityToNice(int priority) {
  switch (priority) {
  case -15:
    return 19;
  case -2:
    return 10;
  case -1:
    return 5;
  case 1:
    return -5;
  case 2:
    return -10;
  case 15:
    return -20;
  default:
    return 0;
  }
}

int NiceToThreadPriority(int nice) {
  if (nice >= 15) return -15;
  if (nice >= 8) return -2;
  if (nice >= 3) return -1;
  if (nice > -3) return 0;
  if (nice > -8) return 1;
  if (nice > -15) return 2;
  return 15;
}

bool SetThreadPriority(pid_t tid, int priority) {
  if (tid == 0) tid = CurrentThreadTid();
  // On Linux the nice value is a property of each thread, addressed by its kernel id.
  return ::setpriority(PRIO_PROCESS, static_cast<id_t>(tid), ThreadPriorityToNice(priority)) == 0;
}

bool GetThreadNice(pid_t tid, int& nice) {
  if (tid == 0) tid = CurrentThreadTid();
  errno = 0;
  const int value = ::getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (value == -1 && errno != 0) return false;
  nice = value;
  return true;
}

bool CanLowerNiceTo(int nice) {
  if (::geteuid() == 0) return true;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NICE, &limit) != 0) return false;
  // RLIMIT_NICE allows nice values down to 20 - rlim_cur.
  const long floor = limit.rlim_cur == RLIM_INFINITY ? -20 : 20 - static_cast<long>(limit.rlim_cur);
  return nice >= floor;
}

} // namespace oxthreads
