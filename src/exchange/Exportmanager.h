// The owner of the export filters: runs one export of a filter on the chosen objects, on a calculation
// worker with progress and cancel, and reports its errors and infos.
#pragma once

#include "exchange/Exportfilter.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class IDataProject;

/// What one export did.
struct TExportResult {
  bool Accepted = false;  ///< the filter took the objects
  bool Started = false;   ///< a target was given and the objects were locked
  bool Cancelled = false; ///< the user cancelled the run
  std::vector<TExportedFile> Files;
  std::vector<std::string> Errors;
  std::vector<std::string> Infos;
  int32_t InformationTextID = 0; ///< the "Export Information" text added to the project, 0 for none
  /// What a clipboard export wrote, for the window to put on the clipboard; empty for files.
  std::vector<uint8_t> ClipboardBytes;
};

class TExportManager {
public:
  /// Asks where the data shall go (the file dialog): a target, or null when the user cancels.
  using TCreateFileInfo =
      std::function<std::unique_ptr<TExportFilterTarget>(TExportFilter& filter, const TIntList& ids)>;

  /// settingsFolder holds the filters' settings files (empty: none are kept).
  TExportManager(IDataProject* project, std::string settingsFolder);
  ~TExportManager();
  TExportManager(const TExportManager&) = delete;
  TExportManager& operator=(const TExportManager&) = delete;

  /// Takes a filter into the list and initializes it.
  TExportFilter& AddFilter(std::unique_ptr<TExportFilter> filter);
  const std::vector<std::unique_ptr<TExportFilter>>& GetFilters() const { return FFilters; }
  /// Index of the filter of this name in any case, -1 when none has it.
  int FindFilter(const std::string& name) const;

  /// One export: IsIDListOkay, the target from OnCreateFileInfo, PrepareForExport, LockDataObjects, the
  /// filter's DoExport on one worker ("Data Export (name)"), UnlockDataObjects, the clipboard, then
  /// HandleErrorsAndInfos. A refusal of the objects leaves its reasons in the result's errors.
  TExportResult DoExport(int filterIndex, const TIntList& ids);
  /// The worker's function: the filter's export.
  void DoExportMCCThread(TMCC* mcc, int filterIndex);
  /// Tells the user of the errors (one message) and puts both lists in an "Export Information" text in the
  /// project; nothing when both are empty.
  void HandleErrorsAndInfos(TExportFilter& filter, bool cancelled, TExportResult& result);

  TCreateFileInfo OnCreateFileInfo;
  /// Shows the "Export Information" text (the window's text viewer); may be empty.
  std::function<void(int32_t textID)> OnShowExportInformation;
  /// False: errors are left to the caller (the command line prints them) and no text is added.
  bool ReportToUser = true;

  /// The text of "Export Information" as its lines.
  static std::vector<std::string> ExportInformationLines(bool cancelled,
                                                         const std::vector<std::string>& errors,
                                                         const std::vector<std::string>& infos);

private:
  IDataProject* FProject;
  std::string FSettingsFolder;
  std::vector<std::unique_ptr<TExportFilter>> FFilters;
};

/// Puts the export filters of this folder into manager, in the order of the filter list: Image ASCII,
/// Graph ASCII, Matlab.
void RegisterExportFilters(TExportManager& manager);
