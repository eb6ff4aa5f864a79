// Data object base: change delivery, history, persistence and the class registry.
#include "data/Dcustom.h"

#include "common/Classregistry.h"
#include "common/threads/Progressandcancel.h"

#include <chrono>
#include <ctime>

THistoryEntry THistoryEntry::Now(const std::string& text, THistoryEntryType type) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  ::localtime_r(&seconds, &local);
  THistoryEntry entry;
  entry.Date = {static_cast<uint16_t>(local.tm_year + 1900),
                static_cast<uint16_t>(local.tm_mon + 1),
                static_cast<uint16_t>(local.tm_mday),
                static_cast<uint16_t>(local.tm_hour),
                static_cast<uint16_t>(local.tm_min),
                static_cast<uint16_t>(local.tm_sec),
                static_cast<uint16_t>(millis)};
  entry.Text = text;
  entry.Type = type;
  return entry;
}

TData::TData() = default;
TData::~TData() = default;

// ---------------------------------------------------------------------------------------------
// Changes

void TData::DoDataChange(TDataChangeInfo info) {
  if (info != TDataChangeInfo::DataChanged) {
    if (FOnDataChange) FOnDataChange(this, info);
    return;
  }
  if (!FAutoDataChange) {
    // Collected: one notification goes out when auto data change is switched back on.
    FPendingDataChange = true;
    return;
  }
  if (FExchange && FExchange->HasReaders() && !FExchange->HasWriter())
    FExchange->Mark([](TDataExchangeStruct& exchange) { exchange.MarkAll(); });
  if (FOnDataChange) FOnDataChange(this, info);
  FPendingDataChange = false;
  AfterOnDataChange();
}

TDataExchangeHolder& TData::DataExchange() {
  if (!FExchange) FExchange = std::make_unique<TDataExchangeHolder>();
  return *FExchange;
}

void TData::SetAutoDataChange(bool on) {
  if (on == FAutoDataChange) return;
  FAutoDataChange = on;
  if (on && FPendingDataChange) DoDataChange(TDataChangeInfo::DataChanged);
}

void TData::SetCaption(const std::string& caption) {
  if (caption == FCaption) return;
  FCaption = caption;
  DoDataChange(TDataChangeInfo::CaptionChanged);
  CaptionChanged(false);
}

void TData::SetUserCaption(const std::string& caption) {
  if (caption == FCaption) return;
  FCaption = caption;
  DoDataChange(TDataChangeInfo::CaptionChanged);
  CaptionChanged(true);
}

void TData::AddToHistoryList(const std::string& text, THistoryEntryType type) {
  FHistoryList.push_back(THistoryEntry::Now(text, type));
  DoDataChange(TDataChangeInfo::HistoryChanged);
}

void TData::AddToID(int32_t delta) {
  // The entry is made even for ID 0, and no notification goes out.
  const int32_t oldID = FID;
  const int32_t newID = FID + delta;
  FHistoryList.push_back(
      THistoryEntry::Now("ID changed from " + std::to_string(oldID) + " to " + std::to_string(newID) + ".",
                         kHistoryEntryIDChange));
  SafeAddToDataID(FID, delta);
}

void ApplyResultInfo(TData& result, const std::string& baseCaption, const TResultInfo& info) {
  result.SetCaption((info.Caption.empty() ? baseCaption : info.Caption) + info.CaptionSuffix);
  result.SetSaveMode(info.SaveMode);
  if (!info.HistoryText.empty()) result.AddToHistoryList(info.HistoryText, info.HistoryType);
}

void TData::ShowCaptionAsProgress() {
  if (FProgress) FProgress->SetProgressCaption(FCaption);
}

// ---------------------------------------------------------------------------------------------
// Persistence

TTagError TData::SaveDataToTagFile(TFileHandle file) {
  ShowCaptionAsProgress();
  TTagControl dataTag, history, t;
  TTagError result = dataTag.WriteTag(file, "TData", TTagKind::TagList);
  if (result < 1) return result;
  if ((result = t.SaveIntTag(file, "Version", FVersion)) < 1 ||
      (result = t.SaveIntTag(file, "ID", FID)) < 1 ||
      (result = t.SaveIntTag(file, "ImageIndex", FImageIndex)) < 1 ||
      (result = t.SaveAnsiStringTag(file, "Caption", FCaption)) < 1)
    return result;
  FMetaData.SaveTagListToFile(file);
  if ((result = history.WriteTag(file, "HistoryList", TTagKind::TagList)) < 1) return result;
  const auto n = static_cast<int32_t>(FHistoryList.size());
  std::vector<uint16_t> dates;
  std::vector<int32_t> types;
  dates.reserve(static_cast<size_t>(n) * 7);
  for (const auto& entry : FHistoryList) {
    dates.insert(dates.end(), entry.Date.begin(), entry.Date.end());
    types.push_back(entry.Type);
  }
  if ((result = t.SaveIntTag(file, "Number Of History Entries", n)) < 1 ||
      (result = t.SaveWordTag(file, "Dates", dates.data(), static_cast<int64_t>(dates.size()))) < 1)
    return result;
  if ((result = t.WriteTag(file, "Histories", TTagKind::AnsiString)) < 1) return result;
  for (const auto& entry : FHistoryList)
    if ((result = SaveAnsiStringToFile(file, entry.Text)) < 1) return result;
  if ((result = t.CloseWriteTag(file)) < 1 ||
      (result = t.SaveIntTag(file, "Types", types.data(), static_cast<int64_t>(types.size()))) < 1)
    return result;
  if ((result = history.CloseWriteTag(file)) < 1) return result;
  return dataTag.CloseWriteTag(file);
}

TTagError TData::LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl dataTag, t;
  TTagError result = dataTag.FindTag(file, "TData", parent);
  if (result < 1) return result;
  t.LoadOrDefaultIntTag(file, "Version", dataTag, &FVersion, 1, 0);
  if ((result = t.LoadIntTag(file, "ID", dataTag, &FID, 1)) < 1) return result;
  t.LoadOrDefaultIntTag(file, "ImageIndex", dataTag, &FImageIndex, 1, FImageIndex);
  if ((result = t.LoadAnsiStringTag(file, "Caption", dataTag, FCaption)) < 1) return result;
  ShowCaptionAsProgress();
  // The metadata follows the caption; in files without it this takes over the next tag, as it stands.
  const int64_t afterCaption = t.End();
  if (afterCaption < dataTag.End()) {
    FileSeek(file, afterCaption, TSeekOrigin::Begin);
    TTagControl meta;
    if (meta.LoadTagListFromFile(file) >= 1) {
      FMetaData.CopyFrom(meta);
      FMetaData.SetName(meta.Name());
    }
  }
  return LoadHistoryList(file, dataTag);
}

TTagError TData::LoadHistoryList(TFileHandle file, const TTagControl& dataTag) {
  TTagControl history, t;
  if (history.FindTag(file, "HistoryList", dataTag) < 1)
    return teNoError; // no history in the file: an empty one
  FHistoryList.clear();
  int32_t n = 0;
  t.LoadOrDefaultIntTag(file, "Number Of History Entries", history, &n, 1, 0);
  if (n <= 0) return teNoError;
  // A count that the tags can't hold is corrupt: refuse before allocating.
  TTagError result = t.FindTag(file, "Dates", history);
  if (result < 1) return result;
  if (static_cast<int64_t>(n) * 14 > t.End() - t.Begin()) return teReadFileError;
  std::vector<uint16_t> dates(static_cast<size_t>(n) * 7);
  if ((result = LoadWordFromFile(file, dates.data(), static_cast<int64_t>(dates.size()))) < 1) return result;
  std::vector<std::string> texts;
  if ((result = t.FindTag(file, "Histories", history)) < 1) return result;
  for (int32_t i = 0; i < n; ++i) {
    if (FilePosition(file) + 4 > t.End()) return teReadFileError;
    std::string text;
    if ((result = LoadAnsiStringFromFile(file, text)) < 1) return result;
    texts.push_back(std::move(text));
  }
  std::vector<int32_t> types(static_cast<size_t>(n));
  if ((result = t.LoadIntTag(file, "Types", history, types.data(), n)) < 1) return result;
  FHistoryList.resize(static_cast<size_t>(n));
  for (int32_t i = 0; i < n; ++i) {
    auto& entry = FHistoryList[static_cast<size_t>(i)];
    std::copy_n(dates.begin() + static_cast<ptrdiff_t>(i) * 7, 7, entry.Date.begin());
    entry.Text = std::move(texts[static_cast<size_t>(i)]);
    entry.Type = types[static_cast<size_t>(i)];
  }
  return teNoError;
}

// ---------------------------------------------------------------------------------------------
// Registry

namespace {
TClassRegistry<TData>& Registry() {
  static TClassRegistry<TData> registry;
  return registry;
}
} // namespace

void TData::RegisterDataObject(const std::string& className, TFactory factory) {
  Registry().Register(className, std::move(factory));
}

std::unique_ptr<TData> TData::CreateDataObjectByName(const std::string& className) {
  return Registry().Create(className);
}

void TData::DeleteRegisteredDataObjectList() {
  Registry().Clear();
}

std::vector<std::string> TData::RegisteredDataObjectNames() {
  return Registry().Names();
}
