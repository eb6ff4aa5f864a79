// A graph: a whole spectrum for each pixel of a scan. Element (x, y, g) stands at field index
// [x, y * size graph + g], so one spectrum is contiguous.
#pragma once

#include "data/Dimagebase.h"

#include <memory>

class TDGraph : public TDImageBase {
  ORVEX_DATA_CLASS(TDGraph, TDImageBase)
public:
  static constexpr int32_t ThisVersion = 0;

  TDGraph();
  ~TDGraph() override;

  int32_t GetDataCategory() const override;
  TDataField* GetDataField() override { return FField.get(); }
  bool IsLargeObject() const override { return int64_t(FSizeX) * FSizeY * FSizeGraph >= 368640001; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  void AfterOnDataChange() override;
  void AddToID(int32_t delta) override;
  bool IsDataUsed(int32_t id) const override;
  void CleanWrongDataConnections() override;
  void ExchangeID(int32_t oldID, int32_t newID) override;
  void DataChanged(TData* sender, TDataChangeInfo info) override;
  std::vector<std::pair<std::string, int32_t>> GetReferencedIDs() const override;

  /// A new graph of the template's sizes (1 × 1 with singleSpectrum, then without space transformation),
  /// the template's links and image index, a new ID; not added. Null when the template isn't a graph.
  static std::unique_ptr<TDGraph> CreateNewGraph(IDataProject* project, int32_t templateID,
                                                 bool singleSpectrum, TDataFieldKind kind,
                                                 TDataSaveMode saveMode, const std::string& caption);
  /// A tool's result graph from the template as CreateNewGraph makes it, with caption, suffix, history
  /// entry and save mode from info; not added (AddResultToProject does, once it is filled). Null as above.
  static std::unique_ptr<TDGraph> CreateResultGraph(IDataProject& project, int32_t templateID,
                                                    bool singleSpectrum, TDataFieldKind kind,
                                                    const TResultInfo& info);

  void SetFieldSize(int32_t sizeX, int32_t sizeY, TDataFieldKind kind, int32_t sizeGraph);
  void FreeField();
  int32_t GetSizeGraph() const { return FSizeGraph; }
  int32_t GetXTransformationID() const { return FXTransformationID; }
  void SetXTransformationID(int32_t id) { FXTransformationID = id; }
  int32_t GetXInterpretationID() const { return FXInterpretationID; }
  void SetXInterpretationID(int32_t id) { FXInterpretationID = id; }

  /// 0 outside or on an invalid line.
  float GetField(int32_t x, int32_t y, int32_t g) const;
  float GetFastField(int32_t x, int32_t y, int32_t g) const;
  void SetField(int32_t x, int32_t y, int32_t g, float value);
  /// size graph values; wrong indices throw.
  void SetSpectrum(int32_t x, int32_t y, const float* values);
  /// Zeros on an invalid line unless ignoreValid; wrong indices throw.
  void GetSpectrum(int32_t x, int32_t y, float* values, bool ignoreValid = false) const;
  /// Points first .. first + count - 1 of the spectra (x, y), (x, y + 1), ... read in place: the part of
  /// spectrum (x, y), the next spectrum's part a spectrum length further. spectra is how many are wanted,
  /// and receives how many lie in one piece of memory (at least 1); null (spectra 0) when the graph's
  /// memory can't be read in place. Line validity is not looked at.
  const float* GetSpectraPartReadPointer(int32_t x, int32_t y, int32_t first, int32_t count,
                                         int32_t& spectra) const;
  void GetPartOfSpectrum(int32_t x, int32_t y, int32_t first, int32_t count, float* values,
                         bool ignoreValid = false) const;
  /// Spectrum of flat element e = x + y * size X.
  void GetSpectrumOfElement(int64_t element, float* values, bool ignoreValid = false) const {
    GetSpectrum(static_cast<int32_t>(element % FSizeX), static_cast<int32_t>(element / FSizeX), values,
                ignoreValid);
  }
  void SetSpectrumOfElement(int64_t element, const float* values) {
    SetSpectrum(static_cast<int32_t>(element % FSizeX), static_cast<int32_t>(element / FSizeX), values);
  }
  int64_t GetNumberOfSpectra() const { return int64_t(FSizeX) * FSizeY; }

  float GetInterpolatedField(double x, double y, double g) const;
  void GetInterpolatedSpectrum(double x, double y, float* values) const;
  float GetInterpolatedXField(int32_t x, int32_t y, double g) const;
  bool IsDataPointInside(double x, double y) const;
  void FillField(float value);
  /// Only when all three sizes agree: copies valid flags and valid lines.
  void CopyFieldFrom(const TDGraph& graph);

  /// minCount/maxCount below 1: no bound. All entries must be graphs; each flag compares with the first.
  static bool IsGraphIDListOkay(IDataProject* project, const TIntList& idList, int32_t minCount,
                                int32_t maxCount, bool sameSize, bool sameGraphSize,
                                bool sameSpaceTransformation, bool sameXTransformation,
                                bool sameXInterpretation, bool sameZInterpretation);

private:
  void CheckIndices(int32_t x, int32_t y, const char* operation) const;

  int32_t FXTransformationID = 0;
  int32_t FXInterpretationID = 0;
  std::unique_ptr<TDataField> FField;
  int32_t FVersion = ThisVersion;
  int32_t FSizeGraph = 0;
};
