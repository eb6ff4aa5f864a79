// The export manager: one export from the objects' check to the report of its errors and infos.
#include "exchange/Exportmanager.h"

#include "common/OrvexException.h"
#include "common/Standardmessage.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dtext.h"

#include <algorithm>
#include <cctype>

TExportManager::TExportManager(IDataProject* project, std::string settingsFolder)
    : FProject(project), FSettingsFolder(std::move(settingsFolder)) {}

TExportManager::~TExportManager() = default;

TExportFilter& TExportManager::AddFilter(std::unique_ptr<TExportFilter> filter) {
  filter->Initialize(FProject, FSettingsFolder);
  FFilters.push_back(std::move(filter));
  return *FFilters.back();
}

int TExportManager::FindFilter(const std::string& name) const {
  auto lower = [](std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
  };
  for (size_t i = 0; i < FFilters.size(); ++i)
    if (lower(FFilters[i]->GetName()) == lower(name)) return static_cast<int>(i);
  return -1;
}

TExportResult TExportManager::DoExport(int filterIndex, const TIntList& ids) {
  if (filterIndex < 0 || filterIndex >= static_cast<int>(FFilters.size()))
    throw OrvexException("TExportManager::DoExport: no filter of index " + std::to_string(filterIndex));
  TExportFilter& filter = *FFilters[static_cast<size_t>(filterIndex)];
  TExportResult result;
  filter.PrepareForExport();
  if (!filter.IsIDListOkay(ids)) {
    result.Errors = filter.GetErrorList();
    return result;
  }
  result.Accepted = true;
  std::unique_ptr<TExportFilterTarget> target = OnCreateFileInfo ? OnCreateFileInfo(filter, ids) : nullptr;
  if (!target) return result;
  filter.SetTarget(target.get());
  target->SetOwner(&filter);
  // The lists were emptied before the check; the file dialog may have added an info since.

  if (!filter.LockDataObjects(ids)) {
    if (ReportToUser) {
      std::string text = "Export failed:\n\nCould not lock Data-Objects.\n\n";
      for (const std::string& error : filter.GetErrorList()) text += error + "\n";
      TMessageProxy::MsgProxySingleton()->IssueMessage(
          TBlockingNotification::CreateAndInit(text, "Export", kSeverityError), true);
    }
    filter.UnlockDataObjects();
    filter.SetTarget(nullptr);
    result.Errors = filter.GetErrorList();
    return result;
  }
  result.Started = true;

  auto mcc = std::make_unique<TMCC>(
      "Data Export (" + filter.GetName() + ")",
      [this, filterIndex](TMCC* controller, int) { DoExportMCCThread(controller, filterIndex); }, 1);
  mcc->SetProgressMainCaption("Data Export (" + filter.GetName() + ")");
  mcc->ShowCancelButton = true;
  mcc->StartThreads(1);
  try {
    mcc->WaitAndShowProgressOnDelay(100);
  } catch (const std::exception& e) {
    // A programming error of the filter: the export stops with it, and the file being written goes.
    filter.AddError(std::string("Export stopped by an error: ") + e.what());
    target->CleanupCurrentStream();
  }
  result.Cancelled = mcc->GetCancel();
  if (result.Cancelled)
    target->CleanupCurrentStream();
  else
    target->CloseCurrentStream();

  filter.UnlockDataObjects();
  if (target->IsClipboard() && !result.Cancelled && filter.GetErrorList().empty()) {
    filter.CopyDataToClipboard();
    if (const TMemoryByteStream* memory = target->GetMemoryStream()) {
      const std::vector<uint8_t>& bytes = memory->Bytes();
      const size_t used =
          std::min(bytes.size(), static_cast<size_t>(std::max<int64_t>(0, target->GetBytesInMemory())));
      result.ClipboardBytes.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(used));
    }
  }
  result.Files = target->GetWrittenFiles();
  filter.SetTarget(nullptr);
  target.reset();
  HandleErrorsAndInfos(filter, result.Cancelled, result);
  return result;
}

void TExportManager::DoExportMCCThread(TMCC* mcc, int filterIndex) {
  FFilters[static_cast<size_t>(filterIndex)]->DoExport(mcc);
}

std::vector<std::string> TExportManager::ExportInformationLines(bool cancelled,
                                                                const std::vector<std::string>& errors,
                                                                const std::vector<std::string>& infos) {
  std::vector<std::string> lines;
  if (cancelled) lines.push_back("Export canceled.");
  lines.push_back("Error Information:");
  lines.push_back(std::string(40, '-'));
  lines.insert(lines.end(), errors.begin(), errors.end());
  lines.push_back("");
  lines.push_back("Export Information:");
  lines.push_back(std::string(40, '-'));
  lines.insert(lines.end(), infos.begin(), infos.end());
  return lines;
}

void TExportManager::HandleErrorsAndInfos(TExportFilter& filter, bool cancelled, TExportResult& result) {
  result.Errors = filter.GetErrorList();
  result.Infos = filter.GetInfoList();
  if (result.Errors.empty() && result.Infos.empty()) return;
  if (!ReportToUser) return;
  if (!result.Errors.empty())
    TMessageProxy::MsgProxySingleton()->IssueMessage(
        TBlockingNotification::CreateAndInit(
            "Export failed. Please see \"Export Information\" for more information", "Export",
            kSeverityError),
        true);
  if (!FProject) return;
  std::string text;
  for (const std::string& line : ExportInformationLines(cancelled, result.Errors, result.Infos))
    text += line + "\n";
  auto information = std::make_unique<TDText>();
  information->SetID(FProject->GetNewDataID());
  information->SetCaption("Export Information");
  information->SetText(text);
  result.InformationTextID = information->GetID();
  FProject->AddData(std::move(information));
  if (OnShowExportInformation) OnShowExportInformation(result.InformationTextID);
}
