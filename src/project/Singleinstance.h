// The guard that keeps the workbench to one process per user: a lock file in the runtime folder, and a
// local socket on which the running instance hears the request of a second start to come forward.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

/// One instance per user of a program name. The holder keeps an exclusive lock on "<name>.lock" and listens
/// on "<name>.socket"; the lock dies with the process, so a crashed holder leaves no stale guard.
class TSingleInstanceGuard {
public:
  enum class TResult {
    First,               ///< this process holds the guard now
    OtherBroughtForward, ///< another process holds it and confirmed the request to come forward
    OtherNotReached,     ///< another process holds it but didn't answer
    NoGuard,             ///< the lock file could not be made: the process runs unguarded
  };

  TSingleInstanceGuard(std::string folder, std::string name);
  ~TSingleInstanceGuard();
  TSingleInstanceGuard(const TSingleInstanceGuard&) = delete;
  TSingleInstanceGuard& operator=(const TSingleInstanceGuard&) = delete;

  /// Takes the guard, or asks its holder to come forward. onBringForward runs on the listener's thread
  /// each time a later start asks; the holder hands it on to its main thread.
  TResult Acquire(std::function<void()> onBringForward);
  /// The same; a later start hands over fileName (made absolute; "" for none), and onBringForward of the
  /// holder receives it.
  TResult Acquire(std::function<void(const std::string& fileName)> onBringForward,
                  const std::string& fileName);
  /// Stops listening and gives the guard up; nothing happens when it isn't held.
  void Release();
  bool IsHolder() const { return FLockFile >= 0; }
  const std::string& LockFileName() const { return FLockFileName; }
  const std::string& SocketName() const { return FSocketName; }

  /// Time a second start waits for the holder's answer.
  static constexpr int kAnswerTimeoutMs = 3000;

private:
  bool AskHolderToComeForward(const std::string& fileName) const;
  bool StartListening();
  void Listen();

  std::string FLockFileName;
  std::string FSocketName;
  int FLockFile = -1;
  int FListenSocket = -1;
  int FWakePipe[2] = {-1, -1};
  std::thread FListener;
  std::function<void(const std::string&)> FOnBringForward;
};
