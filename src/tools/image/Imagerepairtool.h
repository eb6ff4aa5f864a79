// Image Repair: the marked pixels of each input image filled from their surroundings, by linear
// interpolation along columns, by a value with noise, by repeated averaging of the four neighbours or by
// exemplar-based inpainting. The mask is the union of the pixels that are not finite, the non-zero pixels
// of a mask image of the same size, rectangles given as text and the pixels drawn in the window.
#pragma once

#include "project/Processingdialogforms.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class TToolRegistry;

/// The repair methods by page index.
enum class TImageRepairMode : int32_t {
  LineInterpolation = 0,
  SimpleFilling = 1,
  SimpleInterpolation = 2,
  TextureAnalysis = 3
};

/// An inclusive pixel rectangle.
struct TPixelRectangle {
  int X0 = 0, X1 = 0, Y0 = 0, Y1 = 0;
};

/// Reads "x0:x1,y0:y1;x0:x1,y0:y1;..." (inclusive, blanks allowed, empty: none). False with a problem text
/// naming the part that can't be read or whose lower bound lies above the upper one.
bool ParsePixelRectangles(const std::string& text, std::vector<TPixelRectangle>& rectangles,
                          std::string& problem);

class TImageRepairForm : public TProjectImageProcessingDialogForm {
public:
  static constexpr const char* kClassName = "TImageRepairForm";
  /// The group tag of GetDialogParameters: every parameter below it as "ImageRepairDialog|<name>".
  static constexpr const char* kDialogTag = "ImageRepairDialog";
  static constexpr const char* kDrawFieldCaption = "Draw your Mask here";
  static constexpr const char* kTooLargeForTextureAnalysis =
      "Error: Inpainting Texture Analysis only works on Images smaller than 1024*1024 pixels !";

  TImageRepairForm();
  ~TImageRepairForm() override;
  std::string GetClassNameA() const override { return kClassName; }
  static TParameterTable& Declaration();

  static std::string CaptionSuffix(TImageRepairMode mode);

  /// The pixels drawn in the window over the current image (size X times size Y, row after row, non-zero
  /// marks); they join the mask of that image. Empty, or of another size, adds nothing.
  std::vector<uint8_t>& DrawField() { return FDrawField; }
  int32_t GetDrawFieldImageID() const { return FDrawFieldImageID; }
  /// Takes the draw field over for the image now current (cleared when its size differs).
  void CopySelectedImageToPreviewImageDrawField();

  /// The whole mask of image as a run would use it (one flag per pixel, row after row); raises
  /// OrvexException for a mask image of another size or a rectangle that can't be read or lies outside.
  std::vector<bool> BuildMask(const TDImage& image) const;

  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void GetDialogParameters(TTagControl& tag) override;
  void SetDialogParameters(const TTagControl& tag) override;

protected:
  void OnDataSetChangerChange(int32_t id) override;
  void PreCalculate(TImageList& inputs, TImageList& results) override;
  void CalculateThread(TMCC* mcc, int threadIndex, TImageList& inputs, TImageList& results) override;
  void PostCalculate(TImageList& inputs, TImageList& results) override;

private:
  struct TJob {
    TDImage* Input = nullptr;
    TDImage* Result = nullptr;
    int SizeX = 0, SizeY = 0;
    std::vector<float> Values;
    std::unique_ptr<bool[]> Mask;
    std::vector<char> LineValid;
    std::string Problem;
  };
  void Repair(TJob& job, TMCC* mcc) const;

  std::vector<TJob> FJobs;
  std::vector<uint8_t> FDrawField;
  int32_t FDrawFieldImageID = 0;
};

void RegisterImageRepair(TToolRegistry& registry);
