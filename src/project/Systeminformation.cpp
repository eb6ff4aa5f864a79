// System information tree of a project.
#include "project/Systeminformation.h"

#include <chrono>
#include <ctime>

namespace {
std::string NowText() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y/%m/%d %H:%M:%S", &local);
  return buffer;
}
} // namespace

TOrvexSystemInformation::TOrvexSystemInformation() {
  CreateNewSystemTag();
}

std::string TOrvexSystemInformation::ProgramName() {
  return "Orvex Project";
}

std::string TOrvexSystemInformation::ProgramVersion() {
#ifdef ORVEX_VERSION_STRING
  return ORVEX_VERSION_STRING;
#else
  return "0.0.0";
#endif
}

void TOrvexSystemInformation::CreateNewSystemTag() {
  std::lock_guard lock(FLock);
  FTree = TTagControl::CreateTag("SystemInformation", TTagKind::TagList);
}

void TOrvexSystemInformation::AfterNewProject() {
  CreateNewSystemTag();
  AddVersionInfoToSystemInformation();
}

void TOrvexSystemInformation::AfterLoadProject() {
  AddVersionInfoToSystemInformation();
}

TTagControl* TOrvexSystemInformation::AppendNumbered(const std::string& group, const std::string& prefix) {
  if (!FTree->IsTagInList(group)) FTree->AddSubTag(group, TTagKind::TagList);
  TTagControl* list = FTree->FindTagInList(group);
  if (list->Kind() != TTagKind::TagList || !list->Children()) return nullptr;
  const std::string name = prefix + " " + std::to_string(list->Children()->size());
  return list->IsTagInList(name) ? nullptr : list->AddSubTag(name, TTagKind::TagList);
}

void TOrvexSystemInformation::AddVersionInfoToSystemInformation() {
  std::lock_guard lock(FLock);
  TTagControl* entry = AppendNumbered("VersionInfo", "Version");
  if (!entry) return;
  const std::string program = ProgramName(), version = ProgramVersion(), date = NowText();
  entry->AddSubTag("Program", TTagKind::AnsiString, &program);
  entry->AddSubTag("ProgramVersion", TTagKind::AnsiString, &version);
  entry->AddSubTag("Date", TTagKind::AnsiString, &date);
}

void TOrvexSystemInformation::AddCurrentLogFileToSystemInformation(const std::string& logFileName) {
  std::lock_guard lock(FLock);
  TTagControl* entry = AppendNumbered("LogFiles", "LogFile");
  if (entry) entry->AddSubTag("FileName", TTagKind::AnsiString, &logFileName);
}

void TOrvexSystemInformation::AddExceptionToSystemInformation(const std::string& report) {
  std::lock_guard lock(FLock);
  TTagControl* entry = AppendNumbered("Exceptions", "Exception");
  if (!entry) return;
  const std::string date = NowText();
  entry->AddSubTag("Date", TTagKind::AnsiString, &date);
  entry->AddSubTag("Report", TTagKind::AnsiString, &report);
}

TTagError TOrvexSystemInformation::SaveToTagFile(TFileHandle file) {
  std::lock_guard lock(FLock);
  FTree->SetName("SystemInformation");
  return FTree->SaveTagListToFile(file);
}

TTagError TOrvexSystemInformation::LoadFromTagFile(TFileHandle file, const TTagControl& parent) {
  std::lock_guard lock(FLock);
  auto tree = std::make_unique<TTagControl>();
  if (tree->LoadTagListByTagName(file, "SystemInformation", parent) >= 1 && tree->Children())
    FTree = std::move(tree);
  else
    FTree = TTagControl::CreateTag("SystemInformation", TTagKind::TagList);
  return teNoError;
}

int TOrvexSystemInformation::VersionRecordCount() {
  std::lock_guard lock(FLock);
  const TTagControl* list = FTree->FindTagInList("VersionInfo");
  return list && list->Children() ? static_cast<int>(list->Children()->size()) : 0;
}
