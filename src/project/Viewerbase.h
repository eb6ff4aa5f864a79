// The viewer frame: what every viewer offers the project (persistence, ID bookkeeping, change
// notification) and what all viewers share (registration by name, captions, window placement and its
// tags, the memory of automatic positioning, closing, and the control interface of user parameters).
// A viewer whose class this program doesn't know is kept as its stored tags.
#pragma once

#include "common/Tagcontrol.h"
#include "common/parameters/Userparameteradministrator.h"
#include "data/Dcustom.h"
#include "project/Viewerwindow.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TProject;

/// Viewer modes: only normal viewers are saved with the project.
enum class TViewerMode : int32_t { Normal = 0, Hardware = 1, Dialog = 2 };

class TVCustomForm;

/// What a registered viewer class offers: a create function, the check whether it may show a list of
/// IDs, the show function (creates a viewer on the IDs, adds it to the project and places it), and the
/// caption of the class ("Text Viewer").
struct TRegisteredViewer {
  std::function<std::unique_ptr<TVCustomForm>()> CreateViewer;
  std::function<bool(TProject&, const TIntList&)> IsInputIDListOkayForShowViewer;
  std::function<TVCustomForm*(TProject&, const TIntList&)> ShowViewer;
  std::string Caption;
};

/// Message to viewers that use an object (TProject::SendViewerMessage).
enum class TViewerMessage : int32_t { AutoColorScale = 0 };

class TVCustomForm {
public:
  static constexpr int32_t ThisVersion = 1;

  TVCustomForm() = default;
  virtual ~TVCustomForm();
  TVCustomForm(const TVCustomForm&) = delete;
  TVCustomForm& operator=(const TVCustomForm&) = delete;

  virtual std::string GetClassNameA() const = 0;

  /// @{ Control interface: the viewer's settings as user parameters (made in CFICreateParameters).
  virtual void CFIParameterChanged(const TUserParameterList& /*changed*/) {}
  virtual bool CFIParameterIsNewValueAllowed(const TUserParameterList& /*changed*/) { return true; }
  virtual void CFICreateParameters(TUserParameterAdministrator& /*cfi*/) {}
  virtual void CFISetStyle() {}
  /// Forgets pointers into the parameters before they go.
  virtual void CFIClearParameterPointer() {}
  virtual void CFISetParentProperties() {}
  /// Makes the control interface with the viewer's parameters (once; later calls keep it).
  void CreateCFI();
  /// Null until CreateCFI.
  TUserParameterAdministrator* GetCFI() const { return FCFI.get(); }
  /// @}

  /// Writes the group "TVCustomForm" (version and window placement). Derived viewers call this first and
  /// then write their own group.
  virtual TTagError SaveViewerToTagFile(TFileHandle file);
  /// Reads the group "TVCustomForm" below parent: "ShowCommand" and the four minimum/maximum positions
  /// are required (the first one missing ends the load with its error), the window rectangle has defaults.
  virtual TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent);
  virtual void GetDefaultViewerSettings(TTagControl& /*settings*/) {}
  virtual void SetDefaultViewerSettings(const TTagControl& /*settings*/) {}
  /// Redraws from the data.
  virtual void DoDataUpdate() {}
  /// True for every ID the viewer shows.
  virtual bool IsDataUsed(int32_t /*id*/) const { return false; }
  /// Renumbering: adds delta to every ID held (a held 0 stays 0).
  virtual void AddToID(int32_t /*delta*/) {}
  /// Shows a further object (dropped on the viewer); false when the viewer can't show it.
  virtual bool AddDataID(int32_t /*id*/) { return false; }
  virtual void ExchangeID(int32_t /*oldID*/, int32_t /*newID*/) {}
  virtual void BeforeClearProject() {}
  /// A held object changed (3) or was deleted (1: the ID must be dropped).
  virtual void DataChanged(TData* /*data*/, TDataChangeInfo /*info*/) {}
  virtual void RecieveViewerMessage(int32_t /*message*/) {}
  virtual bool IsCloseAllowed() { return true; }
  /// The viewer got a window (attached) or lost it: viewers that calculate while shown start or stop.
  virtual void WindowAttached(bool /*attached*/) {}
  /// Makes the objects the viewer offers for extraction (the graph viewer's active spectrum, the image
  /// viewer's zoom window, the filter viewer's filters), adds them to the project and returns their IDs.
  /// Empty, with reason set, when it makes none.
  virtual TIntList ExtractViewerObjects(std::string& reason);

  /// Title shown in lists and messages: the window's caption.
  virtual std::string GetTitle() const;
  /// False for viewers whose IDs can't be renumbered (a stored viewer of an unknown class).
  virtual bool CanRenumber() const { return true; }

  TViewerMode GetMode() const { return FMode; }
  void SetMode(TViewerMode mode) { FMode = mode; }
  bool GetDeleteRequested() const { return FDeleteRequested; }
  void RequestDelete() { FDeleteRequested = true; }
  /// A change in this viewer doesn't mark the project changed.
  bool GetNotCountingForSave() const { return FNotCountingForSave; }
  void SetNotCountingForSave(bool value) { FNotCountingForSave = value; }
  TProject* GetProject() const { return FProject; }
  void SetProject(TProject* project) { FProject = project; }

  // --- Captions ------------------------------------------------------------------------------

  /// @{ The window's caption is pre caption, form caption and post caption joined.
  void SetFormCaption(const std::string& caption);
  void SetPreCaption(const std::string& caption);
  void SetPostCaption(const std::string& caption);
  std::string GetCaption() const { return FPreCaption + FFormCaption + FPostCaption; }
  /// @}

  // --- Window --------------------------------------------------------------------------------

  /// Connects the viewer to its window (null: none). The window takes the caption, placement and close
  /// state at once. Not owned.
  void AttachWindow(IViewerWindow* window);
  IViewerWindow* GetWindow() const { return FWindow; }
  /// The window's placement, or the stored one without a window.
  TWindowPlacement GetPlacement() const;
  /// Sets the placement of the window, or stores it without one.
  void SetPlacement(const TWindowPlacement& placement);
  /// The normal rectangle of the window.
  void SetBounds(int32_t left, int32_t top, int32_t width, int32_t height);
  int32_t GetLeft() const { return GetPlacement().WindowLeft; }
  int32_t GetTop() const { return GetPlacement().WindowTop; }
  int32_t GetWidth() const { return GetPlacement().Width(); }
  int32_t GetHeight() const { return GetPlacement().Height(); }
  /// Asks the window to repaint (nothing without a window).
  void Redraw();

  void SetCustomFormCanClose(bool canClose);
  bool GetCustomFormCanClose() const { return FCustomFormCanClose; }
  /// With keep set, closing the window hides the viewer instead of freeing it.
  void SetKeepOnClose(bool keep) { FKeepOnClose = keep; }
  bool GetKeepOnClose() const { return FKeepOnClose; }

  /// Called when the viewer's window becomes active.
  std::function<void(TVCustomForm*)> OnFormActivate;
  /// The window became active: unless this is the project manager, every project manager shows the data
  /// this viewer uses; then OnFormActivate.
  void FormActivate();
  /// Whether the window may close now (IsCloseAllowed, and the close command not forbidden).
  bool CloseQuery();
  /// The window closes: forgets OnFormActivate; returns true when the viewer is to be freed.
  bool DoClose();
  /// Hook of the workbench: shows the data in use of an activated viewer in the project managers.
  static inline std::function<void(TVCustomForm*)> OnShowDataInUse;

  // --- Automatic positioning -------------------------------------------------------------------

  /// Sets the bounds from automatic positioning and remembers them.
  void SetAutoPositionBounds(int32_t left, int32_t top, int32_t width, int32_t height);
  /// True when the viewer was auto-positioned and still stands exactly there.
  bool HasFormNotBeenMovedByUserSinceAutoPosition() const;
  bool WasAutoPositioned() const { return FAutoPositioned; }

  // --- Registry ------------------------------------------------------------------------------

  /// Registers className; doRegister fills the entry. A name registered already is kept as it is.
  static void RegisterViewer(const std::string& className,
                             const std::function<void(TRegisteredViewer&)>& doRegister);
  /// Registers a class that only loads (no show, caption = class name).
  using TFactory = std::function<std::unique_ptr<TVCustomForm>()>;
  static void RegisterViewerClass(const std::string& className, TFactory factory);
  /// A new viewer of className ("TVBitmapForm" reads as "TVImageForm"); null for an unknown name.
  static std::unique_ptr<TVCustomForm> CreateViewerObjectByName(const std::string& className);
  static std::unique_ptr<TVCustomForm> CreateViewerByName(const std::string& className) {
    return CreateViewerObjectByName(className);
  }
  /// The entry of className, null when unknown.
  static const TRegisteredViewer* GetRegisteredViewer(const std::string& className);
  /// Registered class names in the order of registration.
  static std::vector<std::string> GetRegisteredViewerNames();
  static void DeleteRegisteredViewerList();
  /// The name under which a stored class is created ("TVBitmapForm" → "TVImageForm").
  static std::string ExchangeOldClassName(const std::string& className);

private:
  TViewerMode FMode = TViewerMode::Normal;
  bool FDeleteRequested = false;
  bool FNotCountingForSave = false;
  TProject* FProject = nullptr;
  bool FCustomFormCanClose = true;
  bool FKeepOnClose = false;
  std::string FPreCaption;
  std::string FFormCaption;
  std::string FPostCaption;
  IViewerWindow* FWindow = nullptr;
  TWindowPlacement FPlacement;
  bool FAutoPositioned = false;
  int32_t FAutoLeft = 0;
  int32_t FAutoTop = 0;
  int32_t FAutoWidth = 0;
  int32_t FAutoHeight = 0;
  std::unique_ptr<TUserParameterAdministrator> FCFI;
  std::unique_ptr<IUserParameterControlForm> FCFIForm; ///< routes the parameters' events to the viewer
};

/// A viewer of a class this program doesn't build: its tags are kept as read and written back unchanged,
/// so that loading and saving a project never loses a viewer. It knows no IDs.
class TVStoredViewer : public TVCustomForm {
public:
  explicit TVStoredViewer(std::string className) : FClassName(std::move(className)) {}
  std::string GetClassNameA() const override { return FClassName; }
  TTagError SaveViewerToTagFile(TFileHandle file) override;
  /// Keeps every child tag of parent (the viewer's own tag) with its whole subtree.
  TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) override;
  bool CanRenumber() const override { return false; }

private:
  std::string FClassName;
  TTagControl FTree{"Viewer", TTagKind::TagList};
};
