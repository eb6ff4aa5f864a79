// The project: IDs, the reference graph between objects, change routing, and the project, data and
// settings files.
#include "project/Project.h"

#include "common/Logfile.h"
#include "common/OrvexException.h"
#include "common/Safewrite.h"
#include "common/Standardmessage.h"
#include "common/threads/Multicorecalc.h"

#include <algorithm>
#include <set>

bool TProject::ShowLockNumber = false;

namespace {

bool AskYesNo(const std::string& text, const std::string& caption,
              TStandardMessageSeverityCategory severity) {
  return AskUserYesNo(text, caption, severity);
}

void Notify(const std::string& text, const std::string& caption, TStandardMessageSeverityCategory severity) {
  NotifyUser(text, caption, severity, true);
}

// Runs job on one calculation worker while the calling thread keeps the user interface alive; the
// progress form shows when the job takes longer than 100 ms. One worker: a file position can't be shared.
TTagError RunOnWorker(const std::string& caption, const std::function<TTagError(TMCC*)>& job) {
  TTagError result = teUnspecificError;
  TMCC mcc(
      caption, [&](TMCC* controller, int) { result = job(controller); }, 1);
  mcc.SetProgressMainCaption(caption);
  mcc.ShowSubProgress = true; // the share of the current object: one graph may be most of the file
  mcc.StartThreads(1);
  mcc.WaitAndShowProgressOnDelay(100);
  return result;
}

const char* kDataTag = "Data";
const char* kViewerTag = "Viewer";

} // namespace

TProject::TProject() {
  FSystemInformation.AfterNewProject();
  FCursorLocks.OnCursorLockChange = [this](int32_t id) {
    if (OnCursorLockChange) OnCursorLockChange(id);
  };
}

TProject::~TProject() {
  // Viewers first: they may hold IDs of objects.
  FViewerList.clear();
  FDataList.clear();
  FChangeListeners.clear();
}

std::string TProject::GetVersionStringForFileVersion(int32_t version) {
  switch (version) {
  case 1:
    return "Orvex Project < 1.96, Orvex Control < 1.50";
  case 2:
    return "Orvex Project 1.96, Orvex Control 1.50";
  case 3:
    return "Orvex Project 2.04, Orvex Control 1.54";
  case 4:
    return "Orvex Project 2.06, Orvex Control 1.56";
  case 5:
    return "Orvex Project 2.08/2.10, Orvex Control 1.58/2.10";
  case 6:
    return "Orvex Project 4.0, Orvex Control 4.0";
  default:
    return "Unknown version \"" + std::to_string(version) + "\"";
  }
}

// ---------------------------------------------------------------------------------------------
// Whole project

void TProject::ClearProject() {
  FClearing = true;
  SetProjectChanged(false);
  SetFileName("");
  FLoadedVersion = -1;
  // A viewer may remove itself: restart the walk whenever the list changed.
  for (size_t i = 0; i < FViewerList.size();) {
    const size_t before = FViewerList.size();
    FViewerList[i]->BeforeClearProject();
    i = FViewerList.size() == before ? i + 1 : 0;
  }
  // Each object exactly once, although the list may change under the walk.
  std::set<TData*> done;
  for (bool restart = true; restart;) {
    restart = false;
    for (size_t i = 0; i < FDataList.size(); ++i) {
      TData* data = FDataList[i].get();
      if (done.insert(data).second) {
        const size_t before = FDataList.size();
        data->BeforeClearProject();
        if (FDataList.size() != before) {
          restart = true;
          break;
        }
      }
    }
  }
  if (OnClear) OnClear();
  FCursorLocks.ReleaseAllLocks();
  FDataList.clear();
  FChangeListeners.clear();
  FClosingViewers = true;
  while (!FViewerList.empty()) FViewerList.erase(FViewerList.begin());
  FClosingViewers = false;
  FViewersToReposition.clear();
  FNextDataID = 1;
  FThumbnail = TThumbnail{};
  FClearing = false;
}

void TProject::NewProject() {
  FCreatingNew = true;
  SetProjectChanged(false);
  ClearProject();
  if (OnAfterNewOrLoad) OnAfterNewOrLoad();
  SetFileName("");
  FSystemInformation.AfterNewProject();
  FCreatingNew = false;
}

TTagError TProject::SaveProjectToTagFile(TFileHandle file) {
  FSystemInformation.BeforeSaveProject();
  TTagError result = SaveIdentificationToFile(file, TFileVersion::SaveVersion < 6 ? kProjectIdentificationOld
                                                                                  : kProjectIdentification);
  if (result < 1) return result;
  TTagControl root, t;
  if ((result = root.WriteTag(file, "Orvex Project", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = FSystemInformation.SaveToTagFile(file)) < 1 ||
      (result = t.SaveIntTag(file, "NextDataID", FNextDataID)) < 1 ||
      (result = SaveShellExtensionInfo(file)) < 1)
    return result;
  TDataList all;
  for (const auto& data : FDataList) all.push_back(data.get());
  if ((result = SaveDataToTagFile(file, all)) < 1 || (result = SaveViewerToTagFile(file)) < 1) return result;
  if ((result = root.CloseWriteTag(file)) < 1) return result;
  SetProjectChanged(false);
  FLoadedVersion = ThisVersion;
  return teNoError;
}

TTagError TProject::LoadProjectFromTagFile(TFileHandle file) {
  FLoading = true;
  struct TClearLoading {
    bool& Flag;
    ~TClearLoading() { Flag = false; }
  } clearLoading{FLoading};

  std::string identification;
  TTagError result = LoadIdentificationFromFile(file, identification);
  if (result < 1) return result;
  if (identification != kProjectIdentification && identification != kProjectIdentificationOld)
    return teWrongFileIdentification;
  TTagControl root, t;
  std::string rootName;
  if ((result = root.ReadTag(file, rootName)) < 1) return result;
  t.LoadOrDefaultIntTag(file, "Version", root, &FFileVersion, 1, 0);
  if (!NewerVersionLoadOK(FFileVersion)) return teWrongFileVersion;
  FLoadedVersion = FFileVersion;
  FSystemInformation.LoadFromTagFile(file, root);
  t.LoadOrDefaultIntTag(file, "NextDataID", root, &FNextDataID, 1, 0);
  LoadShellExtensionInfo(file, root);

  std::vector<std::unique_ptr<TData>> loaded;
  FSkippedObjects.clear();
  FFailedObjects.clear();
  FLoadCancelled = false;
  result = LoadDataFromTagFile(file, root, loaded);
  for (auto& data : loaded) OwnData(std::move(data));
  ReportFailedObjects(0);
  TTagControl viewers;
  if (viewers.FindTag(file, kViewerTag, root) == teNoError) LoadViewerFromTagFile(file, viewers);
  AskForDataChangeInformation();
  if (OnAfterNewOrLoad) OnAfterNewOrLoad();
  SetProjectChanged(false);
  FSystemInformation.AfterLoadProject();
  return result;
}

void TProject::AppendProject(TProject& source) {
  FLoadedVersion =
      FLoadedVersion < 0 ? source.FLoadedVersion : std::min(FLoadedVersion, source.FLoadedVersion);
  const int32_t delta = FNextDataID;
  for (auto& data : source.FDataList) data->AddToID(delta);
  for (auto& viewer : source.FViewerList) viewer->AddToID(delta);
  FNextDataID += source.FNextDataID;
  std::vector<std::unique_ptr<TData>> taken = std::move(source.FDataList);
  source.FDataList.clear();
  source.FChangeListeners.clear();
  for (auto& data : taken) AddData(std::move(data));
  while (!source.FViewerList.empty()) {
    std::unique_ptr<TVCustomForm> viewer = std::move(source.FViewerList.front());
    source.FViewerList.erase(source.FViewerList.begin());
    // A stored viewer of an unknown class can't follow the renumbering: its references would be wrong.
    if (!viewer->CanRenumber()) continue;
    TVCustomForm* raw = viewer.get();
    AddViewer(std::move(viewer));
    FViewersToReposition.push_back(raw);
  }
}

TTagError TProject::SaveToFileSafely(const std::string& fileName, const TProjectSaveOptions& options,
                                     const std::function<TTagError(TFileHandle)>& writer) {
  // The objects ask which form to write while this save runs; afterwards the current form holds again.
  struct TVersionScope {
    int32_t Previous = TFileVersion::SaveVersion;
    explicit TVersionScope(int32_t version) { TFileVersion::SaveVersion = version; }
    ~TVersionScope() { TFileVersion::SaveVersion = Previous; }
  } version(options.Version);
  FLastFileErrorText.clear();
  // A failure, a cancel or an exception leaves the old file as it was; only the unfinished new one goes.
  const TTagError result = WriteFileSafely(fileName, writer, &FLastFileErrorText);
  if (result >= 1) FLastFileErrorText.clear();
  return result;
}

TTagError TProject::SaveProjectToFile(const std::string& fileName, const TProjectSaveOptions& options) {
  const TTagError result =
      SaveToFileSafely(fileName, options, [this](TFileHandle file) { return SaveProjectToTagFile(file); });
  if (result >= 1) SetFileName(fileName);
  return result;
}

TTagError TProject::LoadProjectFromFile(const std::string& fileName) {
  FLastFileErrorText.clear();
  ClearLastFileError();
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle) {
    FLastFileErrorText = "cannot open '" + fileName + "': " + FileErrorReason(LastFileError());
    return teCreateFileForReadError;
  }
  ClearProject();
  TTagError result = teUnspecificError;
  try {
    result = LoadProjectFromTagFile(file);
  } catch (...) {
    CloseFile(file);
    throw;
  }
  CloseFile(file);
  if (result >= 1) SetFileName(fileName);
  return result;
}

TTagError TProject::SaveDataListToFile(const std::string& fileName, const TDataList& list,
                                       const TProjectSaveOptions& options) {
  return SaveToFileSafely(fileName, options,
                          [&](TFileHandle file) { return SaveDataListToTagFile(file, list); });
}

// ---------------------------------------------------------------------------------------------
// Objects in files

bool TProject::ShouldSave(const TData& data) const {
  switch (data.GetSaveMode()) {
  case TDataSaveMode::Always:
    return true;
  case TDataSaveMode::WhileUsed:
    return IsDataUsed(data.GetID());
  default:
    return false;
  }
}

TDataList TProject::SaveableObjects(const TDataList& list) const {
  TDataList result;
  for (TData* data : list)
    if (data && ShouldSave(*data)) result.push_back(data);
  return result;
}

TTagError TProject::SaveDataToTagFile(TFileHandle file, const TDataList& list) {
  const TDataList saveable = SaveableObjects(list);
  return RunOnWorker("Saving Project Data", [&](TMCC* mcc) { return SaveDataObjects(file, saveable, mcc); });
}

TTagError TProject::SaveDataObjects(TFileHandle file, const TDataList& list, IProgressAndCancel* progress) {
  TTagControl dataTag, t;
  TTagError result = dataTag.WriteTag(file, kDataTag, TTagKind::TagList);
  if (result < 1) return result;
  int32_t n = 0;
  for (TData* data : list) {
    SetProgress(progress, n, static_cast<int64_t>(list.size()));
    if (IsCancelled(progress)) return teUnspecificError; // a cancelled save: the caller keeps the old file
    if ((result = t.SaveAnsiStringTag(file, "DataClassName " + std::to_string(n), data->GetClassNameA())) < 1)
      return result;
    TTagControl objectTag;
    if ((result = objectTag.WriteTag(file, "Data " + std::to_string(n), TTagKind::TagList)) < 1)
      return result;
    data->SetProgress(progress);
    result = data->SaveDataToTagFile(file);
    data->SetProgress(nullptr);
    if (result < 1) return result;
    if ((result = objectTag.CloseWriteTag(file)) < 1) return result;
    ++n;
  }
  if ((result = t.SaveIntTag(file, "NumberOfData", n)) < 1) return result;
  return dataTag.CloseWriteTag(file);
}

TTagError TProject::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent,
                                        std::vector<std::unique_ptr<TData>>& list) {
  TTagControl dataTag;
  if (dataTag.FindTag(file, kDataTag, parent) != teNoError) return teNoError; // no "Data": an empty project
  const TTagError result = RunOnWorker("Loading Project Data",
                                       [&](TMCC* mcc) { return LoadDataObjects(file, dataTag, list, mcc); });
  // A cancel that came before the worker started ends the load as well.
  if (result < 1 && TMCC::ProcessCancelRequested()) FLoadCancelled = true;
  return result;
}

TTagError TProject::LoadDataObjects(TFileHandle file, const TTagControl& dataTag,
                                    std::vector<std::unique_ptr<TData>>& list, IProgressAndCancel* progress) {
  TTagControl t;
  int32_t count = -1;
  // A count whose value was cut off by a truncated file counts as missing, and so does one larger than the
  // tag could hold (each object needs two tags of at least 24 bytes): a corrupt count mustn't hang the load.
  const bool counted = t.LoadIntTag(file, "NumberOfData", dataTag, &count, 1) == teNoError && count >= 0 &&
                       t.End() <= FileSize(file) && int64_t(count) * 48 <= dataTag.End() - dataTag.Begin();
  TTagError result = teNoError;
  // With "NumberOfData" objects 0 … n-1 are tried; without it (a truncated file) until a class name is
  // missing, so that as much as possible is recovered.
  for (int32_t i = 0; counted ? i < count : true; ++i) {
    SetProgress(progress, i, counted ? count : 0);
    if (IsCancelled(progress)) break; // a cancelled load keeps the objects read so far: a consistent project
    std::string className;
    if (t.LoadAnsiStringTag(file, "DataClassName " + std::to_string(i), dataTag, className) != teNoError) {
      if (!counted) break;
      continue;
    }
    std::unique_ptr<TData> data = TData::CreateDataObjectByName(className);
    if (!data) {
      FSkippedObjects.emplace_back(i, className); // a class unknown to this program leaves a gap
      continue;
    }
    data->SetAutoDataChange(false);
    TTagControl objectTag;
    std::string reason;
    result = objectTag.FindTag(file, "Data " + std::to_string(i), dataTag);
    if (result == teNoError) {
      data->SetProgress(progress);
      try {
        result = data->LoadDataFromTagFile(file, objectTag);
      } catch (const std::bad_alloc&) {
        result = teUnspecificError;
        reason = "not enough memory (try --memory mmf)";
      } catch (const OrvexExceptionMemoryAllocation& e) {
        // The memory strategy refused the arrays: the file is fine, the memory is short.
        result = teUnspecificError;
        reason = std::string(e.what()) + " (try --memory mmf)";
      } catch (const std::exception& e) {
        // Too large for the memory strategy, say: this object goes, the others load.
        result = teUnspecificError;
        reason = e.what();
      }
      data->SetProgress(nullptr);
    } else {
      reason = "its contents are missing";
    }
    if (result >= 1) {
      data->SetAutoDataChange(true);
      AddDataSortedToList(std::move(data), list);
    } else {
      if (IsCancelled(progress)) break; // cancelled half way: not damage
      if (reason.empty()) reason = GetTagErrorName(result);
      FFailedObjects.push_back({i, className, reason});
    }
  }
  // What could not be restored is in FailedObjects; the load itself went through the whole list.
  FLoadCancelled = IsCancelled(progress);
  return FLoadCancelled ? teUnspecificError : teNoError;
}

TTagError TProject::SaveViewerToTagFile(TFileHandle file) {
  TTagControl viewerTag, t;
  TTagError result = viewerTag.WriteTag(file, kViewerTag, TTagKind::TagList);
  if (result < 1) return result;
  int32_t n = 0;
  for (const auto& viewer : FViewerList) {
    if (viewer->GetMode() != TViewerMode::Normal) continue;
    if ((result =
             t.SaveAnsiStringTag(file, "ViewerClassName " + std::to_string(n), viewer->GetClassNameA())) < 1)
      return result;
    TTagControl one;
    if ((result = one.WriteTag(file, "Viewer " + std::to_string(n), TTagKind::TagList)) < 1 ||
        (result = viewer->SaveViewerToTagFile(file)) < 1 || (result = one.CloseWriteTag(file)) < 1)
      return result;
    ++n;
  }
  if ((result = t.SaveIntTag(file, "NumberOfViewer", n)) < 1) return result;
  return viewerTag.CloseWriteTag(file);
}

TTagError TProject::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl t;
  int32_t count = 0;
  t.LoadOrDefaultIntTag(file, "NumberOfViewer", parent, &count, 1, 0);
  // Each viewer needs two tags of at least 24 bytes: a larger count is corrupt and can't hang the load.
  count = static_cast<int32_t>(std::clamp<int64_t>(count, 0, (parent.End() - parent.Begin()) / 48));
  for (int32_t i = 0; i < count; ++i) {
    std::string className;
    if (t.LoadAnsiStringTag(file, "ViewerClassName " + std::to_string(i), parent, className) != teNoError)
      continue;
    if (FWithoutProjectManager && className == "TVProjectManagerForm") continue;
    TTagControl one;
    if (one.FindTag(file, "Viewer " + std::to_string(i), parent) != teNoError) continue;
    std::unique_ptr<TVCustomForm> viewer = TVCustomForm::CreateViewerByName(className);
    if (!viewer) viewer = std::make_unique<TVStoredViewer>(className);
    // An unknown or failing viewer is dropped; the others load.
    if (viewer->LoadViewerFromTagFile(file, one) < 1) continue;
    viewer->SetProject(this);
    FViewersToReposition.push_back(viewer.get());
    FViewerList.push_back(std::move(viewer));
  }
  return teNoError;
}

TTagError TProject::SaveDataListToTagFile(TFileHandle file, const TDataList& list) {
  TTagError result = SaveIdentificationToFile(file, TFileVersion::SaveVersion < 6 ? kDataIdentificationOld
                                                                                  : kDataIdentification);
  if (result < 1) return result;
  TTagControl root, t;
  if ((result = root.WriteTag(file, "Orvex Data", TTagKind::TagList)) < 1 ||
      (result = t.SaveIntTag(file, "Version", ThisVersion)) < 1 ||
      (result = FSystemInformation.SaveToTagFile(file)) < 1 || (result = SaveDataToTagFile(file, list)) < 1)
    return result;
  return root.CloseWriteTag(file);
}

void TProject::ReportFailedObjects(size_t from) {
  for (size_t i = from; i < FFailedObjects.size(); ++i) {
    const TFailedObject& failed = FFailedObjects[i];
    const std::string text = "Data " + std::to_string(failed.Index) + " (" + failed.ClassName +
                             ") could not be loaded: " + failed.Reason;
    if (GlobalLogFile) GlobalLogFile->AddLog("TProject: " + text, TLogLevel::Warning);
    Notify(text, "Loading Error", kSeverityWarning);
  }
}

TTagError TProject::LoadDataListFromTagFile(TFileHandle file, std::vector<std::unique_ptr<TData>>& list,
                                            bool keepIDs) {
  std::string identification;
  TTagError result = LoadIdentificationFromFile(file, identification);
  if (result < 1) return result;
  if (identification != kDataIdentification && identification != kDataIdentificationOld)
    return teWrongFileIdentification;
  TTagControl root, t;
  std::string rootName;
  if ((result = root.ReadTag(file, rootName)) < 1) return result;
  int32_t version = 0;
  t.LoadOrDefaultIntTag(file, "Version", root, &version, 1, 0);
  if (version > ThisVersion) return teWrongFileVersion; // a data file is refused at once, without a question
  FFileVersion = version;
  TProject temporary;
  temporary.FLoading = true;
  std::vector<std::unique_ptr<TData>> loaded;
  result = temporary.LoadDataFromTagFile(file, root, loaded);
  for (auto& data : loaded) temporary.OwnData(std::move(data));
  // A data file may refer to objects that weren't saved with it.
  temporary.CleanWrongDataConnections();
  temporary.FindNextDataID();
  FFailedObjects = temporary.FFailedObjects;
  FSkippedObjects = temporary.FSkippedObjects;
  FLoadCancelled = temporary.FLoadCancelled;
  ReportFailedObjects(0);
  if (keepIDs) {
    FNextDataID = std::max(FNextDataID, temporary.FNextDataID);
  } else {
    for (auto& data : temporary.FDataList) data->AddToID(FNextDataID);
    FNextDataID += temporary.FNextDataID;
  }
  for (auto& data : temporary.FDataList) {
    temporary.UnOwnData(data.get());
    list.push_back(std::move(data));
  }
  temporary.FDataList.clear();
  temporary.FChangeListeners.clear();
  return result;
}

TTagError TProject::SaveShellExtensionInfo(TFileHandle file) {
  TTagControl info;
  TTagError result = info.WriteTag(file, "ShellExtensionInfo", TTagKind::TagList);
  if (result < 1) return result;
  if (!FThumbnail.Valid && OnDrawThumbnail) FThumbnail.Valid = OnDrawThumbnail(FThumbnail);
  const int64_t bytes = int64_t(FThumbnail.SizeX) * FThumbnail.SizeY * 3;
  if (FThumbnail.Valid && bytes > 0 && static_cast<int64_t>(FThumbnail.Pixels.size()) == bytes) {
    TTagControl bitmap, t;
    if ((result = bitmap.WriteTag(file, "ThumbnailPreviewBitmap", TTagKind::TagList)) < 1 ||
        (result = t.SaveIntTag(file, "SizeX", FThumbnail.SizeX)) < 1 ||
        (result = t.SaveIntTag(file, "SizeY", FThumbnail.SizeY)) < 1 ||
        (result = t.SaveIntTag(file, "BitsPerPixel", 24)) < 1 ||
        (result = t.SaveByteTag(file, "BitmapData", FThumbnail.Pixels.data(), bytes)) < 1 ||
        (result = bitmap.CloseWriteTag(file)) < 1)
      return result;
  }
  return info.CloseWriteTag(file);
}

TTagError TProject::LoadShellExtensionInfo(TFileHandle file, const TTagControl& parent) {
  FThumbnail = TThumbnail{};
  TTagControl info, bitmap, t;
  if (info.FindTag(file, "ShellExtensionInfo", parent) != teNoError ||
      bitmap.FindTag(file, "ThumbnailPreviewBitmap", info) != teNoError)
    return teNoError;
  int32_t sizeX = 0, sizeY = 0, bits = 0;
  t.LoadOrDefaultIntTag(file, "SizeX", bitmap, &sizeX, 1, 0);
  t.LoadOrDefaultIntTag(file, "SizeY", bitmap, &sizeY, 1, 0);
  t.LoadOrDefaultIntTag(file, "BitsPerPixel", bitmap, &bits, 1, 0);
  if (sizeX <= 0 || sizeY <= 0 || bits != 24 || t.FindTag(file, "BitmapData", bitmap) != teNoError)
    return teNoError;
  const int64_t bytes = int64_t(sizeX) * sizeY * 3;
  if (bytes > t.End() - t.Begin()) return teNoError;
  FThumbnail.Pixels.resize(static_cast<size_t>(bytes));
  if (LoadByteFromFile(file, FThumbnail.Pixels.data(), bytes) < 1) return teNoError;
  FThumbnail.SizeX = sizeX;
  FThumbnail.SizeY = sizeY;
  FThumbnail.Valid = true;
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Settings files

TTagError TProject::SaveProjectSettingsToTagFile(TFileHandle file, TSaveProjectSettingsKind kind) {
  TTagError result = SaveIdentificationToFile(file, kSettingsIdentification);
  if (result < 1) return result;
  TTagControl root, settings;
  if ((result = root.WriteTag(file, "OrvexProjectSettings", TTagKind::TagList)) < 1 ||
      (result = settings.WriteTag(file, "ProjectSettings", TTagKind::TagList)) < 1)
    return result;
  // Viewer positions come with the viewers; only the project's own settings are written here.
  if (kind != TSaveProjectSettingsKind::ViewerPositions &&
      (result = SaveOnlyProjectSettingsToTagFile(file)) < 1)
    return result;
  if ((result = settings.CloseWriteTag(file)) < 1) return result;
  return root.CloseWriteTag(file);
}

TTagError TProject::LoadProjectSettingsFromTagFile(TFileHandle file, TSaveProjectSettingsKind kind) {
  std::string identification;
  TTagError result = LoadIdentificationFromFile(file, identification);
  if (result < 1) return result;
  if (identification != kSettingsIdentification)
    return teTagNotFound; // the settings loader answers -1 here, unlike the project loader
  TTagControl root, settings;
  std::string rootName;
  if ((result = root.ReadTag(file, rootName)) < 1) return result;
  if (settings.FindTag(file, "ProjectSettings", root) != teNoError &&
      (result = settings.FindTag(file, "FormSettings", root)) != teNoError)
    return result;
  if (kind != TSaveProjectSettingsKind::ViewerPositions)
    return LoadOnlyProjectSettingsFromTagFile(file, settings);
  return teNoError;
}

TTagError TProject::SaveOnlyProjectSettingsToTagFile(TFileHandle file) {
  TTagError result = teNoError;
  for (IConfigurationSet* set : FConfigurationSets)
    if ((result = set->SaveConfigurationToTagFile(file)) < 1) return result;
  TTagControl t;
  if ((result = t.SaveIntTag(file, "LastModeIndex", FModeIndex)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "DataPath", FDataPath)) < 1)
    return result;
  return t.SaveBoolTag(file, "ShowPlusFeatures", FShowPlusFeatures);
}

TTagError TProject::LoadOnlyProjectSettingsFromTagFile(TFileHandle file, const TTagControl& parent) {
  for (IConfigurationSet* set : FConfigurationSets) set->LoadConfigurationFromTagFile(file, parent);
  TTagControl t;
  t.LoadOrDefaultIntTag(file, "LastModeIndex", parent, &FModeIndex, 1, 0);
  t.LoadOrDefaultAnsiStringTag(file, "DataPath", parent, FDataPath, FDataPath);
  t.LoadOrDefaultBoolTag(file, "ShowPlusFeatures", parent, &FShowPlusFeatures, 1, true);
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Changes

void TProject::DataChangeToAll(TDataChangeInfo info) {
  for (size_t i = 0; i < FDataList.size(); ++i) {
    TData* data = FDataList[i].get();
    data->Lock();
    DataChange(data, info);
    data->Unlock();
  }
}

void TProject::DataChange(TData* data, TDataChangeInfo info) {
  if (!FLoading &&
      (data->GetSaveMode() == TDataSaveMode::Always || data->GetSaveMode() == TDataSaveMode::WhileUsed) &&
      !data->InheritsFrom("TDCursor") && !data->InheritsFrom("TDZInterpretation"))
    SetProjectChanged(true);
  data->Lock();
  FCursorLocks.DataChange(data, info); // a cursor being removed releases its lock holder
  for (size_t i = 0; i < FViewerList.size(); ++i) FViewerList[i]->DataChanged(data, info);
  if (info == TDataChangeInfo::Removed) {
    // A removal concerns every object that may refer to the removed one.
    for (size_t i = 0; i < FDataList.size(); ++i)
      if (FDataList[i].get() != data) FDataList[i]->DataChanged(data, info);
  } else {
    // Other changes concern only the objects that pass them on (connectors to their tools): data objects
    // act on nothing but removals, and telling each of them of each addition made building a project of n
    // objects cost n² calls. A listener may add or remove objects while it is told, so the walk is over a
    // copy.
    const std::vector<TData*> listeners = FChangeListeners;
    for (TData* listener : listeners)
      if (listener != data &&
          std::find(FChangeListeners.begin(), FChangeListeners.end(), listener) != FChangeListeners.end())
        listener->DataChanged(data, info);
  }
  if (OnDataChange) OnDataChange(data, info);
  data->Unlock();
}

void TProject::TrackAddedData(TData* data) {
  if (data->InheritsFrom("TDConnector")) FChangeListeners.push_back(data);
}

void TProject::TrackRemovedData(TData* data) {
  std::erase(FChangeListeners, data);
}

void TProject::ExchangeID(int32_t oldID, int32_t newID) {
  for (auto& viewer : FViewerList) viewer->ExchangeID(oldID, newID);
  for (auto& data : FDataList) data->ExchangeID(oldID, newID);
}

void TProject::AskForDataChangeInformation() {
  for (auto& viewer : FViewerList) viewer->DoDataUpdate();
  for (auto& data : FDataList) data->DoDataUpdate();
}

void TProject::SendViewerMessage(int32_t message, int32_t id) {
  for (auto& viewer : FViewerList)
    if (viewer->IsDataUsed(id)) viewer->RecieveViewerMessage(message);
}

void TProject::CleanWrongDataConnections() {
  for (size_t i = 0; i < FDataList.size(); ++i) {
    TData* data = FDataList[i].get();
    data->Lock();
    data->CleanWrongDataConnections();
    data->Unlock();
  }
}

// ---------------------------------------------------------------------------------------------
// IDs and ownership

void TProject::FindNextDataID() {
  int32_t highest = 0;
  UniqueIDTest(highest);
  FNextDataID = std::max(1, highest) + 1;
}

int32_t TProject::GetNewDataID() {
  return FNextDataID++;
}

bool TProject::UniqueIDTest(int32_t& highest) const {
  highest = 0;
  bool unique = true;
  std::set<int32_t> seen;
  for (const auto& data : FDataList) {
    highest = std::max(highest, data->GetID());
    unique = seen.insert(data->GetID()).second && unique;
  }
  return unique;
}

void TProject::AddDataSortedToList(std::unique_ptr<TData> data, std::vector<std::unique_ptr<TData>>& list) {
  // In front of the first higher ID; equal IDs stay in insertion order. The list is sorted by ID (it only
  // grows here, and renumbering shifts all IDs alike), so a binary search finds the place, and an object with
  // the highest ID so far, the usual case, goes to the end at once.
  const int32_t id = data->GetID();
  if (list.empty() || list.back()->GetID() <= id) {
    list.push_back(std::move(data));
    return;
  }
  auto it = std::upper_bound(list.begin(), list.end(), id,
                             [](int32_t value, const auto& other) { return value < other->GetID(); });
  list.insert(it, std::move(data));
}

void TProject::AddData(std::unique_ptr<TData> data) {
  if (!data) return;
  TData* raw = data.get();
  raw->SetProject(this);
  if (raw->GetID() == 0)
    Notify("TProject::AddData:\n\nID of Data Object \"" + raw->GetCaption() + "\" is 0!", "Error",
           kSeverityError);
  AddDataSortedToList(std::move(data), FDataList);
  TrackAddedData(raw);
  raw->SetOnDataChange([this](TData* d, TDataChangeInfo info) { DataChange(d, info); });
  raw->DoDataChange(TDataChangeInfo::Added);
}

void TProject::OwnData(std::unique_ptr<TData> data) {
  if (!data) return;
  TData* raw = data.get();
  raw->SetProject(this);
  raw->SetOnDataChange([this](TData* d, TDataChangeInfo info) { DataChange(d, info); });
  AddDataSortedToList(std::move(data), FDataList);
  TrackAddedData(raw);
  raw->DoDataChange(TDataChangeInfo::Added);
}

void TProject::UnOwnData(TData* data) {
  if (!data) return;
  data->SetProject(nullptr);
  data->SetOnDataChange(nullptr);
}

void TProject::FillIDListWithDependencies(TIntList& idList) {
  for (bool added = true; added;) {
    added = false;
    for (size_t m = 0; m < idList.size() && !added; ++m) {
      TData* member = LockData(idList[m]);
      if (!member) continue;
      for (const auto& candidate : FDataList) {
        const int32_t id = candidate->GetID();
        if (std::find(idList.begin(), idList.end(), id) != idList.end()) continue;
        if (member->IsDataUsed(id)) {
          idList.push_back(id);
          added = true; // start over from the first member
          break;
        }
      }
      UnlockData(member);
    }
  }
}

TData* TProject::FindData(int32_t id) const {
  for (const auto& data : FDataList)
    if (data->GetID() == id) return data.get();
  return nullptr;
}

TData* TProject::LockData(int32_t id) {
  TData* data = FindData(id);
  if (data) data->Lock();
  return data;
}

void TProject::UnlockData(int32_t id) {
  if (TData* data = FindData(id)) data->Unlock();
}

void TProject::UnlockData(TData* data) {
  if (data) data->Unlock();
}

// ---------------------------------------------------------------------------------------------
// Lookups

TDataList TProject::GetDataListByClassName(const std::string& className) {
  TDataList list;
  for (const auto& data : FDataList)
    if (data->GetClassNameA() == className) {
      data->Lock();
      list.push_back(data.get());
    }
  return list;
}

TDataList TProject::GetDataListByIDList(const TIntList& idList) {
  TDataList list;
  for (int32_t id : idList)
    if (TData* data = LockData(id)) list.push_back(data);
  return list;
}

TDataList TProject::GetDataListByIDListAndClassName(const TIntList& idList, const std::string& className) {
  return GetDataListByIDListAndClassNames(idList, {className});
}

TDataList TProject::GetDataListByIDListAndClassNames(const TIntList& idList,
                                                     const std::vector<std::string>& classNames) {
  TDataList list;
  for (int32_t id : idList) {
    TData* data = FindData(id);
    if (data && std::find(classNames.begin(), classNames.end(), data->GetClassNameA()) != classNames.end()) {
      data->Lock();
      list.push_back(data);
    }
  }
  return list;
}

TDataList TProject::GetDataListByIDListInheritingFrom(const TIntList& idList, const std::string& className) {
  TDataList list;
  for (int32_t id : idList) {
    TData* data = FindData(id);
    if (data && data->InheritsFrom(className)) {
      data->Lock();
      list.push_back(data);
    }
  }
  return list;
}

void TProject::ReleaseDataList(TDataList& list) {
  for (TData* data : list) UnlockData(data);
  list.clear();
}

TIntList TProject::GetIDListOfAllData(bool filterByMode, TDataSaveMode mode) const {
  TIntList ids;
  for (const auto& data : FDataList)
    if (!filterByMode || data->GetSaveMode() == mode) ids.push_back(data->GetID());
  return ids;
}

TIntList TProject::GetIDListByClassName(const std::string& className, int32_t minExclusive,
                                        int32_t maxInclusive) const {
  TIntList ids;
  for (const auto& data : FDataList)
    if (data->GetClassNameA() == className && data->GetID() > minExclusive && data->GetID() <= maxInclusive)
      ids.push_back(data->GetID());
  return ids;
}

TIntList TProject::GetIDListByClassNameWithoutHardwareData(const std::string& className, int32_t minExclusive,
                                                           int32_t maxInclusive) const {
  TIntList ids;
  for (const auto& data : FDataList)
    if (data->GetClassNameA() == className && data->GetSaveMode() != TDataSaveMode::HardwareOwned &&
        data->GetID() > minExclusive && data->GetID() <= maxInclusive)
      ids.push_back(data->GetID());
  return ids;
}

TIntList TProject::GetIDListByIDListAndClassName(const std::string& className, const TIntList& idList) const {
  TIntList ids;
  for (int32_t id : idList) {
    const TData* data = FindData(id);
    if (data && data->GetClassNameA() == className) ids.push_back(id);
  }
  return ids;
}

TIntList TProject::GetIDListByUsedID(int32_t id) const {
  TIntList ids;
  for (const auto& data : FDataList)
    if (data->IsDataUsed(id)) ids.push_back(data->GetID());
  return ids;
}

TIntList TProject::GetIDListByClassNameAndUsedID(const std::string& className, int32_t id) const {
  TIntList ids;
  for (const auto& data : FDataList)
    if (data->GetClassNameA() == className && data->IsDataUsed(id)) ids.push_back(data->GetID());
  return ids;
}

int32_t TProject::ToggleDataID(int32_t id, int direction) const {
  const auto n = static_cast<int64_t>(FDataList.size());
  int64_t index = -1;
  for (int64_t i = 0; i < n; ++i)
    if (FDataList[i]->GetID() == id) index = i;
  if (index < 0) return 0;
  const std::string className = FDataList[index]->GetClassNameA();
  for (int64_t step = 1; step <= n; ++step) {
    const TData& candidate = *FDataList[((index + direction * step) % n + n) % n];
    if (candidate.GetClassNameA() == className && candidate.GetSaveMode() != TDataSaveMode::HardwareOwned)
      return candidate.GetID();
  }
  return id;
}

int32_t TProject::ToggleToNextDataID(int32_t id) const {
  return ToggleDataID(id, 1);
}

int32_t TProject::ToggleToPriorDataID(int32_t id) const {
  return ToggleDataID(id, -1);
}

bool TProject::IsDataUsed(int32_t id) const {
  for (const auto& viewer : FViewerList)
    if (viewer->IsDataUsed(id)) return true;
  for (const auto& data : FDataList)
    if (data->GetID() != id && data->IsDataUsed(id)) return true;
  return false;
}

bool TProject::IsIDInheritFrom(int32_t id, const std::string& className) const {
  const TData* data = FindData(id);
  return data && data->InheritsFrom(className);
}

std::string TProject::GetClassNameByID(int32_t id) const {
  const TData* data = FindData(id);
  return data ? data->GetClassNameA() : std::string();
}

std::string TProject::UsedByListAsString(int32_t id) const {
  std::string text = "Data:";
  for (const auto& data : FDataList)
    if (data->GetID() != id && data->IsDataUsed(id)) text += "\n" + data->GetCaption();
  text += "\nViewer:";
  for (const auto& viewer : FViewerList)
    if (viewer->IsDataUsed(id)) text += "\n" + viewer->GetTitle();
  if (ShowLockNumber) {
    text += "\nLockNumber, ID:";
    for (const auto& data : FDataList)
      text += "\n" + std::to_string(data->GetLockNumber()) + ", " + std::to_string(data->GetID());
  }
  return text;
}

int32_t TProject::GetFirstIDByClassName(const std::string& className) const {
  for (const auto& data : FDataList)
    if (data->GetClassNameA() == className) return data->GetID();
  return 0;
}

bool TProject::DeleteData(int32_t id) {
  TData* data = FindData(id);
  if (!data) return true;
  DataChange(data, TDataChangeInfo::AboutToBeDeleted);
  if (data->GetLockNumber() != 0) {
    std::string text = "Cannot delete object \"" + data->GetCaption() + "\"\n\nObject is locked!";
    if (ShowLockNumber) text += " (LockNumber = " + std::to_string(data->GetLockNumber()) + ")";
    Notify(text, "Error", kSeverityError);
    return false;
  }
  DataChange(data, TDataChangeInfo::Removed);
  auto it =
      std::find_if(FDataList.begin(), FDataList.end(), [data](const auto& d) { return d.get() == data; });
  if (it != FDataList.end()) FDataList.erase(it);
  TrackRemovedData(data);
  return true;
}

std::unique_ptr<TData> TProject::DeleteDataAndReturnPointer(int32_t id) {
  TData* data = FindData(id);
  if (!data) return nullptr;
  DataChange(data, TDataChangeInfo::Removed);
  auto it =
      std::find_if(FDataList.begin(), FDataList.end(), [data](const auto& d) { return d.get() == data; });
  std::unique_ptr<TData> owned = std::move(*it);
  FDataList.erase(it);
  TrackRemovedData(owned.get());
  UnOwnData(owned.get());
  return owned;
}

int32_t TProject::MakeOrGetFirstIDByClassName(const std::string& className) {
  TData* data = MakeOrGetFirstDataByClassName(className);
  return data ? data->GetID() : 0;
}

TData* TProject::MakeOrGetFirstDataByClassName(const std::string& className) {
  if (const int32_t id = GetFirstIDByClassName(className)) return FindData(id);
  std::unique_ptr<TData> data = TData::CreateDataObjectByName(className);
  if (!data) return nullptr;
  data->SetID(GetNewDataID());
  TData* raw = data.get();
  AddData(std::move(data));
  return raw;
}

// ---------------------------------------------------------------------------------------------
// Viewers

void TProject::AddViewer(std::unique_ptr<TVCustomForm> viewer) {
  if (!viewer) return;
  viewer->SetProject(this);
  TVCustomForm* raw = viewer.get();
  FViewerList.push_back(std::move(viewer));
  raw->DoDataUpdate();
  ProjectChangedForSave(raw);
}

std::unique_ptr<TVCustomForm> TProject::ReleaseViewer(TVCustomForm* viewer) {
  auto it = std::find_if(FViewerList.begin(), FViewerList.end(),
                         [viewer](const auto& v) { return v.get() == viewer; });
  if (it == FViewerList.end()) return nullptr;
  std::unique_ptr<TVCustomForm> owned = std::move(*it);
  FViewerList.erase(it);
  std::erase(FViewersToReposition, viewer);
  ProjectChangedForSave(owned.get());
  owned->SetProject(nullptr);
  return owned;
}

void TProject::CheckAndDeleteViewers() {
  std::erase_if(FViewerList, [this](const auto& viewer) {
    if (!viewer->GetDeleteRequested()) return false;
    std::erase(FViewersToReposition, viewer.get());
    return true;
  });
}

void TProject::SetViewerPosition(TVCustomForm* viewer, bool recalculating) {
  if (viewer && OnSetViewerPosition) OnSetViewerPosition(viewer, recalculating);
}

void TProject::RepositionViewersAfterLoad() {
  const std::vector<TVCustomForm*> waiting = std::move(FViewersToReposition);
  FViewersToReposition.clear();
  for (TVCustomForm* viewer : waiting) {
    if (OnPlaceLoadedViewer)
      OnPlaceLoadedViewer(viewer);
    else
      SetViewerPosition(viewer, false);
    if (OnShowViewer) OnShowViewer(viewer);
  }
}

TVCustomForm* TProject::GetViewer(size_t index) const {
  return index < FViewerList.size() ? FViewerList[index].get() : nullptr;
}

TVCustomForm* TProject::GetFirstViewerByClassName(const std::string& className) const {
  for (const auto& viewer : FViewerList)
    if (viewer->GetClassNameA() == className) return viewer.get();
  return nullptr;
}

std::vector<TVCustomForm*> TProject::GetViewerListByClassName(const std::string& className) const {
  std::vector<TVCustomForm*> list;
  for (const auto& viewer : FViewerList)
    if (viewer->GetClassNameA() == className) list.push_back(viewer.get());
  return list;
}

std::vector<TVCustomForm*> TProject::GetAllViewersWithoutHardwareAndDialog() const {
  std::vector<TVCustomForm*> list;
  for (const auto& viewer : FViewerList)
    if (viewer->GetMode() == TViewerMode::Normal) list.push_back(viewer.get());
  return list;
}

// ---------------------------------------------------------------------------------------------
// State

void TProject::SetFileName(const std::string& name) {
  if (name != FFileName || name.empty()) {
    FFileName = name;
    if (OnFileNameOrChangedState) OnFileNameOrChangedState();
  }
}

void TProject::SetProjectChanged(bool changed) {
  FProjectChanged = changed;
  if (OnFileNameOrChangedState) OnFileNameOrChangedState();
}

void TProject::ProjectChangedForSave(const TVCustomForm* viewer) {
  if (FLoading || FClearing || FCreatingNew) return;
  if (viewer && (viewer->GetMode() == TViewerMode::Dialog || viewer->GetNotCountingForSave())) return;
  SetProjectChanged(true);
}

bool TProject::ProjectHasData() const {
  for (const auto& data : FDataList) {
    if (data->GetSaveMode() == TDataSaveMode::HardwareOwned) continue;
    for (const char* name : {"TDGraph", "TDImage", "TDBitmap", "TDText"})
      if (data->InheritsFrom(name)) return true;
  }
  return false;
}

bool TProject::EmptyProjectSaveOK() {
  if (ProjectHasData()) return true;
  return AskYesNo("Project does not contain User Data Objects, really save ?", "Confirmation",
                  kSeverityQuestion);
}

bool TProject::NewerVersionLoadOK(int32_t version) {
  if (version <= ThisVersion) return true;
  return AskYesNo(
      "The file version of the loaded or appended Project-File\r\nis newer than the file version of "
      "this software (File Version: " +
          std::to_string(version) + " - Software Version: " + std::to_string(ThisVersion) +
          ").\r\n\r\nPlease use a newer software version.\r\n\r\nIf you load the project with this "
          "software,\r\nthe application may crash or show other unpredictable behaviour.\r\nAlso some "
          "stored information will possibly not be loaded and\r\ntherefore not be stored when saving "
          "the project.\r\n\r\nDo you want to load the project anyway ?",
      "Error", kSeverityError);
}

bool TProject::NewerVersionSaveOK() {
  if (FLoadedVersion == -1 || FLoadedVersion >= ThisVersion) return true;
  return AskYesNo(
      "The file version of the loaded or appended Project-File\nis older than the file version of this "
      "software:\nLoaded File Version: " +
          std::to_string(FLoadedVersion) + " - Software File Version: " + std::to_string(ThisVersion) +
          ".\n\nIf you save the project with this software,\nyou won't be able to open the file with "
          "an\nolder version of Orvex Project or Orvex Control.\n\nDo you want to save the project "
          "anyway ?",
      "File Version Warning", kSeverityWarning);
}

bool TProject::IsLargeObject(int32_t id) const {
  const TData* data = FindData(id);
  return data && data->IsLargeObject();
}

bool TProject::IsLargeObjectInList(const TIntList& idList) const {
  return std::any_of(idList.begin(), idList.end(), [this](int32_t id) { return IsLargeObject(id); });
}
