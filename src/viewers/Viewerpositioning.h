// Automatic placement of viewers: one layout per viewer class (none, array, cascade, single position),
// the derived grid that fits more viewers than the stored one, saved window positions of other windows,
// and one layout file per monitor arrangement.
#pragma once

#include "common/Tagcontrol.h"
#include "project/Viewerbase.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TProject;

/// How viewers of a class are placed: 0 "None", 1 "Array", 2 "Cascade", 3 "Single Position".
enum class TViewerPositionKind : int32_t { None = 0, Array = 1, Cascade = 2, SinglePosition = 3 };

/// The layout of one viewer class with its running position.
struct TViewerPositionInfo {
  std::string ClassName;
  std::string Caption;
  TViewerPositionKind Kind = TViewerPositionKind::Array;
  int32_t Cycle = 0; ///< full grids (or cascade steps) used so far
  int32_t Left = 0;
  int32_t Top = 0;
  int32_t BeginLeft = 0;
  int32_t BeginTop = 0;
  int32_t Height = 0;
  int32_t MaximumHeight = 0; ///< tallest window of the running row (Height 0)
  int32_t Width = 0;
  int32_t Columns = 1;
  int32_t Rows = 1;
  int32_t BeginColumn = 0;
  int32_t BeginRow = 0;
  float DesiredRatio = 1.0f;
  bool AutoArray = true;
  /// The grid that CalculateAutoArray derived for more viewers than the stored grid holds.
  std::unique_ptr<TViewerPositionInfo> Derived;

  /// Starts the running position again at Left, Top.
  void ResetRunning();
  /// A copy without the derived info.
  TViewerPositionInfo CopyLayout() const;
};

/// Saved position of a window that isn't a viewer, by unique name.
struct TWinControlSaveInfo {
  std::string UniqueName;
  int32_t Left = 0;
  int32_t Top = 0;
  int32_t Width = 0;
  int32_t Height = 0;
  bool Visible = false;
  bool WasChangedAfterLoad = false;
};

/// One screen of the desktop, in virtual-screen pixels.
struct TScreenRect {
  int32_t Left = 0;
  int32_t Top = 0;
  int32_t Width = 0;
  int32_t Height = 0;
  bool operator==(const TScreenRect&) const = default;
};

/// Places viewers. One instance for the process while the workbench runs (CreateInstance), but an
/// ordinary object that tests and the command line make on their own.
class TViewerPositioning {
public:
  /// Smallest tile of a derived grid, in pixels.
  static constexpr int32_t kMinimumTile = 150;
  /// Offset of each further grid and each cascade step.
  static constexpr int32_t kCycleOffset = 20;
  static constexpr int32_t kCascadeStep = 24;

  TViewerPositioning();

  static TViewerPositioning* CreateInstance();
  static void CleanupInstance();
  static TViewerPositioning* Instance() { return FInstance.get(); }

  /// The project whose viewers are placed (not owned).
  void SetProject(TProject* project) { FProject = project; }
  /// The screens of the desktop (the workbench fills them; empty: one 1920×1080 screen).
  void SetScreens(const std::vector<TScreenRect>& screens) { FScreens = screens; }
  const std::vector<TScreenRect>& GetScreens() const { return FScreens; }

  /// Layout of a class (after ExchangeClassNameForViewerPositioning); null when unknown.
  TViewerPositionInfo* GetInfo(const std::string& className);
  const std::vector<std::unique_ptr<TViewerPositionInfo>>& GetInfos() const { return FInfos; }
  /// "TVBitmapForm" → "TVImageForm", "TVFilterForm" → "TVFilterManagerForm", others unchanged.
  static std::string ExchangeClassNameForViewerPositioning(const std::string& className);

  /// Sets the bounds of viewer and remembers them as its automatic position.
  void SetViewerBounds(TVCustomForm* viewer, int32_t left, int32_t top, int32_t width, int32_t height,
                       bool recalculating);
  /// Places one viewer by its class's layout.
  void SetViewerPosition(TVCustomForm* viewer, bool recalculating);
  /// A viewer that came from a file keeps its stored place unless positions are reset on load or the
  /// place lies off every screen.
  void PlaceLoadedViewer(TVCustomForm* viewer);
  /// Places every viewer of the project again, each class from its first position.
  void SetAllViewerPosition();
  void SetAllViewerPositionWithClassName(const std::string& className, bool countAll);
  /// Starts every layout at its first position; with calculateAutoArray the derived grids are renewed.
  void ResetViewerPositionList(bool calculateAutoArray);
  void ResetViewerPositionListByClassName(const std::string& className, bool calculateAutoArray);
  /// The project's viewers of normal mode, in list order.
  std::vector<TVCustomForm*> FillViewerList() const;
  /// Derives the grid that holds the viewers of info's class (see the class comment).
  void CalculateAutoArray(TViewerPositionInfo* info, bool countAll);

  /// @{ Positions of other windows by unique name.
  TWinControlSaveInfo* AddToSaveList(const TWinControlSaveInfo& info, bool replace);
  TWinControlSaveInfo* CreateAndAddToSaveList(const std::string& uniqueName, bool replace);
  TWinControlSaveInfo* GetSaveInfoByUniqueName(const std::string& uniqueName);
  void BeforeDelete(const std::string& uniqueName);
  /// @}

  /// @{ Persistence: the group "ViewerPositionSystem".
  TTagError SaveViewerPositionSystemToTagFile(TFileHandle file);
  TTagError LoadViewerPositionSystemFromTagFile(TFileHandle file, const TTagControl& parent);
  /// Whole layout files (identification "ORX_PRSE"); the previous file survives a failed save.
  TTagError SaveToFile(const std::string& fileName);
  TTagError LoadFromFile(const std::string& fileName);
  /// @}

  /// @{ Monitor arrangements. The string lists each screen as "WxH+X+Y", separated by ";"; with
  /// onlyPrimary only the first screen.
  std::string GetMonitorString(bool onlyPrimary) const;
  static std::string GetFileNameByMonitorString(const std::string& monitorString);
  std::string GetFileNameForMonitors(bool onlyPrimary) const;
  /// Among the layout files in the folder, finds the resolution equal to or the largest smaller than
  /// width × height (single-screen layouts); false when none is known.
  bool GetExactOrSmallerKnownMonitorResolution(int32_t& width, int32_t& height) const;
  /// The folder of the layout files ("UserWindowPositioning").
  void SetLayoutFolder(const std::string& folder) { FLayoutFolder = folder; }
  /// When the monitor arrangement differs from the one last seen: logs the change, keeps the old layout,
  /// loads the new one (or the best smaller one) and brings every viewer onto a screen. True on a change.
  bool CheckWindowPositioningChange();
  /// Saves the layout of the present arrangement.
  bool CheckAndSaveWindowPositioning();
  /// @}

  /// True when the rectangle meets no screen by at least 32 × 32 pixels.
  bool IsOffScreen(int32_t left, int32_t top, int32_t width, int32_t height) const;

  /// @{ Global options.
  bool ResetPositionsOnLoad = false;
  bool ResetPositionsOnClose = false;
  bool CloseFilterViewersOnCloseAll = true;
  /// @}

private:
  void AddDefaultInfo(const std::string& className, const std::string& caption, TViewerPositionKind kind,
                      int32_t left, int32_t top, int32_t width, int32_t height, int32_t columns,
                      int32_t rows);
  int32_t CountViewers(const std::string& className, bool countAll) const;

  static inline std::unique_ptr<TViewerPositioning> FInstance;
  TProject* FProject = nullptr;
  std::vector<TScreenRect> FScreens;
  std::vector<std::unique_ptr<TViewerPositionInfo>> FInfos;
  std::vector<TWinControlSaveInfo> FSaveList;
  std::string FLayoutFolder;
  std::string FLastMonitorString;
};
