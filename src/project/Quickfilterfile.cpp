#include "project/Quickfilterfile.h"

#include "common/Saveandload.h"
#include "common/Tagcontrol.h"
#include "data/Graphfilter.h"

#include <filesystem>

namespace {

constexpr const char* kRootTag = "OrvexFilterViewerFilters";

} // namespace

std::string SaveQuickFilters(const std::string& fileName, const std::vector<const TGraphFilter*>& filters) {
  TFileHandle file = CreateTagFile(fileName, kQuickFilterFileIdentification);
  if (file == kInvalidFileHandle) return kQuickFilterSaveFailed;
  bool ok = true;
  TTagControl root, value;
  ok = root.WriteTag(file, kRootTag, TTagKind::TagList) == 1 && ok;
  ok = value.SaveIntTag(file, "QuickFilterFileVersion", ThisQuickFilterFileVersion) == 1 && ok;
  ok = value.SaveIntTag(file, "NumberOfFilters", static_cast<int32_t>(filters.size())) == 1 && ok;
  for (size_t i = 0; i < filters.size() && ok; ++i) {
    TTagControl list;
    ok = list.WriteTag(file, "Filter" + std::to_string(i), TTagKind::TagList) == 1 && ok;
    ok = filters[i]->SaveToTagFile(file) == 1 && ok;
    ok = list.CloseWriteTag(file) == 1 && ok;
  }
  ok = root.CloseWriteTag(file) == 1 && ok;
  CloseFile(file);
  return ok ? std::string() : std::string(kQuickFilterSaveFailed);
}

std::string LoadQuickFilters(const std::string& fileName,
                             std::vector<std::unique_ptr<TGraphFilter>>& filters) {
  filters.clear();
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  const TTagError opened = OpenTagFileForReading(fileName, {kQuickFilterFileIdentification}, file, root);
  if (opened == -4) return kQuickFilterWrongIdentification;
  if (opened != 1) return kQuickFilterLoadFailed;
  std::string problem;
  int32_t version = 0, count = 0;
  TTagControl probe;
  // A file cut short ends before its root list does; missing tags would otherwise read as defaults.
  std::error_code error;
  const auto size = std::filesystem::file_size(fileName, error);
  if (error || root.End() > static_cast<int64_t>(size) || root.Name() != kRootTag ||
      probe.LoadIntTag(file, "QuickFilterFileVersion", root, &version) != 1) {
    problem = kQuickFilterLoadFailed;
  } else if (version != ThisQuickFilterFileVersion) {
    problem = kQuickFilterWrongVersion;
  } else if (probe.LoadIntTag(file, "NumberOfFilters", root, &count) != 1 || count < 0) {
    problem = kQuickFilterLoadFailed;
  }
  for (int32_t i = 0; problem.empty() && i < count; ++i) {
    TTagControl list;
    auto filter = std::make_unique<TGraphFilter>();
    if (list.FindTag(file, "Filter" + std::to_string(i), root) != 1 ||
        filter->LoadFromTagFile(file, list) != 1)
      problem = kQuickFilterLoadFailed;
    else
      filters.push_back(std::move(filter));
  }
  CloseFile(file);
  if (!problem.empty()) filters.clear();
  return problem;
}
