// The list of fit functions and the user fit function file.
#include "common/numerics/Fitfunctionmanager.h"

#include "common/Safewrite.h"

#include <atomic>
#include <filesystem>

#include <unistd.h>

namespace {
const char* const kUserFitFileIdentification = "ORX_UFIT";
const char* const kUserFitRootTag = "OrvexUserFitFunctions";
} // namespace

void TFitFunctionManager::CreateStandardFitFunctions() {
  for (const char* name : {"TNLFitGauss", "TNLFitLorentz", "TNLFitPsdVoigt1", "TNLFitPsdVoigt2",
                           "TNLFitExpDecay", "TNLFitPolynom", "TNLFitUserDefined"})
    FFunctions.push_back(CreateFitFunctionByClassName(name));
}

std::unique_ptr<TFitFunction>
TFitFunctionManager::CreateFitFunctionByClassName(const std::string& className) {
  if (className == "TNLFitGauss") return std::make_unique<TNLFitGauss>();
  if (className == "TNLFitLorentz") return std::make_unique<TNLFitLorentz>();
  if (className == "TNLFitPsdVoigt1") return std::make_unique<TNLFitPsdVoigt1>();
  if (className == "TNLFitPsdVoigt2") return std::make_unique<TNLFitPsdVoigt2>();
  if (className == "TNLFitExpDecay") return std::make_unique<TNLFitExpDecay>();
  if (className == "TNLFitPolynom") return std::make_unique<TNLFitPolynom>();
  if (className == "TNLFitUserDefined") return std::make_unique<TNLFitUserDefined>();
  return nullptr;
}

std::unique_ptr<TFitFunction> TFitFunctionManager::CloneFitFunction(const TFitFunction& source) {
  static std::atomic<int> counter{0};
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() /
      ("orvex_fitclone_" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1)) + ".tmp");
  const std::string fileName = file.string();
  std::unique_ptr<TFitFunction> result;
  TFileHandle f = CreateTagFile(fileName, "ORX_TEMP");
  if (f == kInvalidFileHandle) return nullptr;
  TTagControl root;
  bool ok = root.WriteTag(f, "TempFitFunction", TTagKind::TagList) >= 1 &&
            const_cast<TFitFunction&>(source).SaveToTagFile(f) >= 1 && root.CloseWriteTag(f) >= 1;
  CloseFile(f);
  if (ok) {
    TTagControl readRoot;
    f = kInvalidFileHandle;
    if (OpenTagFileForReading(fileName, {"ORX_TEMP"}, f, readRoot) >= 1) {
      result = CreateFitFunctionByClassName(source.ClassName);
      if (result && result->LoadFromTagFile(f, readRoot) < 1) result.reset();
      CloseFile(f);
    }
  }
  DeleteFileByName(fileName);
  return result;
}

int TFitFunctionManager::AddFitFunction(std::unique_ptr<TFitFunction> function) {
  if (!function) return -1;
  FFunctions.push_back(std::move(function));
  return GetCount() - 1;
}

void TFitFunctionManager::DeleteFitFunction(int i) {
  if (i >= 0 && i < GetCount()) FFunctions.erase(FFunctions.begin() + i);
}

int TFitFunctionManager::GetUserFitFunctionCount() const {
  int n = 0;
  for (const auto& f : FFunctions)
    if (f->IsUserFunction()) ++n;
  return n;
}

TTagError TFitFunctionManager::SaveUserFitFunctionsToTagFile(const std::string& fileName) const {
  return WriteFileSafely(fileName, [&](TFileHandle f) {
    TTagControl root, t;
    TTagError e = SaveIdentificationToFile(f, kUserFitFileIdentification);
    if (e >= 1) e = root.WriteTag(f, kUserFitRootTag, TTagKind::TagList);
    int k = 0;
    if (e >= 1) e = t.SaveIntTag(f, "NumberOfFitFunctions", GetUserFitFunctionCount());
    for (const auto& fn : FFunctions) {
      if (e < 1) break;
      if (!fn->IsUserFunction()) continue;
      TTagControl item;
      if ((e = item.WriteTag(f, "Function" + std::to_string(k++), TTagKind::TagList)) < 1) break;
      if ((e = fn->SaveToTagFile(f)) < 1) break;
      e = item.CloseWriteTag(f);
    }
    if (e >= 1) e = root.CloseWriteTag(f);
    return e;
  });
}

TTagError TFitFunctionManager::LoadUserFitFunctionsFromTagFile(const std::string& fileName) {
  std::vector<std::unique_ptr<TFitFunction>> kept;
  for (auto& fn : FFunctions)
    if (!fn->IsUserFunction()) kept.push_back(std::move(fn));
  FFunctions = std::move(kept);
  return AppendUserFitFunctionsFromTagFile(fileName);
}

TTagError TFitFunctionManager::AppendUserFitFunctionsFromTagFile(const std::string& fileName) {
  TFileHandle f = kInvalidFileHandle;
  TTagControl root;
  TTagError e = OpenTagFileForReading(fileName, {kUserFitFileIdentification}, f, root);
  if (e < 1) return e;
  if (root.Name() != kUserFitRootTag) {
    CloseFile(f);
    return teWrongFileIdentification;
  }
  TTagControl t;
  int32_t count = 0;
  e = t.LoadIntTag(f, "NumberOfFitFunctions", root, &count);
  for (int k = 0; e >= 1 && k < count; ++k) {
    TTagControl item;
    if (item.FindTag(f, "Function" + std::to_string(k), root) < 1) continue;
    std::string className;
    if (t.LoadAnsiStringTag(f, "ClassName", item, className) < 1) continue;
    std::unique_ptr<TFitFunction> fn = CreateFitFunctionByClassName(className);
    if (!fn || fn->LoadFromTagFile(f, item) < 1) continue;
    if (!fn->IsUserFunction()) fn->Categories.push_back("User");
    FFunctions.push_back(std::move(fn));
  }
  CloseFile(f);
  return e;
}
