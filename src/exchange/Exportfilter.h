// The common base of the export filters, the one way a filter reaches its files or a memory stream, and the
// buffer through which filters write.
#pragma once

#include "common/Safewrite.h"
#include "common/Saveandload.h"
#include "common/Tagcontrol.h"
#include "common/parameters/Parametertable.h"
#include "common/parameters/Userparameteradministrator.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class IDataProject;
class IProgressAndCancel;
class TData;
class TExportFilter;
class TMCC;

/// Collects the bytes a filter writes and hands them on in large blocks. A run of bytes is copied whole;
/// a run at least as long as the buffer goes to the callback directly when the buffer is empty. After the
/// callback failed once, every further write fails too.
class TBufferedWriting {
public:
  /// Receives a block; false when it could not be written.
  using TWriteCallback = std::function<bool(const void* data, int64_t size)>;

  TBufferedWriting(int64_t bufferSize, TWriteCallback callback);

  bool Write(const void* data, int64_t size);
  bool Write(const std::string& text) { return Write(text.data(), static_cast<int64_t>(text.size())); }
  /// Hands the buffered bytes to the callback and empties the buffer; the callback's success.
  bool FlushBuffer();
  /// Forgets buffered bytes and a past failure (a new file starts).
  void Reset();

  bool Failed() const { return FFailed; }
  /// Bytes accepted since construction or Reset.
  int64_t BytesWritten() const { return FBytesWritten; }

private:
  std::vector<char> FBuffer;
  int64_t FFill = 0;
  TWriteCallback FCallback;
  bool FFailed = false;
  int64_t FBytesWritten = 0;
};

/// A file written by an export: its name, its size and its place in the target's name list.
struct TExportedFile {
  std::string FileName;
  int64_t Bytes = 0;
  int Index = 0;
};

/// Where an export goes: a list of files, written one after the other (each through the crash-safe write
/// routine, so that a failed file leaves no trace and an older file of that name untouched), or, without
/// a list, one memory stream (the clipboard). Errors are added to the owner filter's error list.
class TExportFilterTarget {
public:
  /// An empty list of names makes a clipboard target. maxSize 0: no limit.
  explicit TExportFilterTarget(std::vector<std::string> fileNames, int64_t maxSize = 0);
  ~TExportFilterTarget();
  TExportFilterTarget(const TExportFilterTarget&) = delete;
  TExportFilterTarget& operator=(const TExportFilterTarget&) = delete;

  void SetOwner(TExportFilter* owner) { FOwner = owner; }
  TExportFilter* GetOwner() const { return FOwner; }
  bool IsClipboard() const { return FClipboard; }
  const std::vector<std::string>& GetFileNames() const { return FFileNames; }
  int64_t GetMaxSize() const { return FMaxSize; }
  /// Whether each file is flushed to disk before it replaces the old one (the default); off only for
  /// measurements and throw-away files.
  void SetSyncToDisk(bool sync) { FSyncToDisk = sync; }

  /// Files: puts the previous file in place and opens the next name; false at the end of the list or when
  /// the file can't be made. Clipboard: makes the memory stream, false when one exists.
  bool NextStream();
  /// Passes over the next name without making a file (an object refused before its file was begun).
  bool SkipStream();
  /// False when the maximum size would be reached or the bytes could not be written; the reason goes to
  /// the error list once.
  bool WriteToStream(const void* data, int64_t size);
  bool SetStreamPosition(int64_t position);
  int64_t GetStreamPosition() const { return FPosition; }
  /// The file being written, empty in clipboard mode or when none is open.
  std::string GetCurrentFileName() const;
  /// Drops the stream being written: in file mode the file is removed (an older one stays as it was).
  void CleanupCurrentStream();
  /// Puts the file being written in place; false (with an error) when that fails. Nothing open: true.
  bool CloseCurrentStream();

  /// Files put in place so far.
  const std::vector<TExportedFile>& GetWrittenFiles() const { return FWritten; }
  /// The clipboard's bytes.
  const TMemoryByteStream* GetMemoryStream() const { return FMemory.get(); }
  int64_t GetBytesInMemory() const { return FBytesInMemory; }

private:
  void AddError(const std::string& text);

  TExportFilter* FOwner = nullptr;
  std::vector<std::string> FFileNames;
  int FNextIndex = 0;
  int FCurrentIndex = -1;
  bool FClipboard = false;
  int64_t FMaxSize = 0;
  int64_t FBytesInMemory = 0;
  int64_t FPosition = 0;
  int64_t FEnd = 0;
  bool FWriteFailed = false;
  bool FSyncToDisk = true;
  std::unique_ptr<TSafeFileWriter> FWriter;
  std::unique_ptr<TMemoryByteStream> FMemory;
  std::vector<TExportedFile> FWritten;
};

/// A file name offered for one object of an export.
struct TFileNamesForObject {
  int32_t ID = 0;
  std::string Caption;
  std::string FileName;
};

/// Target modes of a filter: which choices the file dialog offers.
enum TExportTargetMode : int32_t {
  etmClipboard = 0, ///< clipboard only
  etmOneFile = 1,   ///< one file
  etmSeveralFiles = 2,
};

/// Base of the export filters. A filter declares its parameters once in a table; they live in the
/// administrator under the collection "ExportFilterCollectionParameter" and are kept in the filter's
/// settings file. One export: PrepareForExport, LockDataObjects, DoExport on a worker, UnlockDataObjects.
class TExportFilter {
public:
  static constexpr const char* kCollectionName = "ExportFilterCollectionParameter";
  static constexpr const char* kSettingsIdentification = "ORX_EXPT";
  static constexpr const char* kSettingsTag = "ExportFilterSettings";
  static constexpr const char* kSettingsUserParameterTag = "ExportFilterSettingsUserParameter";
  static constexpr const char* kSettingsCustomTag = "ExportFilterSettingsCustomTags";

  explicit TExportFilter(std::string name);
  virtual ~TExportFilter();
  TExportFilter(const TExportFilter&) = delete;
  TExportFilter& operator=(const TExportFilter&) = delete;

  /// Once after construction: the parameters (with their defaults) and the settings file's path in
  /// settingsFolder ("ExportFilter " + name + " Settings.oxh"); an empty folder keeps no settings file.
  virtual void Initialize(IDataProject* project, const std::string& settingsFolder);
  /// True when every object of ids can be exported; otherwise the reasons are in the error list, one
  /// line per object naming its ID. Sets the target mode.
  virtual bool IsIDListOkay(const TIntList& ids) = 0;
  /// Writes the locked objects to the target; runs on a calculation worker. Failures go to the error list.
  virtual void DoExport(TMCC* mcc) = 0;
  /// One file name per object: the caption with the filter's extension.
  virtual void FillFileNamesForObjectList(std::vector<TFileNamesForObject>& names);
  /// The dialog's file filter ("Matlab Files|*.mat") and the extension with its dot.
  virtual void GetFileFilter(std::string& filter, std::string& extension) const = 0;
  /// Locks the objects of ids in the project; false (with errors) when one is missing.
  virtual bool LockDataObjects(const TIntList& ids);
  virtual void UnlockDataObjects();
  /// Hands the memory stream to the clipboard; the window does that, the base nothing.
  virtual void CopyDataToClipboard() {}
  /// Puts the filter's parameters into administrator: one collection parameter holding the table's.
  virtual void CFICreateParameters(TUserParameterAdministrator& administrator);
  virtual bool CFIParameterIsNewValueAllowed(const TUserParameterList& /*changed*/) { return true; }
  virtual void CFIParameterChanged(const TUserParameterList& /*changed*/, bool /*internalChange*/) {}
  /// Layout lines of the parameter panel ("Push XUnits", "InsertP ...|name"); default: each parameter.
  virtual void CFIGetStyle(std::vector<std::string>& style) const;
  virtual void CFIClearParameterPointer() {}
  /// What a filter keeps beyond its parameters, inside the settings file; the base keeps nothing.
  virtual TTagError SaveToTagFile(TFileHandle /*file*/) { return teNoError; }
  virtual TTagError LoadFromTagFile(TFileHandle /*file*/, const TTagControl* /*parent*/) { return teNoError; }
  /// Classes of objects the filter takes, for listings.
  virtual std::vector<std::string> GetAcceptedClasses() const = 0;
  /// The declared parameters (the same table for every object of the class).
  virtual const TParameterTable& GetParameterTable() const = 0;

  /// Empties the error and info lists.
  void PrepareForExport();
  /// @{ The settings file: written only when the save flag is set (1 at once otherwise; -5 when it can't
  /// be made); read: -6 when missing, -4 for another identification (nothing is taken over).
  TTagError SaveExportFilterSettingsToTagFile();
  TTagError LoadExportFilterSettingsFromTagFile();
  /// @}

  const std::string& GetName() const { return FName; }
  const std::string& GetSettingsFileName() const { return FSettingsFileName; }
  void SetSettingsFileName(const std::string& fileName) { FSettingsFileName = fileName; }
  TExportFilterTarget* GetTarget() const { return FTarget; }
  void SetTarget(TExportFilterTarget* target) { FTarget = target; }
  int32_t GetTargetMode() const { return FTargetMode; }
  bool GetSaveSettings() const { return FSaveSettings; }
  void SetSaveSettings(bool save) { FSaveSettings = save; }
  bool GetSettingsLoaded() const { return FSettingsLoaded; }
  const TIntList& GetIDList() const { return FIDList; }
  /// The parameter interface: a collection parameter that holds the declared parameters.
  TUserParameterAdministrator& GetParameters() { return *FParameters; }
  const TUserParameterAdministrator& GetParameters() const { return *FParameters; }
  /// The administrator that holds the declared parameters themselves (inside the collection).
  const TUserParameterAdministrator* GetDeclaredValues() const;
  TUserParameterAdministrator* GetDeclaredValues();

  /// @{ The lists of an export; safe from the worker and the main thread.
  void AddError(const std::string& text);
  void AddInfo(const std::string& text);
  std::vector<std::string> GetErrorList() const;
  std::vector<std::string> GetInfoList() const;
  /// @}

protected:
  /// The value of a declared parameter; programming error (OrvexException) when it is not declared.
  int32_t GetIntParameter(const std::string& name) const;
  bool GetBoolParameter(const std::string& name) const;
  IDataProject* GetProject() const { return FProject; }
  /// "ID n (caption)" for messages.
  std::string DescribeObject(int32_t id) const;

  std::string FName;
  std::string FSettingsFileName;
  TExportFilterTarget* FTarget = nullptr;
  int32_t FTargetMode = etmOneFile;
  bool FSaveSettings = false;
  bool FSettingsLoaded = false;
  TIntList FIDList;
  /// Objects locked by LockDataObjects, in the order of the ID list.
  std::vector<TData*> FLockedObjects;

private:
  IDataProject* FProject = nullptr;
  std::unique_ptr<TUserParameterAdministrator> FParameters;
  mutable std::mutex FListLock;
  std::vector<std::string> FErrors;
  std::vector<std::string> FInfos;
};
