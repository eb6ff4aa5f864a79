// Base of images, graphs and bitmaps: scan geometry and the links to space transformation and Z
// interpretation by ID.
#pragma once

#include "data/Datafield.h"
#include "data/Dcustom.h"

class TDImageBase : public TData {
public:
  bool InheritsFrom(std::string_view className) const override {
    return className == "TDImageBase" || TData::InheritsFrom(className);
  }

  int32_t GetSizeX() const { return FSizeX; }
  int32_t GetSizeY() const { return FSizeY; }
  int32_t GetSpaceTransformationID() const { return FSpaceTransformationID; }
  void SetSpaceTransformationID(int32_t id) { FSpaceTransformationID = id; }
  int32_t GetZInterpretationID() const { return FZInterpretationID; }
  void SetZInterpretationID(int32_t id) { FZInterpretationID = id; }

  void AddToID(int32_t delta) override;
  bool IsDataUsed(int32_t id) const override;
  void CleanWrongDataConnections() override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* sender, TDataChangeInfo info) override;
  std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const override;
  /// Accepts space transformations and interpretations; a drop stores the ID in the matching field.
  bool IDListDropAccept(const TIntList& idList) const override;
  void IDListDrop(const TIntList& idList) override;

protected:
  /// Where a field's transfer to or from a file reports: the sub level of the object's progress channel
  /// while one is set, null otherwise.
  IProgressAndCancel* FieldProgress() const;

  /// Line flag arrays sized to size Y.
  std::vector<bool> FLineChanged;
  std::vector<bool> FLineValid;
  int32_t FSizeX = 0;
  int32_t FSizeY = 0;
  int32_t FSpaceTransformationID = 0;
  int32_t FZInterpretationID = 0;

  bool LineInside(int32_t y) const { return y >= 0 && y < FSizeY; }

public:
  bool GetLineValid(int32_t y) const { return LineInside(y) && FLineValid[static_cast<size_t>(y)]; }
  void SetLineValid(int32_t y, bool value) {
    if (LineInside(y)) FLineValid[static_cast<size_t>(y)] = value;
  }
  bool GetLineChanged(int32_t y) const { return LineInside(y) && FLineChanged[static_cast<size_t>(y)]; }
  void SetLineChanged(int32_t y, bool value) {
    if (LineInside(y)) FLineChanged[static_cast<size_t>(y)] = value;
  }
  /// Marks every line valid (a tool's result is complete at once).
  void SetAllLinesValid(bool value = true) { std::fill(FLineValid.begin(), FLineValid.end(), value); }
};

/// Saves a bool array as a "Bool" tag of its size.
TTagError SaveBoolVectorTag(TFileHandle file, const std::string& name, const std::vector<bool>& values);
/// Loads count bools of a "Bool" tag into values (resized to count).
TTagError LoadBoolVectorTag(TFileHandle file, const std::string& name, const TTagControl& parent,
                            std::vector<bool>& values, int32_t count);
