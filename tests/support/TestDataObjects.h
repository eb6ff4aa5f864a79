// A small data class for tests of the project and the data base: one reference to another object and a
// few values, saved in its own class list like every real class.
#pragma once

#include "common/memory/Memorymanagement.h"
#include "data/Dcustom.h"
#include "project/Project.h"

#include <vector>

namespace oxtest {

class TDTestObject : public TData {
  ORVEX_DATA_CLASS(TDTestObject, TData)
public:
  int32_t RefID = 0;
  std::vector<float> Values;
  bool FailOnSave = false; ///< makes the save fail half way
  bool ThrowOnSave = false;

  int32_t GetDataCategory() const override { return 11; }
  bool IsDataUsed(int32_t id) const override { return id != 0 && RefID == id; }
  void AddToID(int32_t delta) override {
    TData::AddToID(delta);
    SafeAddToDataID(RefID, delta);
  }
  void CleanWrongDataConnections() override {
    if (RefID != 0 && (!GetProject() || !ProjectHasID(RefID))) RefID = 0;
  }
  void ExchangeID(int32_t oldID, int32_t newID) override {
    if (RefID == oldID) RefID = newID;
  }
  std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const override {
    return {{"RefID", RefID}};
  }

  TTagError SaveDataToTagFile(TFileHandle file) override {
    TTagError result = TData::SaveDataToTagFile(file);
    if (result < 1) return result;
    if (ThrowOnSave) throw std::runtime_error("save failed");
    TTagControl own, t;
    if ((result = own.WriteTag(file, kClassName, TTagKind::TagList)) < 1 ||
        (result = t.SaveIntTag(file, "Version", 1)) < 1 || (result = t.SaveIntTag(file, "RefID", RefID)) < 1)
      return result;
    if (FailOnSave) return teWriteFileError;
    if ((result = t.SaveFloatTag(file, "Values", Values.data(), static_cast<int64_t>(Values.size()))) < 1)
      return result;
    return own.CloseWriteTag(file);
  }

  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override {
    TTagError result = TData::LoadDataFromTagFile(file, parent);
    if (result < 1) return result;
    TTagControl own, t;
    if ((result = own.FindTag(file, kClassName, parent)) < 1) return result;
    t.LoadOrDefaultIntTag(file, "RefID", own, &RefID, 1, 0);
    if (t.FindTag(file, "Values", own) == teNoError) {
      const int64_t count = (t.End() - t.Begin()) / 4;
      Values.resize(static_cast<size_t>(count));
      LoadFloatFromFile(file, Values.data(), count);
    }
    return teNoError;
  }

  bool ProjectHasID(int32_t id) const { return GetProject()->DataIDExists(id); }
};

/// Creates the heap memory strategy once, for tests that make data fields.
inline void EnsureMemoryStrategy() {
  if (!TMemoryManagement::PartialMemoryAllocator) {
    TMemoryManagement::CurrentStrategy = 0;
    TMemoryManagement::CreateMemoryStrategy();
  }
}

/// Registers the test class once.
inline void RegisterTestDataObjects() {
  TData::RegisterDataObject(TDTestObject::kClassName, &TDTestObject::CreateDataObject);
}

} // namespace oxtest
