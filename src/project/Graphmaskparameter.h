// A tool's mask parameter (a mask text such as "500:560, 990:1010") tied to a TGraphMask over the spectrum
// a graph viewer shows: the text read into the mask whenever the parameter changes, and every change of
// the mask (a toolbar button, drawing in the viewer) written back as one change of the parameter. The
// mask shows as one band of the viewer, except while it holds every point. Toolkit-free, so that a window
// only has to place the widgets.
#pragma once

#include "common/parameters/Userparameter.h"
#include "project/Graphmask.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class TUserStringParameter;

class TGraphMaskParameterLink : public IUserParameterInputMask,
                                public IGraphMaskViewer,
                                public IGraphMaskOwner {
public:
  /// The viewer that shows the bands at the moment (null while there is none).
  using TViewerSource = std::function<IGraphMaskViewer*()>;

  /// Ties parameter to a one-mask TGraphMask over graph graphID of project (one flag per point of the
  /// graph), shown as band bandIndex on the viewer that viewer gives. The parameter's text is read at
  /// once. parameter and project must outlive the link.
  TGraphMaskParameterLink(TUserStringParameter& parameter, IDataProject& project, int32_t graphID,
                          int bandIndex, TViewerSource viewer);
  ~TGraphMaskParameterLink() override;
  TGraphMaskParameterLink(const TGraphMaskParameterLink&) = delete;
  TGraphMaskParameterLink& operator=(const TGraphMaskParameterLink&) = delete;

  TGraphMask& Mask() { return *FMask; }
  TUserStringParameter& Parameter() { return FParameter; }
  int GetBandIndex() const { return FBandIndex; }
  /// Why the parameter's text could not be read into the mask the last time (empty when it could); the
  /// mask then keeps its former points.
  const std::string& GetTextError() const { return FTextError; }
  /// How many times a change of the mask was written to the parameter.
  int GetWriteCount() const { return FWriteCount; }

  /// Reads the parameter's text into the mask again (the graph's axis may have changed).
  void ReadText();
  /// Shows the mask's band on the viewer as it stands.
  void ShowBand();
  /// Called after a change of the mask was taken as the parameter's new text (a form shows it then).
  std::function<void()> OnTextWritten;

  /// @{ IUserParameterInputMask: the parameter tells each change of its value.
  void ShowParameter(const TUserParameter& parameter) override;
  void ShowState(bool enabled, bool visible, TUserParameterFontColor fontColor) override;
  /// @}
  /// @{ IGraphMaskViewer: what the mask shows goes on to the current viewer, if any; a mask of every
  /// point goes as none (no band).
  void SetMultiMask(int32_t graphID, int bandIndex, int firstPoint, int lastPoint, const bool* mask) override;
  void HideMarker() override;
  /// @}

private:
  // IGraphMaskOwner: the toolbar's buttons act while the link stands.
  IDataProject* GetMaskProject() override { return &FProject; }
  bool IsMaskOwnerActive() const override { return true; }
  /// The mask changed: its text becomes the parameter's value.
  void WriteText();

  TUserStringParameter& FParameter;
  IDataProject& FProject;
  int FBandIndex = 0;
  TViewerSource FViewer;
  std::unique_ptr<TGraphMask> FMask;
  std::string FTextError;
  int FWriteCount = 0;
  bool FReading = false;
  bool FWriting = false;
};
