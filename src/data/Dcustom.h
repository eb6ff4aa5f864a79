// The base of every data object of a project, and the registry that turns stored class names into objects.
#pragma once

#include "common/Tagcontrol.h"
#include "data/Dataexchange.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class IProgressAndCancel;
class TDataField;
class TData;

/// The file version of this software, and the one being written: 6, or 5 while a compatible save runs.
/// Classes that changed in version 6 write their older form while SaveVersion is below 6. Only the
/// project's save call sets SaveVersion (from its options), for the time of that save.
struct TFileVersion {
  static constexpr int32_t ThisVersion = 6;
  static inline int32_t SaveVersion = ThisVersion;
};

/// How an object travels with the project's file.
enum class TDataSaveMode : int32_t {
  Always = 0,        ///< always saved; a change marks the project changed
  WhileUsed = 1,     ///< saved while another object or a viewer uses it
  Never = 2,         ///< never saved; a change doesn't mark the project changed
  HardwareOwned = 3, ///< owned by the acquisition side: never saved, left out of user lists
};

/// What a change notification announces.
enum class TDataChangeInfo : int32_t {
  Added = 0,
  Removed = 1,
  Unused = 2,
  DataChanged = 3,
  HistoryChanged = 4,
  CaptionChanged = 5,
  AboutToBeDeleted = 6,
};

/// What data objects need of the project that owns them; the project implements it. Data objects refer
/// to each other by ID and reach each other only through these calls.
class IDataProject {
public:
  virtual ~IDataProject() = default;
  virtual bool DataIDExists(int32_t id) const = 0;
  /// True when the object of id is of className or derives from it.
  virtual bool IsIDInheritFrom(int32_t id, const std::string& className) const = 0;
  virtual std::string GetClassNameByID(int32_t id) const = 0;
  /// Unlocked access for the moment of a call; null when unknown.
  virtual TData* FindData(int32_t id) const = 0;
  /// Locks and returns the object of id; null when unknown. Give it back with UnlockData.
  virtual TData* LockData(int32_t id) = 0;
  virtual void UnlockData(TData* data) = 0;
  virtual int32_t GetNewDataID() = 0;
  /// Takes ownership of a new object.
  virtual void AddData(std::unique_ptr<TData> data) = 0;
  /// The ID of the first object of exactly this class, made and added when there is none; 0 when the class
  /// can't be made.
  virtual int32_t MakeOrGetFirstIDByClassName(const std::string& className) = 0;
  /// IDs of the objects of exactly this class, in list order, with minExclusive < ID <= maxInclusive.
  virtual TIntList GetIDListByClassName(const std::string& className, int32_t minExclusive = 0,
                                        int32_t maxInclusive = INT32_MAX) const = 0;
  /// All IDs in list order, or those of one save mode.
  virtual TIntList GetIDListOfAllData(bool filterByMode = false,
                                      TDataSaveMode mode = TDataSaveMode::Always) const = 0;
};

/// History entry types; 2 marks an ID change, the others are as the callers give them.
using THistoryEntryType = int32_t;
inline constexpr THistoryEntryType kHistoryEntryIDChange = 2;

/// One line of an object's history: when, what, and of which type.
struct THistoryEntry {
  /// year, month, day, hour, minute, second, millisecond
  std::array<uint16_t, 7> Date{};
  std::string Text;
  THistoryEntryType Type = 0;

  /// An entry dated now.
  static THistoryEntry Now(const std::string& text, THistoryEntryType type);
  bool operator==(const THistoryEntry&) const = default;
};

/// What marks an object as a tool's result: its caption, the tool's suffix after it, the history line that
/// says how it was made, and how it travels with the project's file.
struct TResultInfo {
  /// The result's caption before the suffix; empty: the template's caption.
  std::string Caption;
  /// Appended to the caption, e.g. " (Background Subtracted)".
  std::string CaptionSuffix;
  /// The history entry of the result; empty: none.
  std::string HistoryText;
  THistoryEntryType HistoryType = 0;
  TDataSaveMode SaveMode = TDataSaveMode::Always;
};

using TDataChangeCallback = std::function<void(TData*, TDataChangeInfo)>;
using TDataList = std::vector<TData*>;

/// Base of all data objects: ID, caption, history, metadata, save mode, lock number, change notification.
class TData {
public:
  using TFactory = std::function<std::unique_ptr<TData>()>;

  TData();
  virtual ~TData();
  TData(const TData&) = delete;
  TData& operator=(const TData&) = delete;

  static constexpr int32_t ThisVersion = 0;

  // --- Virtual operations ----------------------------------------------------------------------

  /// The object's data field; null for objects without one.
  virtual TDataField* GetDataField() { return nullptr; }
  virtual TTagError SaveDataToTagFile(TFileHandle file);
  virtual TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent);
  virtual void BeforeClearProject() {}
  virtual void AddToHistoryList(const std::string& text, THistoryEntryType type);
  /// Another object of the project changed.
  virtual void DataChanged(TData* /*sender*/, TDataChangeInfo /*info*/) {}
  virtual void CaptionChanged(bool /*byUser*/) {}
  virtual void DoDataUpdate() {}
  virtual void AfterOnDataChange() {}
  /// True if this object refers to id.
  virtual bool IsDataUsed(int32_t /*id*/) const { return false; }
  /// Renumbering: adds delta to the own ID (and, in subclasses, to every stored reference).
  virtual void AddToID(int32_t delta);
  /// Clears references that point to nothing in the project.
  virtual void CleanWrongDataConnections() {}
  virtual void ExchangeID(int32_t /*oldID*/, int32_t /*newID*/) {}
  /// An ID list was dropped on the object; the base refuses.
  virtual bool IDListDropAccept(const TIntList& /*idList*/) const { return false; }
  virtual void IDListDrop(const TIntList& /*idList*/) {}
  /// The class name as stored in files.
  virtual std::string GetClassNameA() const = 0;
  /// True when this object's class is className or derives from it.
  virtual bool InheritsFrom(std::string_view className) const { return className == "TData"; }
  virtual void DoDataChange(TDataChangeInfo info);
  virtual void SetCaption(const std::string& caption);
  virtual void SetAutoDataChange(bool on);
  virtual void SetImageIndex(int32_t index) { FImageIndex = index; }
  virtual int32_t GetImageIndex() const { return FImageIndex; }
  /// Which group of objects this is, for the project's lists.
  virtual int32_t GetDataCategory() const = 0;
  /// The IDs this object refers to, each with its name ("SpaceTransformationID", ...), for listings.
  virtual std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const { return {}; }
  /// True for objects so large that tools start without an automatic preview.
  virtual bool IsLargeObject() const { return false; }

  // --- Plain operations ------------------------------------------------------------------------

  void SetUserCaption(const std::string& caption);
  const std::string& GetCaption() const { return FCaption; }
  int32_t GetID() const { return FID; }
  void SetID(int32_t id) { FID = id; }
  IDataProject* GetProject() const { return FProject; }
  void SetProject(IDataProject* project) { FProject = project; }
  void SetOnDataChange(TDataChangeCallback callback) { FOnDataChange = std::move(callback); }
  TDataSaveMode GetSaveMode() const { return FSaveMode; }
  void SetSaveMode(TDataSaveMode mode) { FSaveMode = mode; }
  int32_t GetLockNumber() const { return FLockNumber; }
  void Lock() { ++FLockNumber; }
  void Unlock() { --FLockNumber; }
  bool GetAutoDataChange() const { return FAutoDataChange; }
  bool IsDataChangePending() const { return FPendingDataChange; }
  const std::vector<THistoryEntry>& GetHistoryList() const { return FHistoryList; }
  /// Replaces the history without notification (copying a source's history into a result).
  void SetHistoryList(std::vector<THistoryEntry> history) { FHistoryList = std::move(history); }
  TTagControl& GetMetaData() { return FMetaData; }
  const TTagControl& GetMetaData() const { return FMetaData; }
  /// The progress channel of whoever loads or saves the object now, null otherwise: the object shows its
  /// caption on it, streams its arrays with its sub level's figures and stops when it is cancelled.
  IProgressAndCancel* GetProgress() const { return FProgress; }
  void SetProgress(IProgressAndCancel* progress) { FProgress = progress; }
  int32_t GetVersion() const { return FVersion; }

  /// @{ Data exchange with a measurement: one writer marks the pixels it changed, readers take the marks
  /// (see TDataExchangeHolder). A second writer raises OrvexException. A data change (3) of an object with
  /// readers but no writer marks every pixel changed, since the change doesn't say which pixels it touched.
  void RegisterDataWriter(const void* writer) { DataExchange().RegisterWriter(writer); }
  void UnRegisterDataWriter(const void* writer) { DataExchange().UnRegisterWriter(writer); }
  void RegisterDataReader(const void* reader, std::function<void()> wake) {
    DataExchange().RegisterReader(reader, std::move(wake));
  }
  void UnRegisterDataReader(const void* reader) { DataExchange().UnRegisterReader(reader); }
  /// The object's exchange, made on first use (on the main thread, before readers' threads run).
  TDataExchangeHolder& DataExchange();
  bool HasDataExchange() const { return FExchange != nullptr; }
  /// @}

  /// Adds delta to a referenced ID unless it is 0, so that a missing reference stays missing.
  static void SafeAddToDataID(int32_t& id, int32_t delta) {
    if (id != 0) id += delta;
  }

  // --- Registry --------------------------------------------------------------------------------

  /// Registers a factory under a class name; a name registered already is ignored.
  static void RegisterDataObject(const std::string& className, TFactory factory);
  /// A new object of the class, or null when the name is unknown.
  static std::unique_ptr<TData> CreateDataObjectByName(const std::string& className);
  static void DeleteRegisteredDataObjectList();
  /// The registered names in registration order.
  static std::vector<std::string> RegisteredDataObjectNames();

protected:
  /// Shows the caption on the progress channel while one is set.
  void ShowCaptionAsProgress();

private:
  TTagError LoadHistoryList(TFileHandle file, const TTagControl& dataTag);

  std::vector<THistoryEntry> FHistoryList;
  IDataProject* FProject = nullptr;
  int32_t FLockNumber = 0;
  TDataSaveMode FSaveMode = TDataSaveMode::Always;
  TTagControl FMetaData{"MetaData", TTagKind::TagList};
  bool FPendingDataChange = false;
  int32_t FImageIndex = -1;
  IProgressAndCancel* FProgress = nullptr;
  TDataChangeCallback FOnDataChange;
  int32_t FVersion = 0;
  std::unique_ptr<TDataExchangeHolder> FExchange;
  std::string FCaption;
  bool FAutoDataChange = true;
  int32_t FID = 0;
};

/// Gives a new result its caption (baseCaption unless info names one, then the suffix), its save mode and
/// its history entry. Made before the result is filled, while no one else sees it.
void ApplyResultInfo(TData& result, const std::string& baseCaption, const TResultInfo& info);

/// Hands a finished result to the project, which announces it ("Added") to every object and viewer.
/// Returns the result, now owned by the project.
template <class T>
T* AddResultToProject(IDataProject& project, std::unique_ptr<T> result) {
  T* raw = result.get();
  if (raw) project.AddData(std::move(result));
  return raw;
}

/// Declares the class-name plumbing of a data class: its stored name, inheritance test and factory.
#define ORVEX_DATA_CLASS(ClassName, ParentName)                                                              \
public:                                                                                                      \
  static constexpr const char* kClassName = #ClassName;                                                      \
  std::string GetClassNameA() const override {                                                               \
    return kClassName;                                                                                       \
  }                                                                                                          \
  bool InheritsFrom(std::string_view className) const override {                                             \
    return className == kClassName || ParentName::InheritsFrom(className);                                   \
  }                                                                                                          \
  static std::unique_ptr<TData> CreateDataObject() {                                                         \
    return std::make_unique<ClassName>();                                                                    \
  }
