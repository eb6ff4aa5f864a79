// The project: owner of all data objects and viewers of a run, their IDs, references and files.
#pragma once

#include "common/Tagcontrol.h"
#include "data/Dcursor.h"
#include "data/Dcustom.h"
#include "project/Systeminformation.h"
#include "project/Viewerbase.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a settings file holds: 0 project settings, 1 viewer positions, 2 both.
enum class TSaveProjectSettingsKind : int32_t { ProjectSettings = 0, ViewerPositions = 1, Both = 2 };

/// A component whose settings travel in the project's settings file.
class IConfigurationSet {
public:
  virtual ~IConfigurationSet() = default;
  virtual TTagError SaveConfigurationToTagFile(TFileHandle file) = 0;
  virtual TTagError LoadConfigurationFromTagFile(TFileHandle file, const TTagControl& parent) = 0;
};

class IProgressAndCancel;

/// How a project or data file is written.
struct TProjectSaveOptions {
  /// The file version written: this software's, or TProject::kCompatibleVersion for the form older
  /// versions read.
  int32_t Version = TFileVersion::ThisVersion;
};

/// An object of a loaded file that could not be restored: its index in the file, class and the reason.
struct TFailedObject {
  int32_t Index = 0;
  std::string ClassName;
  std::string Reason;
};

class TProject : public IDataProject {
public:
  TProject();
  ~TProject() override;
  TProject(const TProject&) = delete;
  TProject& operator=(const TProject&) = delete;

  static constexpr int32_t ThisVersion = TFileVersion::ThisVersion;
  /// The version a compatible save writes.
  static constexpr int32_t kCompatibleVersion = 5;
  static bool ShowLockNumber;
  /// File identifications.
  static constexpr const char* kProjectIdentification = "ORX_PR06";
  static constexpr const char* kProjectIdentificationOld = "ORX_PRCT";
  static constexpr const char* kDataIdentification = "ORX_DA06";
  static constexpr const char* kDataIdentificationOld = "ORX_DATA";
  static constexpr const char* kSettingsIdentification = "ORX_PRSE";

  static std::string GetVersionStringForFileVersion(int32_t version);

  // --- Whole project ---------------------------------------------------------------------------

  virtual void ClearProject();
  virtual void NewProject();
  /// Writes the whole project into a file created by the caller (positioned at 0).
  virtual TTagError SaveProjectToTagFile(TFileHandle file);
  /// Reads a whole project into this (cleared) project from a file positioned at 0.
  virtual TTagError LoadProjectFromTagFile(TFileHandle file);
  /// Takes over all objects and viewers of source with their IDs shifted behind this project's.
  virtual void AppendProject(TProject& source);

  /// Loads a project file by name into this project (cleared first); sets the file name on success.
  TTagError LoadProjectFromFile(const std::string& fileName);
  /// Saves the project by name through a temporary file, so that a failed save leaves the old file intact.
  TTagError SaveProjectToFile(const std::string& fileName, const TProjectSaveOptions& options = {});
  /// The same for a data file of the given objects (those whose save mode keeps them).
  TTagError SaveDataListToFile(const std::string& fileName, const TDataList& list,
                               const TProjectSaveOptions& options = {});
  /// One line naming the file and the reason why the last load or save by name failed; empty after success.
  const std::string& LastFileErrorText() const { return FLastFileErrorText; }

  virtual TTagError SaveProjectSettingsToTagFile(TFileHandle file, TSaveProjectSettingsKind kind);
  virtual TTagError LoadProjectSettingsFromTagFile(TFileHandle file, TSaveProjectSettingsKind kind);
  virtual TTagError SaveOnlyProjectSettingsToTagFile(TFileHandle file);
  virtual TTagError LoadOnlyProjectSettingsFromTagFile(TFileHandle file, const TTagControl& parent);

  /// Saves the objects of list that their save mode keeps, under "Data" (one worker, in list order).
  virtual TTagError SaveDataToTagFile(TFileHandle file, const TDataList& list);
  /// Loads "Data" of parent into list (sorted by ID); unknown classes leave gaps.
  virtual TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent,
                                        std::vector<std::unique_ptr<TData>>& list);
  virtual TTagError SaveViewerToTagFile(TFileHandle file);
  virtual TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent);
  /// A data file of the given objects.
  virtual TTagError SaveDataListToTagFile(TFileHandle file, const TDataList& list);
  /// Reads a data file: objects renumbered behind this project's IDs, not added; the caller owns them.
  /// With keepIDs the objects keep the IDs of the file (a data file opened on its own) instead of moving
  /// behind this project's.
  virtual TTagError LoadDataListFromTagFile(TFileHandle file, std::vector<std::unique_ptr<TData>>& list,
                                            bool keepIDs = false);
  virtual TTagError SaveShellExtensionInfo(TFileHandle file);
  virtual TTagError LoadShellExtensionInfo(TFileHandle file, const TTagControl& parent);

  // --- Changes ---------------------------------------------------------------------------------

  virtual void DataChangeToAll(TDataChangeInfo info);
  /// Routes a change of data to every viewer and every other object.
  virtual void DataChange(TData* data, TDataChangeInfo info);
  virtual void ExchangeID(int32_t oldID, int32_t newID);
  virtual void AskForDataChangeInformation();
  virtual void SendViewerMessage(int32_t message, int32_t id);
  virtual void CleanWrongDataConnections();

  // --- IDs and ownership -----------------------------------------------------------------------

  virtual void FindNextDataID();
  int32_t GetNewDataID() override;
  int32_t GetNextDataID() const { return FNextDataID; }
  void SetNextDataID(int32_t id) { FNextDataID = id; }
  /// False if two objects share an ID; highest receives the highest ID.
  bool UniqueIDTest(int32_t& highest) const;
  /// Takes ownership; an ID of 0 is reported but the object is added all the same.
  void AddData(std::unique_ptr<TData> data) override;
  /// Takes ownership of an object that already has its ID.
  virtual void OwnData(std::unique_ptr<TData> data);
  /// Clears project and callback of an object.
  virtual void UnOwnData(TData* data);
  virtual void FillIDListWithDependencies(TIntList& idList);

  /// Locks and returns the object of id, null when unknown.
  TData* LockData(int32_t id) override;
  virtual void UnlockData(int32_t id);
  void UnlockData(TData* data) override;

  // --- Lookups (every returned object is locked once; hand the list back to a Release call) ------

  TDataList GetDataListByClassName(const std::string& className);
  TDataList GetDataListByIDList(const TIntList& idList);
  TDataList GetDataListByIDListAndClassName(const TIntList& idList, const std::string& className);
  TDataList GetDataListByIDListAndClassNames(const TIntList& idList,
                                             const std::vector<std::string>& classNames);
  /// Objects of the ID list whose class is or derives from className.
  TDataList GetDataListByIDListInheritingFrom(const TIntList& idList, const std::string& className);
  void ReleaseDataList(TDataList& list);

  /// Typed list of the objects of idList that are a T (locked); release with ReleaseTypedList.
  template <class T>
  std::vector<T*> GetTypedDataListByIDList(const TIntList& idList) {
    std::vector<T*> result;
    for (int32_t id : idList)
      if (TData* data = FindData(id))
        if (auto* typed = dynamic_cast<T*>(data)) {
          typed->Lock();
          result.push_back(typed);
        }
    return result;
  }
  template <class T>
  void ReleaseTypedList(std::vector<T*>& list) {
    for (T* data : list) UnlockData(data);
    list.clear();
  }

  TIntList GetIDListOfAllData(bool filterByMode = false,
                              TDataSaveMode mode = TDataSaveMode::Always) const override;
  TIntList GetIDListByClassName(const std::string& className, int32_t minExclusive = 0,
                                int32_t maxInclusive = INT32_MAX) const override;
  TIntList GetIDListByClassNameWithoutHardwareData(const std::string& className, int32_t minExclusive = 0,
                                                   int32_t maxInclusive = INT32_MAX) const;
  TIntList GetIDListByIDListAndClassName(const std::string& className, const TIntList& idList) const;
  TIntList GetIDListByUsedID(int32_t id) const;
  TIntList GetIDListByClassNameAndUsedID(const std::string& className, int32_t id) const;
  int32_t ToggleToNextDataID(int32_t id) const;
  int32_t ToggleToPriorDataID(int32_t id) const;

  virtual bool IsDataUsed(int32_t id) const;
  bool DataIDExists(int32_t id) const override { return FindData(id) != nullptr; }
  bool IsIDInheritFrom(int32_t id, const std::string& className) const override;
  std::string GetClassNameByID(int32_t id) const override;
  std::string UsedByListAsString(int32_t id) const;
  int32_t GetFirstIDByClassName(const std::string& className) const;
  /// Deletes the object of id; false (with a message) when it is locked. Unknown IDs give true.
  virtual bool DeleteData(int32_t id);
  /// Removes the object without freeing it; null for an unknown ID.
  virtual std::unique_ptr<TData> DeleteDataAndReturnPointer(int32_t id);
  int32_t MakeOrGetFirstIDByClassName(const std::string& className) override;
  TData* MakeOrGetFirstDataByClassName(const std::string& className);

  /// Unlocked access by ID (for code that holds the object only for the moment of the call).
  TData* FindData(int32_t id) const override;
  const std::vector<std::unique_ptr<TData>>& DataList() const { return FDataList; }
  static void AddDataSortedToList(std::unique_ptr<TData> data, std::vector<std::unique_ptr<TData>>& list);

  // --- Cursor locks ----------------------------------------------------------------------------

  bool ChangeCursorToLock(int32_t id, const void* locker, TDCursorParts parts) {
    return FCursorLocks.ChangeCursorToLock(id, locker, parts);
  }
  bool ChangeCursorToUnlock(int32_t id, const void* locker) {
    return FCursorLocks.ChangeCursorToUnlock(id, locker);
  }
  bool IsCursorLockedByObject(int32_t id, const void* locker) const {
    return FCursorLocks.IsCursorLockedByObject(id, locker);
  }
  int32_t GetNumberOfLockCursors() const { return FCursorLocks.GetNumberOfLockCursors(); }
  /// Fired with a cursor's ID when its lock holder changed.
  std::function<void(int32_t)> OnCursorLockChange;

  // --- Viewers ---------------------------------------------------------------------------------

  void AddViewer(std::unique_ptr<TVCustomForm> viewer);
  std::unique_ptr<TVCustomForm> ReleaseViewer(TVCustomForm* viewer);
  void CheckAndDeleteViewers();
  TVCustomForm* GetFirstViewerByClassName(const std::string& className) const;
  std::vector<TVCustomForm*> GetViewerListByClassName(const std::string& className) const;
  std::vector<TVCustomForm*> GetAllViewersWithoutHardwareAndDialog() const;
  const std::vector<std::unique_ptr<TVCustomForm>>& ViewerList() const { return FViewerList; }
  /// Places a viewer through OnSetViewerPosition (nothing without it).
  void SetViewerPosition(TVCustomForm* viewer, bool recalculating);
  /// Places every viewer waiting since the last load or append, hands each to OnShowViewer without the
  /// focus, and forgets them.
  void RepositionViewersAfterLoad();
  /// The viewer at index in the list, null out of range.
  TVCustomForm* GetViewer(size_t index) const;
  /// The workbench's placement of viewers and its showing of loaded ones; unset: nothing happens.
  std::function<void(TVCustomForm*, bool)> OnSetViewerPosition;
  /// Placement of a viewer that came from a file (unset: SetViewerPosition).
  std::function<void(TVCustomForm*)> OnPlaceLoadedViewer;
  std::function<void(TVCustomForm*)> OnShowViewer;

  // --- State -----------------------------------------------------------------------------------

  void SetFileName(const std::string& name);
  const std::string& GetFileName() const { return FFileName; }
  void SetProjectChanged(bool changed);
  bool GetProjectChanged() const { return FProjectChanged; }
  void ProjectChangedForSave(const TVCustomForm* viewer);
  /// Any graph, image, bitmap or text that isn't hardware data.
  bool ProjectHasData() const;
  bool EmptyProjectSaveOK();
  bool NewerVersionLoadOK(int32_t version);
  bool NewerVersionSaveOK();
  bool IsLargeObject(int32_t id) const;
  bool IsLargeObjectInList(const TIntList& idList) const;
  int32_t GetLoadedVersion() const { return FLoadedVersion; }
  int32_t GetFileVersion() const { return FFileVersion; }
  bool IsLoading() const { return FLoading; }
  void SetWithoutProjectManager(bool value) { FWithoutProjectManager = value; }
  TOrvexSystemInformation& SystemInformation() { return FSystemInformation; }
  /// Objects of the last load whose class this program doesn't know: index in the file and class name.
  const std::vector<std::pair<int32_t, std::string>>& SkippedObjects() const { return FSkippedObjects; }
  /// Objects of the last load that are known but could not be restored (damaged, too large); each was
  /// reported in the log and through the message proxy.
  const std::vector<TFailedObject>& FailedObjects() const { return FFailedObjects; }
  /// True when the last load stopped because it was cancelled (the objects read so far stay).
  bool LoadWasCancelled() const { return FLoadCancelled; }

  void AddConfigurationSet(IConfigurationSet* set) { FConfigurationSets.push_back(set); }
  int32_t GetModeIndex() const { return FModeIndex; }
  void SetModeIndex(int32_t index) { FModeIndex = index; }
  const std::string& GetDataPath() const { return FDataPath; }
  void SetDataPath(const std::string& path) { FDataPath = path; }
  bool GetShowPlusFeatures() const { return FShowPlusFeatures; }

  /// 24-bit thumbnail, rows top-down, blue-green-red, no padding.
  struct TThumbnail {
    int32_t SizeX = 0;
    int32_t SizeY = 0;
    std::vector<uint8_t> Pixels;
    bool Valid = false;
  };
  TThumbnail& Thumbnail() { return FThumbnail; }

  /// Events; unset ones are skipped.
  std::function<void()> OnClear;
  std::function<void()> OnAfterNewOrLoad;
  std::function<void()> OnFileNameOrChangedState;
  std::function<void(TData*, TDataChangeInfo)> OnDataChange;
  /// Asked for a thumbnail when none is valid at save time (the workbench draws one from a viewer).
  std::function<bool(TThumbnail&)> OnDrawThumbnail;

private:
  /// The next (direction 1) or prior (-1) object of the same class in list order, wrapping around.
  int32_t ToggleDataID(int32_t id, int direction) const;
  TTagError SaveDataObjects(TFileHandle file, const TDataList& list, IProgressAndCancel* progress);
  TTagError LoadDataObjects(TFileHandle file, const TTagControl& dataTag,
                            std::vector<std::unique_ptr<TData>>& list, IProgressAndCancel* progress);
  bool ShouldSave(const TData& data) const;
  TDataList SaveableObjects(const TDataList& list) const;
  TTagError SaveToFileSafely(const std::string& fileName, const TProjectSaveOptions& options,
                             const std::function<TTagError(TFileHandle)>& writer);
  void ReportFailedObjects(size_t from);

  std::vector<std::string> FModeNames;
  int32_t FModeIndex = -1;
  int32_t FLoadedVersion = -1;
  std::vector<IConfigurationSet*> FConfigurationSets;
  TThumbnail FThumbnail;
  TOrvexSystemInformation FSystemInformation;
  int32_t FNextDataID = 1;
  bool FLoading = false;
  bool FClearing = false;
  bool FCreatingNew = false;
  int32_t FFileVersion = 0;
  std::string FFileName;
  std::vector<std::unique_ptr<TData>> FDataList;
  /// The objects of FDataList that act on other objects' changes of every kind (connectors); the rest act
  /// only on removals. Kept beside the list so that a change costs the listeners, not the whole project.
  std::vector<TData*> FChangeListeners;
  void TrackAddedData(TData* data);
  void TrackRemovedData(TData* data);
  std::vector<std::unique_ptr<TVCustomForm>> FViewerList;
  std::vector<TVCustomForm*> FViewersToReposition;
  bool FWithoutProjectManager = false;
  bool FClosingViewers = false;
  bool FProjectChanged = false;
  std::string FDataPath;
  bool FShowPlusFeatures = true;
  std::vector<std::pair<int32_t, std::string>> FSkippedObjects;
  std::vector<TFailedObject> FFailedObjects;
  bool FLoadCancelled = false;
  std::string FLastFileErrorText;
  TCursorLockManager FCursorLocks{*this};
};
