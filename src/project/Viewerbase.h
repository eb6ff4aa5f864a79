// What a viewer offers the project: persistence, ID bookkeeping and change notification. Real viewers
// derive from TVCustomForm; a viewer whose class this program doesn't know is kept as its stored tags.
#pragma once

#include "common/Tagcontrol.h"
#include "data/Dcustom.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class TProject;

/// Viewer modes: only normal viewers are saved with the project.
enum class TViewerMode : int32_t { Normal = 0, Hardware = 1, Dialog = 2 };

class TVCustomForm {
public:
  virtual ~TVCustomForm() = default;

  virtual std::string GetClassNameA() const = 0;
  virtual TTagError SaveViewerToTagFile(TFileHandle file) = 0;
  virtual TTagError LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) = 0;
  virtual void DoDataUpdate() {}
  virtual bool IsDataUsed(int32_t /*id*/) const { return false; }
  virtual void AddToID(int32_t /*delta*/) {}
  virtual void ExchangeID(int32_t /*oldID*/, int32_t /*newID*/) {}
  virtual void BeforeClearProject() {}
  virtual void DataChanged(TData* /*data*/, TDataChangeInfo /*info*/) {}
  virtual void RecieveViewerMessage(int32_t /*message*/) {}
  /// Title shown in lists and messages.
  virtual std::string GetTitle() const { return GetClassNameA(); }
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

  using TFactory = std::function<std::unique_ptr<TVCustomForm>()>;
  /// Registers a viewer class for loading; a name registered already is ignored.
  static void RegisterViewerClass(const std::string& className, TFactory factory);
  static std::unique_ptr<TVCustomForm> CreateViewerByName(const std::string& className);
  static void DeleteRegisteredViewerList();

private:
  TViewerMode FMode = TViewerMode::Normal;
  bool FDeleteRequested = false;
  bool FNotCountingForSave = false;
  TProject* FProject = nullptr;
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
