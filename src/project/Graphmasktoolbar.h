// The mask toolbar's logic: the row of mask commands a tool window shows over its mask, the colour panel
// that shows the colour of the mask's bands in the graph viewer, and values dropped onto the buttons. The
// toolkit draws the buttons and calls Click, DragOver and DragDrop; everything else lives here.
#pragma once

#include "data/Dcustom.h"

#include <cstdint>
#include <string>
#include <vector>

class TGraphMask;

/// The colour (0x00BBGGRR) of mask band bandIndex in the graph viewer, the same for the toolbar's colour
/// panel: green, orange, violet, then the list repeats.
uint32_t GraphMaskBandColor(int bandIndex);
/// The opacity of mask bands: the curves stay visible through them.
inline constexpr float kGraphMaskBandAlpha = 0.3f;

/// The commands of a mask toolbar, in the order of the buttons.
enum class TGraphMaskCommand : int32_t {
  Set = 0,
  Clear,
  SetAll,
  ClearAll,
  InvertAll,
  SetRange,
  ClearRange,
  CropRange,
  Extract,
};

struct TGraphMaskButtonInfo {
  TGraphMaskCommand Command;
  std::string Caption;
  std::string Hint;
};

/// Where the colour panel stands beside the buttons.
enum class TGraphMaskColorPanelPosition : int32_t { Left = 0, Right = 1 };

class TGraphMaskToolBar {
public:
  /// A toolbar over mask (may be null until SetGraphMask), its bands' colour taken from band colour index
  /// colorIndex; size is the buttons' edge length in pixels.
  TGraphMaskToolBar(TGraphMask* mask, int colorIndex = 0, int size = 24);

  /// The buttons, in order.
  static const std::vector<TGraphMaskButtonInfo>& Buttons();

  /// The mask and the index of the mask the buttons work on (-1: all masks of the set).
  void SetGraphMask(TGraphMask* mask, int index);
  TGraphMask* GetGraphMask() const { return FMask; }
  /// The project whose graphs dropped mask texts are read over (null: pixel ranges, "all" and "none" only).
  void SetProject(IDataProject* project) { FProject = project; }
  void SetMaskIndexForButtons(int index) { FMaskIndex = index; }
  int GetMaskIndexForButtons() const { return FMaskIndex; }

  /// Runs the command of button: the mask's button operation for the buttons' mask index (so it acts only
  /// while the owning tool is active and its range or value controls hold valid values). False without a
  /// mask.
  bool Click(TGraphMaskCommand command);

  /// @{ The colour panel.
  void SetColorPanelPosition(TGraphMaskColorPanelPosition position) { FPanelPosition = position; }
  TGraphMaskColorPanelPosition GetColorPanelPosition() const { return FPanelPosition; }
  void SetColorPanelVisibility(bool visible) { FPanelVisible = visible; }
  bool GetColorPanelVisibility() const { return FPanelVisible; }
  /// The panel's colour: that of the bands the mask shows (0x00BBGGRR).
  uint32_t GetColor() const;
  void SetColorIndex(int index) { FColorIndex = index; }
  int GetColorIndex() const { return FColorIndex; }
  int GetButtonSize() const { return FSize; }
  /// @}

  /// @{ A value dropped onto a button: a mask text ("500:560, 990:1010", "10:20 px", "graph:ID", "all",
  /// "none") over the mask's graph. Set joins its points to the mask, Clear and Clear Range take them
  /// away, Set Range joins them, Crop Range keeps only them. DragOver says whether button takes value
  /// (with the reason when not); DragDrop applies it to the buttons' mask (all masks for -1) and reports
  /// the change once.
  bool ToolButtonDragOver(TGraphMaskCommand command, const std::string& value, std::string& reason) const;
  bool ToolButtonDragDrop(TGraphMaskCommand command, const std::string& value, std::string& reason);
  /// @}

private:
  /// The points value selects over the mask's graph.
  bool ReadValue(const std::string& value, std::vector<bool>& points, std::string& reason) const;

  TGraphMask* FMask = nullptr;
  IDataProject* FProject = nullptr;
  int FMaskIndex = 0;
  int FColorIndex = 0;
  int FSize = 24;
  TGraphMaskColorPanelPosition FPanelPosition = TGraphMaskColorPanelPosition::Left;
  bool FPanelVisible = true;
};
