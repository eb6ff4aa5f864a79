// An image: one value per pixel of a scan, with line flags and line statistics.
#pragma once

#include "data/Dimagebase.h"

#include <memory>

class TDImage : public TDImageBase {
  ORVEX_DATA_CLASS(TDImage, TDImageBase)
public:
  static constexpr int32_t ThisVersion = 1;

  TDImage();
  ~TDImage() override;

  int32_t GetDataCategory() const override { return 0; }
  TDataField* GetDataField() override { return FField.get(); }
  bool IsLargeObject() const override { return int64_t(FSizeX) * FSizeY >= 490001; }
  TTagError SaveDataToTagFile(TFileHandle file) override;
  TTagError LoadDataFromTagFile(TFileHandle file, const TTagControl& parent) override;
  /// Recalculates the line statistics before delivering a data change.
  void DoDataChange(TDataChangeInfo info) override;
  void AfterOnDataChange() override;

  /// A new inverted image of the template's size with the given kind, the template's links and image
  /// index and a new ID; not added to the project. Null when the template isn't an image base.
  static std::unique_ptr<TDImage> CreateNewImage(IDataProject* project, int32_t templateID,
                                                 TDataFieldKind kind, TDataSaveMode saveMode,
                                                 const std::string& caption);
  /// A tool's result image from the template as CreateNewImage makes it, with caption, suffix, history
  /// entry and save mode from info; not added (AddResultToProject does, once it is filled). Null as above.
  static std::unique_ptr<TDImage> CreateResultImage(IDataProject& project, int32_t templateID,
                                                    TDataFieldKind kind, const TResultInfo& info);

  /// Reallocates the field (and line arrays) unless it already has these sizes, kind and orientation.
  void SetFieldSize(int32_t sizeX, int32_t sizeY, TDataFieldKind kind = TDataFieldKind::Float,
                    bool inverted = true);
  void FreeField();
  bool IsInverted() const { return FInverted; }

  /// 0 outside or on an invalid line.
  float GetField(int32_t x, int32_t y) const;
  float GetFastField(int32_t x, int32_t y) const;
  /// Nothing outside; marks the line changed (not valid).
  void SetField(int32_t x, int32_t y, float value);
  /// size X values; zeros outside or on an invalid line.
  void GetLine(int32_t y, float* values) const;
  /// Stored values of a line, valid or not.
  void GetFastLine(int32_t y, float* values) const;
  void SetLine(int32_t y, const float* values);
  /// Every pixel set and every line valid, with one notification.
  void SetFieldValues(float value);
  /// Every pixel set; valid flags untouched.
  void FillField(float value);
  void CopyFieldValuesToDataField(TDataField& field) const;
  void CopyFieldValuesFromDataField(const TDataField& field);
  void CopyFieldValuesFrom(const TDImage& image);

  bool IsDataPointInside(double x, double y) const;
  bool IsSameSize(const TDImage& image, bool withTransformation) const;
  static bool ImagesHaveSameParameters(const TDImage& a, const TDImage& b);
  /// minCount/maxCount -1: no bound. All entries must be images; each flag compares with the first.
  static bool IsImageIDListOkay(IDataProject* project, const TIntList& idList, int32_t minCount,
                                int32_t maxCount, bool sameSize, bool sameSpaceTransformation,
                                bool sameZInterpretation, bool mustHaveTransformation);
  /// Over all pixels of valid lines; false when there is none.
  bool GetMinMaxValuesForValidPixels(float& min, float& max) const;
  /// Bilinear, with the edge rules of the image.
  float GetInterpolatedField(double x, double y) const;
  static float GetInterpolatedValueFromImageArray(double x, double y, int32_t sizeX, int32_t sizeY,
                                                  const float* values);

  /// @{ Statistics of the valid lines.
  /// The fit line, average, sum and sum of squares of line y. Lines are independent: threads may
  /// calculate distinct lines of one image at the same time.
  void CalculateLineInformation(int32_t y);
  /// Recalculates every valid changed line, then CalculateImageStatistics.
  void CalculateLineInformationForAllValidLines();
  /// Average and deviation of the image from the line information of its valid lines, as it stands.
  void CalculateImageStatistics();
  double GetAverage() const { return FAverage; }
  double GetDeviation() const { return FDeviation; }
  double GetLineAverage(int32_t y) const { return FLineAverage[static_cast<size_t>(y)]; }
  double GetLineA(int32_t y) const { return FLineA[static_cast<size_t>(y)]; }
  double GetLineB(int32_t y) const { return FLineB[static_cast<size_t>(y)]; }
  /// @}

private:
  void ResizeLineArrays();
  /// Index vector of pixel (x, y) in the field's orientation.
  void Index(int32_t x, int32_t y, int32_t* index) const;
  /// A copy of the field in the other orientation.
  std::unique_ptr<TDataField> MakeTransposedCopy(bool inverted) const;

  std::unique_ptr<TDataField> FField;
  double FAverage = 0;
  double FDeviation = 0;
  std::vector<double> FLineAverage, FLineSumSqr, FLineSum, FLineA, FLineB;
  int32_t FVersion = ThisVersion;
  bool FInverted = true;
};
