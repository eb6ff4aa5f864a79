// The two frames of the tools that turn each input object into one result: graphs (spectra) and
// images. They own the fixed sequence preview - multi-core calculation - extract; a tool fills in
// PreCalculate (make the results), CalculateThread (on TMCC's threads, disjoint parts of the results)
// and PostCalculate (hand the results over, drop them on a cancel).
#pragma once

#include "project/Projectdialogform.h"

#include <algorithm>
#include <memory>
#include <vector>

class TDGraph;
class TDImage;
class TMCC;

/// Binds a choice box to the input list: the box shows the inputs' captions, a choice calls back with the
/// new ID. The window draws it; it follows the list and the captions.
class TDataSetChanger {
public:
  explicit TDataSetChanger(std::function<void(int32_t)> onChange) : FOnChange(std::move(onChange)) {}
  void IDListChanged(const TIntList& ids);
  const TIntList& GetIDs() const { return FIDs; }
  /// The captions of the inputs, in list order (the project's current ones).
  std::vector<std::string> GetCaptions(const TProject& project) const;
  int32_t GetCurrentID() const { return FCurrentID; }
  /// The user chose id; false when it isn't an input.
  bool Select(int32_t id);

private:
  TIntList FIDs;
  int32_t FCurrentID = 0;
  std::function<void(int32_t)> FOnChange;
};

/// The new results of a run: kept by the frame until they are handed over, dropped after a failure or a
/// cancel.
template <class T>
class TRunResults {
public:
  T* Own(std::unique_ptr<T> result) {
    if (!result) return nullptr;
    FOwned.push_back(std::move(result));
    return FOwned.back().get();
  }
  /// Gives each owned result of list to add, in list order; the others of list (previews) stay.
  template <class Add>
  void HandOver(const std::vector<T*>& list, Add&& add) {
    for (T* result : list) {
      auto it = std::find_if(FOwned.begin(), FOwned.end(),
                             [result](const auto& owned) { return owned.get() == result; });
      if (it == FOwned.end()) continue;
      std::unique_ptr<T> owned = std::move(*it);
      FOwned.erase(it);
      add(std::move(owned));
    }
  }
  void Drop() { FOwned.clear(); }

private:
  std::vector<std::unique_ptr<T>> FOwned;
};

/// Graph tools: one result graph per input graph.
class TProjectGraphProcessingDialogForm : public TProjectDialogForm {
public:
  using TGraphList = std::vector<TDGraph*>;

  TProjectGraphProcessingDialogForm(std::string dialogName, TParameterTable& declaration);
  ~TProjectGraphProcessingDialogForm() override;

  std::string GetFrameName() const override { return "TProjectGraphProcessingDialogForm"; }
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;
  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void CleanUp() override;
  void DoRemoveData(TData* data) override;
  /// The preview viewer over the original spectrum: where the spectral masks are shown and drawn.
  bool HasSpectralMaskViewer() const override { return true; }
  TVCustomForm* GetSpectralMaskViewer() const override { return FPreviewViewer; }
  int32_t GetSpectralMaskGraphID() const override { return FOriginalGraphID; }
  void DoDataChange(TData* data) override;
  void EnableDisableCalculations(bool extract, bool extractAll, TIntList* ids) override;
  bool IsDataUsed(int32_t id) const override;

  /// -1: no limit.
  int32_t MinNumberOfGraphs = -1;
  int32_t MaxNumberOfGraphs = -1;
  bool SameSize = false;
  bool SameGraphSize = false;
  bool SameSpaceTransformation = false;
  bool SameXTransformation = false;
  bool SameXInterpretation = false;
  bool SameZInterpretation = false;
  /// Preview and Extract always work on the whole input list.
  bool ProcessAllData = false;
  /// The tool wants a data set choice box.
  bool UseDataSetChanger = false;

  const TIntList& GetInputIDs() const { return FInputIDs; }
  int32_t GetCurrentID() const { return FCurrentID; }
  int32_t GetPreviewGraphID() const { return FPreviewGraphID; }
  int32_t GetOriginalGraphID() const { return FOriginalGraphID; }
  TDataSetChanger* GetDataSetChanger() const { return FDataSetChanger.get(); }
  TVCustomForm* GetPreviewViewer() const { return FPreviewViewer; }
  int32_t GetPositionX() const { return FPositionX; }
  int32_t GetPositionY() const { return FPositionY; }
  bool GetIsPreview() const { return FIsPreview; }
  /// True when the last run was cancelled.
  bool GetLastRunCancelled() const { return FLastRunCancelled; }
  /// How many calculations (preview or extract) ran since Init.
  int GetNumberOfCalculations() const { return FNumberOfCalculations; }

  /// Copies the spectrum at the position into the original graph and calculates the preview.
  void UpdatePreview();
  /// Another input becomes current (the data set choice).
  void ChangeCurrentID(int32_t id);
  /// Runs the sequence on ids (taken over).
  void StartCalculationSequence(std::unique_ptr<TIntList> ids);

protected:
  bool DoCommand(const std::string& name) override;
  virtual bool PreCalculate(TGraphList& inputs, TGraphList& results);
  virtual void CalculateThread(TMCC* mcc, int threadIndex, TGraphList& inputs, TGraphList& results);
  virtual void PostCalculate(TGraphList& inputs, TGraphList& results);
  virtual bool IsExtractPossible() { return true; }
  virtual bool IsExtractAllPossible() { return true; }

  /// A new result graph that the frame keeps until HandOverResults (or deletes after a failure).
  TDGraph* OwnResult(std::unique_ptr<TDGraph> result);
  /// The three duties of PostCalculate: in a preview nothing is kept, after a cancel the new results
  /// are deleted, otherwise each enters the project through AddResult.
  void HandOverResults(TGraphList& results);
  TMCC* GetMCC() const { return FMCC.get(); }

private:
  TIntList FInputIDs;
  int32_t FCurrentID = 0;
  int32_t FPreviewGraphID = 0;
  int32_t FOriginalGraphID = 0;
  TVCustomForm* FPreviewViewer = nullptr;
  std::unique_ptr<TDataSetChanger> FDataSetChanger;
  int32_t FPositionX = 0;
  int32_t FPositionY = 0;
  bool FIsPreview = false;
  bool FLastRunCancelled = false;
  int FNumberOfCalculations = 0;
  std::unique_ptr<TMCC> FMCC;
  TGraphList* FRunInputs = nullptr;
  TGraphList* FRunResults = nullptr;
  TRunResults<TDGraph> FOwnedResults;
};

/// One preview slot of an image tool.
struct TImageProcessingPreviewImage {
  int32_t ID = 0;
  bool Visible = true; ///< a viewer is wanted
  TVCustomForm* Viewer = nullptr;
  bool UpdateOnNextShow = false; ///< the viewer is to be pointed at the ID again
  bool ConfirmActive = true;     ///< the viewer's Check action is set when it is made
};

/// Image tools: one result image per input image.
class TProjectImageProcessingDialogForm : public TProjectDialogForm {
public:
  using TImageList = std::vector<TDImage*>;

  TProjectImageProcessingDialogForm(std::string dialogName, TParameterTable& declaration);
  ~TProjectImageProcessingDialogForm() override;

  std::string GetFrameName() const override { return "TProjectImageProcessingDialogForm"; }
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;
  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void CleanUp() override;
  void DoRemoveData(TData* data) override;
  void EnableDisableCalculations(bool extract, bool extractAll, TIntList* ids) override;
  bool IsDataUsed(int32_t id) const override;

  int32_t MinNumberOfImages = -1;
  int32_t MaxNumberOfImages = -1;
  bool SameSize = false;
  bool SameSpaceTransformation = false;
  bool SameInterpretation = false;
  bool ProcessAllData = false;
  bool UseDataSetChanger = false;
  bool ExtractEnabled = true;
  bool AutoPreview = true;

  const TIntList& GetInputIDs() const { return FInputIDs; }
  int32_t GetCurrentID() const { return FCurrentID; }
  std::vector<TImageProcessingPreviewImage>& PreviewImages() { return FPreviewImages; }
  TDataSetChanger* GetDataSetChanger() const { return FDataSetChanger.get(); }
  bool GetIsPreview() const { return FIsPreview; }
  bool GetLastRunCancelled() const { return FLastRunCancelled; }
  int GetNumberOfCalculations() const { return FNumberOfCalculations; }

  /// Calculates the previews (the current input, or all with ProcessAllData).
  void DoPreviewImages();
  void ShowPreviewImageForms();
  /// A permanent copy of a preview image with caption, added as a result.
  TDImage* ExtractPreviewImage(size_t index, const std::string& caption);
  void StartCalculationSequence(std::unique_ptr<TIntList> ids);

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;
  virtual void OnDataSetChangerChange(int32_t id);
  /// Typical: one preview image made from the first input.
  virtual void CreatePreviewImages();
  virtual void PreCalculate(TImageList& inputs, TImageList& results);
  virtual void CalculateThread(TMCC* mcc, int threadIndex, TImageList& inputs, TImageList& results);
  virtual void PostCalculate(TImageList& inputs, TImageList& results);

  TDImage* OwnResult(std::unique_ptr<TDImage> result);
  /// As the graph frame's: nothing kept in a preview, deleted after a cancel, else added.
  void HandOverResults(TImageList& results);
  TMCC* GetMCC() const { return FMCC.get(); }

private:
  TIntList FInputIDs;
  int32_t FCurrentID = 0;
  std::vector<TImageProcessingPreviewImage> FPreviewImages;
  std::unique_ptr<TDataSetChanger> FDataSetChanger;
  bool FIsPreview = true;
  bool FIsShowPreview = false;
  bool FLastRunCancelled = false;
  int FNumberOfCalculations = 0;
  std::unique_ptr<TMCC> FMCC;
  TImageList* FRunInputs = nullptr;
  TImageList* FRunResults = nullptr;
  TRunResults<TDImage> FOwnedResults;
};
