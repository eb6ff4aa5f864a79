// Thin layer over the Linux calls for thread priority, processor affinity and thread ids.
#pragma once

#include <cstdint>

#include <sys/types.h>

namespace oxthreads {

/// Processor set as a bit mask over the first 64 processors (bit i = processor i).
using TAffinityMask = std::uint64_t;

/// Kernel id of the calling thread (what setpriority and sched_setaffinity address).
pid_t CurrentThreadTid();

/// Processors the process may use, restricted to the first 64; never 0 (falls back to processor 0).
TAffinityMask GetProcessAffinityMask();
/// Number of bits set in mask.
int CountProcessors(TAffinityMask mask);

/// Restricts the thread tid (0: the calling thread) to mask; false when the platform refuses.
bool SetThreadAffinity(pid_t tid, TAffinityMask mask);
/// Reads the processor set of thread tid (0: the calling thread); false when the platform refuses.
bool GetThreadAffinity(pid_t tid, TAffinityMask& mask);

/// True for the thread priorities the system knows: -15 (idle), -2, -1 (below normal), 0, 1, 2, 15.
bool IsValidThreadPriority(int priority);
/// Nice value that stands for a thread priority: 19, 10, 5, 0, -5, -10, -20; other values give 0.
int ThreadPriorityToNice(int priority);
/// Thread priority whose nice value is nearest to nice.
int NiceToThreadPriority(int nice);

/// Sets the thread priority of thread tid (0: the calling thread) through its nice value. Raising a
/// priority above normal, or back after lowering it, needs privileges; false when refused.
bool SetThreadPriority(pid_t tid, int priority);
/// Reads the nice value of thread tid (0: the calling thread); false on error.
bool GetThreadNice(pid_t tid, int& nice);
/// True when the calling process may set a thread's nice value back down to nice after raising it
/// (privileged, or allowed by RLIMIT_NICE).
bool CanLowerNiceTo(int nice);

} // namespace oxthreads
