// PCA: principal component analysis of one spectra stack on the tool frame. Extract calculates the
// covariance of the points of the spectrum mask over the used pixels, solves it and adds the results the
// options ask for (eigenvalues, eigenvectors and average; single eigenvector graphs; scores; reconstructed
// spectra) for the components of the PC mask. The window, --set and the stored defaults all go through the
// parameters declared here; the calculation itself is TPCACore's.
#pragma once

#include "project/Graphmask.h"
#include "project/Projectdialogform.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class IProgressAndCancel;
class TDGraph;
class TDImage;
class TPCACore;
class TToolRegistry;

/// "Calculate PCA" needs at least two selected points.
bool IsPCACalculateEnabled(int selectedCount);
/// "Extract" of the open tool: a finished calculation, at least one result switch on, and a component in
/// the PC mask when any switch other than "PCA Result" is on.
bool IsPCAExtractEnabled(bool done, bool pcaResult, bool pcGraphs, bool transformed, bool reconstructed,
                         int pcMaskCount);

class TPCAForm : public TProjectDialogForm, public IGraphMaskOwner {
public:
  static constexpr const char* kClassName = "TPCAForm";

  TPCAForm();
  ~TPCAForm() override;
  std::string GetClassNameA() const override { return kClassName; }

  /// The parameters of the tool, declared once.
  static TParameterTable& Declaration();

  /// Exactly one graph (of class TDGraph itself) with more than one pixel in x; reason names the culprit.
  bool IsInputIDListOkay(TProject* project, const TIntList* ids, const TIntList* extra,
                         std::string* reason = nullptr) override;

  /// The components the "PC Mask" text selects for a calculation of componentCount components, ascending.
  /// A range that ends beyond the last component is cut; one that selects none is refused. False with one
  /// line naming the parameter and the valid range.
  bool ReadPCMask(int componentCount, std::vector<int>& pcs, std::string& error) const;

  /// Asked besides the run's own cancel during the calculation and the extraction (may be null).
  const IProgressAndCancel* ExternalCancel = nullptr;

  // --- The open tool with its previews (interactive) -----------------------------------------------
  // Opened interactively, the tool keeps a "Preview" image (the intensity, or the score of the current PC),
  // the cursor pixel's spectrum ("Mask Preview") with its reconstruction ("Reconstruction Preview"), and
  // the "Eigenvalues" graph, each in a viewer of its own. "Calculate PCA" calculates; "Extract" then
  // writes the chosen results of that calculation. Without previews Extract calculates and extracts at once.

  static constexpr const char* kPreviewCaption = "Preview";
  static constexpr const char* kMaskPreviewCaption = "Mask Preview";
  static constexpr const char* kReconstructionPreviewCaption = "Reconstruction Preview";
  static constexpr const char* kEigenValuesCaption = "Eigenvalues";
  /// Points of the eigenvalue graph before the first calculation.
  static constexpr int kInitialEigenValuePoints = 100;

  void Init(const TIntList* ids, const TIntList* extra, TProject* project = nullptr) override;
  void CleanUp() override;
  void DoDataChange(TData* data) override;
  void DoRemoveData(TData* data) override;
  bool IsDataUsed(int32_t id) const override;
  /// @{ IGraphMaskOwner
  IDataProject* GetMaskProject() override;
  bool IsMaskOwnerActive() const override { return GetIsActive(); }
  /// @}

  /// True while the tool is open with its previews.
  bool HasPreviews() const { return FPreviewsOpen; }
  /// "Calculate PCA" on the spectrum mask and (with "Use Draw Field") the draw field; false when cancelled
  /// or nothing was calculated. Failures are thrown.
  bool CalculatePCA();
  bool IsCalculateEnabled() const;
  bool IsExtractEnabled() const;
  bool IsPCADone() const;
  /// M of the finished calculation (0 before).
  int GetComponentCount() const;
  /// The core of the open tool (its last calculation).
  const TPCACore& Core() const { return *FCore; }

  /// "Current PC:", 0 .. M-1; with "Show reconstructed Image" the preview shows its scores.
  int GetCurrentPC() const { return FCurrentPC; }
  void SetCurrentPC(int pc);
  bool GetShowReconstructedImage() const { return FShowReconstructedImage; }
  void SetShowReconstructedImage(bool show);
  /// "Add to Mask" and "Del. from Mask": the current PC into or out of the PC mask.
  void AddCurrentPCToMask();
  void DeleteCurrentPCFromMask();

  /// The spectrum mask (P points) and the PC mask (M components) of the open tool (null when closed).
  TGraphMask* SpectrumMask() { return FSpectrumMask.get(); }
  TGraphMask* PCMask() { return FPCMask.get(); }
  int GetSelectedCount() const { return FSelectedCount; }
  int GetPCMaskCount() const;

  /// The draw field of the preview image: X x Y flags, index x + y X. "Randomize Drawfield" fills it with
  /// "Draw Field Pixels" distinct pixels; the window hands over what the user draws.
  const std::vector<uint8_t>& GetDrawField() const { return FDrawField; }
  void SetDrawField(const std::vector<uint8_t>& flags);
  void RandomizeDrawFieldCommand();

  /// The cursor pixel the preview graphs show.
  int GetCursorX() const { return FCursorX; }
  int GetCursorY() const { return FCursorY; }
  void SetCursorPixel(int x, int y);

  /// @{ The temporary objects (0 when not open).
  int32_t GetPreviewImageID() const { return FPreviewID; }
  int32_t GetMaskPreviewID() const { return FMaskPreviewID; }
  int32_t GetReconstructionPreviewID() const { return FReconstructionID; }
  int32_t GetEigenValuesID() const { return FEigenValuesID; }
  /// @}

  /// Told after Init opened the viewers, and whenever the enabled commands, the component count, the
  /// current PC, the masks or the draw field changed (the window refreshes its controls).
  std::function<void()> OnViewersOpened;
  std::function<void()> OnStateChanged;
  std::function<void()> OnDrawFieldChanged;

protected:
  bool DoCommand(const std::string& name) override;
  void DoParameterChanged(const TUserParameterList& changed) override;

private:
  /// Calculates on graph and hands the results to the frame; false after a cancel, throws on bad input.
  bool CalculateAndExtract(const TDGraph& graph, std::string& report);
  /// Extracts the results of the open tool's calculation for the PC mask.
  bool ExtractFromPreviews(const TDGraph& graph, std::string& report);
  const TDGraph* SourceGraph() const;
  TDGraph* FindGraph(int32_t id) const;
  void FillPreviewImageWithIntensity();
  void DoPreviewGraph();
  void DoReconstructionPreviewGraph();
  void DoPreviewEVGraph();
  void DoReconstructedImage();
  void SpectrumMaskChanged();
  void PCMaskChanged();
  void UpdateCommands();
  std::vector<int> PCMaskList() const;

  std::unique_ptr<TPCACore> FCore;
  std::unique_ptr<TGraphMask> FSpectrumMask, FPCMask;
  bool FPreviewsOpen = false;
  int32_t FSourceID = 0;
  int FSizeX = 0, FSizeY = 0, FPoints = 0;
  int FSelectedCount = 0;
  int FCurrentPC = 0;
  bool FShowReconstructedImage = false;
  int FCursorX = 0, FCursorY = 0;
  std::vector<uint8_t> FDrawField;
  int32_t FPreviewID = 0, FMaskPreviewID = 0, FReconstructionID = 0, FEigenValuesID = 0;
  int32_t FPCTransformationID = 0;
  TVCustomForm* FMaskViewer = nullptr;
  bool FReconstructionShown = false;
  bool FSyncingParameters = false;
};

void RegisterPCATool(TToolRegistry& registry);
