// The system information tree that travels in every project and data file: a record of every program
// version that touched the file, the log file in use, and exceptions that happened.
#pragma once

#include "common/Tagcontrol.h"

#include <memory>
#include <mutex>
#include <string>

class TOrvexSystemInformation {
public:
  TOrvexSystemInformation();

  /// The program version written into version records ("Orvex Project" and the build's version).
  static std::string ProgramName();
  static std::string ProgramVersion();

  void LockSystemTag() { FLock.lock(); }
  void UnlockSystemTag() { FLock.unlock(); }
  /// The tree; use between LockSystemTag and UnlockSystemTag.
  TTagControl& SystemTag() { return *FTree; }

  /// Drops the tree and starts an empty "SystemInformation" list.
  void CreateNewSystemTag();
  void AfterNewProject();
  /// Adds the current version record to the loaded tree.
  void AfterLoadProject();
  void BeforeSaveProject() {}

  void AddVersionInfoToSystemInformation();
  void AddCurrentLogFileToSystemInformation(const std::string& logFileName);
  void AddExceptionToSystemInformation(const std::string& report);

  /// Writes the tree (named "SystemInformation") at the file's position, under the lock.
  TTagError SaveToTagFile(TFileHandle file);
  /// Replaces the tree by the "SystemInformation" tag of parent, under the lock; missing is no error.
  TTagError LoadFromTagFile(TFileHandle file, const TTagControl& parent);
  /// Number of version records in the tree.
  int VersionRecordCount();

private:
  // Appends a list "<group>|<prefix> n" with the next free n and returns it.
  TTagControl* AppendNumbered(const std::string& group, const std::string& prefix);

  std::mutex FLock;
  std::unique_ptr<TTagControl> FTree;
};
