// System options file of the process.
#include "project/Systemoptions.h"

TTagControl& TSystemOptionsHelper::Tree() {
  if (!FTree) FTree = TTagControl::CreateTag(kRootName, TTagKind::TagList);
  return *FTree;
}

void TSystemOptionsHelper::Clear() {
  FTree = TTagControl::CreateTag(kRootName, TTagKind::TagList);
}

TTagError TSystemOptionsHelper::LoadSystemOptions() {
  Clear();
  if (FileName.empty()) return teCreateFileForReadError;
  auto tree = std::make_unique<TTagControl>();
  const TTagError result = tree->LoadTagListByFileName(FileName, kIdentification);
  if (result < 1) return result;
  // A project settings file shares the identification; its root has another name.
  if (tree->Kind() != TTagKind::TagList || !tree->Children() || tree->Name() != kRootName)
    return teTagNotFound;
  FTree = std::move(tree);
  return result;
}

TTagError TSystemOptionsHelper::SaveSystemOptions() {
  if (FileName.empty()) return teCreateFileForWriteError;
  // The log level is written even when nobody set it, so that the user finds the entry to change.
  if (!Tree().IsTagInList(kLogLevelPath)) SetString(kLogLevelPath, "DebugMessage");
  Tree().SetName(kRootName);
  return Tree().SaveTagListToFileByName(FileName, kIdentification);
}

std::string TSystemOptionsHelper::GetString(const std::string& path, const std::string& defaultValue) {
  std::string value;
  Tree().GetAnsiStringTagInListOrDefault(path, value, defaultValue);
  return value;
}

void TSystemOptionsHelper::SetString(const std::string& path, const std::string& value) {
  if (TTagControl* existing = Tree().FindTagInList(path)) {
    if (existing->Kind() == TTagKind::AnsiString) {
      existing->SetAnsiStringTag(value);
      return;
    }
    // Another kind under that name: replace it in its list.
    const size_t split = path.rfind('|');
    TTagControl* parent = split == std::string::npos ? &Tree() : Tree().FindTagInList(path.substr(0, split));
    if (parent && parent->Children())
      std::erase_if(*parent->Children(), [existing](const auto& child) { return child.get() == existing; });
  }
  Tree().AddSubTag(path, TTagKind::AnsiString, &value);
}
