// The export's file dialog logic: targets, names, checks and preview.
#include "exchange/Exportfileinfo.h"

#include <set>

namespace {

constexpr const char* kForbidden = "/\\*?:<>|\"";

bool IsForbidden(char c) {
  for (const char* f = kForbidden; *f; ++f)
    if (*f == c) return true;
  return static_cast<unsigned char>(c) < 0x20;
}

std::string WithNumber(const std::string& name, int number, bool before) {
  return before ? std::to_string(number) + "_" + name : name + "_" + std::to_string(number);
}

std::string JoinPath(const std::string& folder, const std::string& name) {
  if (folder.empty()) return name;
  return folder.back() == '/' ? folder + name : folder + "/" + name;
}

} // namespace

std::vector<TExportFilterFileInfoGetterForm::TTarget>
TExportFilterFileInfoGetterForm::OfferedTargets(int32_t targetMode) {
  if (targetMode == etmClipboard) return {tClipboard};
  if (targetMode == etmOneFile) return {tClipboard, tOneFile};
  return {tClipboard, tOneFile, tSeveralFiles};
}

std::string TExportFilterFileInfoGetterForm::CheckFileName(const std::string& name) {
  for (char c : name)
    if (IsForbidden(c)) return "The characters / \\ * ? : < > | \" are not allowed in file names";
  if (name.empty() || name.size() > 200) return "Empty or long names (>200chars) are not allowed";
  return std::string();
}

std::string TExportFilterFileInfoGetterForm::FileNameFromCaption(const std::string& caption) {
  std::string name = caption;
  for (char& c : name)
    if (IsForbidden(c)) c = '_';
  if (name.size() > 200) name.resize(200);
  return name.empty() ? std::string("Export") : name;
}

std::vector<std::string> TExportFilterFileInfoGetterForm::MakeFileNames(
    const TExportFilter& filter, const std::vector<std::string>& captions, bool& renamedDuplicates) const {
  renamedDuplicates = false;
  if (Target == tClipboard) return {};
  std::string fileFilter, extension;
  filter.GetFileFilter(fileFilter, extension);
  const size_t count = Target == tSeveralFiles ? captions.size() : 1;
  std::vector<std::string> stems;
  for (size_t i = 0; i < count; ++i) {
    std::string stem = UseMyFileName || captions.empty() ? FileName : FileNameFromCaption(captions[i]);
    if (AddAutoIncrementNumber) stem = WithNumber(stem, static_cast<int>(i) + 1, BeforeName);
    stems.push_back(stem);
  }
  // Equal names: the later ones get a number, one that is not taken yet.
  std::set<std::string> taken;
  std::vector<std::string> names;
  for (const std::string& stem : stems) {
    std::string name = stem + extension;
    for (int n = 2; taken.count(name); ++n) {
      name = stem + "_" + std::to_string(n) + extension;
      renamedDuplicates = true;
    }
    taken.insert(name);
    names.push_back(JoinPath(Folder, name));
  }
  return names;
}

std::vector<std::string>
TExportFilterFileInfoGetterForm::PreviewLines(const std::vector<std::string>& names) {
  std::vector<std::string> lines;
  for (size_t i = 0; i < names.size() && i < static_cast<size_t>(kPreviewNames); ++i)
    lines.push_back(names[i]);
  if (names.size() > static_cast<size_t>(kPreviewNames)) lines.push_back("More Files (not shown)");
  lines.push_back("Number of Files: " + std::to_string(names.size()));
  return lines;
}

std::unique_ptr<TExportFilterTarget>
TExportFilterFileInfoGetterForm::CreateFileInfo(TExportFilter& filter, const TIntList& ids,
                                                const std::vector<std::string>& captions,
                                                std::string& problem) const {
  problem.clear();
  if (Target == tClipboard) return std::make_unique<TExportFilterTarget>(std::vector<std::string>(), MaxSize);
  if (UseMyFileName) {
    problem = CheckFileName(FileName);
    if (!problem.empty()) return nullptr;
  }
  TExportFilterFileInfoGetterForm form = *this;
  // A filter that writes a file per object gets one name per object even when one file was chosen.
  if (filter.GetTargetMode() == etmSeveralFiles && ids.size() > 1) {
    if (form.Target == tOneFile && form.UseMyFileName) form.AddAutoIncrementNumber = true;
    form.Target = tSeveralFiles;
  }
  bool renamed = false;
  std::vector<std::string> names = form.MakeFileNames(filter, captions, renamed);
  if (renamed) filter.AddInfo("Duplicate File Names were renamed.");
  return std::make_unique<TExportFilterTarget>(std::move(names), MaxSize);
}
