// The viewer frame: registry, captions, window placement and its tags, closing, automatic positioning
// memory, the control interface; and the stored viewer of an unknown class.
#include "project/Viewerbase.h"

#include <deque>
#include <mutex>

namespace {

const char* kFrameGroup = "TVCustomForm";

struct TViewerRegistry {
  std::mutex Lock;
  std::deque<std::pair<std::string, TRegisteredViewer>> Entries; // entries never move

  TRegisteredViewer* Find(const std::string& name) {
    for (auto& [key, entry] : Entries)
      if (key == name) return &entry;
    return nullptr;
  }
};

TViewerRegistry& Registry() {
  static TViewerRegistry registry;
  return registry;
}

} // namespace

namespace {

// Routes the control interface's events to the viewer's virtual operations.
class TCFIForm : public IUserParameterControlForm {
public:
  explicit TCFIForm(TVCustomForm& viewer) : FViewer(viewer) {}
  void ParameterChanged(const TUserParameterList& changed, bool /*internalChange*/) override {
    FViewer.CFIParameterChanged(changed);
  }
  bool IsNewParameterOk(const TUserParameterList& changed) override {
    return FViewer.CFIParameterIsNewValueAllowed(changed);
  }
  void ParameterStateChanged(TUserParameter* /*parameter*/) override {}

private:
  TVCustomForm& FViewer;
};

} // namespace

TVCustomForm::~TVCustomForm() {
  if (FWindow) FWindow->ViewerDestroyed();
  if (FCFI) {
    CFIClearParameterPointer();
    FCFI->DisconnectGUI(FCFIForm.get());
  }
}

void TVCustomForm::CreateCFI() {
  if (FCFI) return;
  FCFI = std::make_unique<TUserParameterAdministrator>();
  FCFIForm = std::make_unique<TCFIForm>(*this);
  CFICreateParameters(*FCFI);
  FCFI->AllParameterListChanged();
  FCFI->ConnectGUI(FCFIForm.get());
  CFISetStyle();
  CFISetParentProperties();
}

// ---------------------------------------------------------------------------------------------
// Persistence of the window placement

TTagError TVCustomForm::SaveViewerToTagFile(TFileHandle file) {
  const TWindowPlacement p = GetPlacement();
  TTagControl group;
  TTagControl t;
  TTagError result;
  if ((result = group.WriteTag(file, kFrameGroup, TTagKind::TagList)) < 1) return result;
  const std::pair<const char*, int32_t> values[] = {
      {"Version", ThisVersion},
      {"ShowCommand", p.ShowCommand},
      {"MinimumPositionX", p.MinimumPositionX},
      {"MinimumPositionY", p.MinimumPositionY},
      {"MaximumPositionX", p.MaximumPositionX},
      {"MaximumPositionY", p.MaximumPositionY},
      {"WindowLeft", p.WindowLeft},
      {"WindowTop", p.WindowTop},
      {"WindowRight", p.WindowRight},
      {"WindowBottom", p.WindowBottom},
  };
  for (const auto& [name, value] : values)
    if ((result = t.SaveIntTag(file, name, value)) < 1) return result;
  return group.CloseWriteTag(file);
}

TTagError TVCustomForm::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  TTagControl group;
  TTagError result = group.FindTag(file, kFrameGroup, parent);
  if (result != teNoError) return result;
  TTagControl t;
  int32_t version = 0;
  t.LoadOrDefaultIntTag(file, "Version", group, &version, 1, ThisVersion);
  TWindowPlacement p = GetPlacement();
  const std::pair<const char*, int32_t*> required[] = {
      {"ShowCommand", &p.ShowCommand},           {"MinimumPositionX", &p.MinimumPositionX},
      {"MinimumPositionY", &p.MinimumPositionY}, {"MaximumPositionX", &p.MaximumPositionX},
      {"MaximumPositionY", &p.MaximumPositionY},
  };
  for (const auto& [name, value] : required)
    if ((result = t.LoadIntTag(file, name, group, value, 1)) != teNoError) return result;
  const TWindowPlacement defaults = p;
  t.LoadOrDefaultIntTag(file, "WindowLeft", group, &p.WindowLeft, 1, defaults.WindowLeft);
  t.LoadOrDefaultIntTag(file, "WindowTop", group, &p.WindowTop, 1, defaults.WindowTop);
  t.LoadOrDefaultIntTag(file, "WindowRight", group, &p.WindowRight, 1, defaults.WindowRight);
  t.LoadOrDefaultIntTag(file, "WindowBottom", group, &p.WindowBottom, 1, defaults.WindowBottom);
  if (p.ShowCommand < TWindowPlacement::kShowNormal || p.ShowCommand > TWindowPlacement::kShowMaximized)
    p.ShowCommand = TWindowPlacement::kShowNormal;
  SetPlacement(p);
  return teNoError;
}

std::string TVCustomForm::GetTitle() const {
  const std::string caption = GetCaption();
  return caption.empty() ? GetClassNameA() : caption;
}

// ---------------------------------------------------------------------------------------------
// Captions and window

void TVCustomForm::SetFormCaption(const std::string& caption) {
  FFormCaption = caption;
  if (FWindow) FWindow->SetViewerCaption(GetCaption());
}

void TVCustomForm::SetPreCaption(const std::string& caption) {
  FPreCaption = caption;
  if (FWindow) FWindow->SetViewerCaption(GetCaption());
}

void TVCustomForm::SetPostCaption(const std::string& caption) {
  FPostCaption = caption;
  if (FWindow) FWindow->SetViewerCaption(GetCaption());
}

void TVCustomForm::AttachWindow(IViewerWindow* window) {
  if (FWindow && !window) FPlacement = FWindow->GetViewerPlacement();
  const bool had = FWindow != nullptr;
  FWindow = window;
  if (FWindow) {
    FWindow->SetViewerCaption(GetCaption());
    FWindow->SetViewerPlacement(FPlacement);
    FWindow->SetCloseEnabled(FCustomFormCanClose);
  }
  if (had != (FWindow != nullptr)) WindowAttached(FWindow != nullptr);
}

TIntList TVCustomForm::ExtractViewerObjects(std::string& reason) {
  reason = GetClassNameA() + " makes no objects";
  return {};
}

TWindowPlacement TVCustomForm::GetPlacement() const {
  return FWindow ? FWindow->GetViewerPlacement() : FPlacement;
}

void TVCustomForm::SetPlacement(const TWindowPlacement& placement) {
  FPlacement = placement;
  if (FWindow) FWindow->SetViewerPlacement(placement);
}

void TVCustomForm::SetBounds(int32_t left, int32_t top, int32_t width, int32_t height) {
  TWindowPlacement p = GetPlacement();
  p.WindowLeft = left;
  p.WindowTop = top;
  p.WindowRight = left + width;
  p.WindowBottom = top + height;
  SetPlacement(p);
}

void TVCustomForm::Redraw() {
  if (FWindow) FWindow->RequestRedraw();
}

void TVCustomForm::SetCustomFormCanClose(bool canClose) {
  FCustomFormCanClose = canClose;
  if (FWindow) FWindow->SetCloseEnabled(canClose);
}

void TVCustomForm::FormActivate() {
  if (GetClassNameA() != "TVProjectManagerForm" && OnShowDataInUse) OnShowDataInUse(this);
  if (OnFormActivate) OnFormActivate(this);
}

bool TVCustomForm::CloseQuery() {
  return FCustomFormCanClose && IsCloseAllowed();
}

bool TVCustomForm::DoClose() {
  OnFormActivate = nullptr;
  return !FKeepOnClose;
}

void TVCustomForm::SetAutoPositionBounds(int32_t left, int32_t top, int32_t width, int32_t height) {
  SetBounds(left, top, width, height);
  // Remember what the window really took: a window manager may have adjusted it.
  FAutoPositioned = true;
  FAutoLeft = GetLeft();
  FAutoTop = GetTop();
  FAutoWidth = GetWidth();
  FAutoHeight = GetHeight();
}

bool TVCustomForm::HasFormNotBeenMovedByUserSinceAutoPosition() const {
  return FAutoPositioned && GetLeft() == FAutoLeft && GetTop() == FAutoTop && GetWidth() == FAutoWidth &&
         GetHeight() == FAutoHeight;
}

// ---------------------------------------------------------------------------------------------
// Registry

void TVCustomForm::RegisterViewer(const std::string& className,
                                  const std::function<void(TRegisteredViewer&)>& doRegister) {
  auto& registry = Registry();
  std::lock_guard lock(registry.Lock);
  if (!doRegister || registry.Find(className)) return;
  TRegisteredViewer entry;
  doRegister(entry);
  registry.Entries.emplace_back(className, std::move(entry));
}

void TVCustomForm::RegisterViewerClass(const std::string& className, TFactory factory) {
  RegisterViewer(className, [&](TRegisteredViewer& entry) {
    entry.CreateViewer = std::move(factory);
    entry.Caption = className;
  });
}

std::string TVCustomForm::ExchangeOldClassName(const std::string& className) {
  return className == "TVBitmapForm" ? std::string("TVImageForm") : className;
}

std::unique_ptr<TVCustomForm> TVCustomForm::CreateViewerObjectByName(const std::string& className) {
  std::function<std::unique_ptr<TVCustomForm>()> create;
  {
    auto& registry = Registry();
    std::lock_guard lock(registry.Lock);
    const TRegisteredViewer* entry = registry.Find(ExchangeOldClassName(className));
    if (!entry || !entry->CreateViewer) return nullptr;
    create = entry->CreateViewer;
  }
  return create();
}

const TRegisteredViewer* TVCustomForm::GetRegisteredViewer(const std::string& className) {
  auto& registry = Registry();
  std::lock_guard lock(registry.Lock);
  return registry.Find(className);
}

std::vector<std::string> TVCustomForm::GetRegisteredViewerNames() {
  auto& registry = Registry();
  std::lock_guard lock(registry.Lock);
  std::vector<std::string> names;
  for (const auto& entry : registry.Entries) names.push_back(entry.first);
  return names;
}

void TVCustomForm::DeleteRegisteredViewerList() {
  auto& registry = Registry();
  std::lock_guard lock(registry.Lock);
  registry.Entries.clear();
}

// ---------------------------------------------------------------------------------------------
// Stored viewer

TTagError TVStoredViewer::SaveViewerToTagFile(TFileHandle file) {
  // The project has opened the "Viewer n" tag; write the stored children back into it.
  if (FTree.Children())
    for (auto& child : *FTree.Children()) child->SaveTagListToFile(file);
  return teNoError;
}

TTagError TVStoredViewer::LoadViewerFromTagFile(TFileHandle file, const TTagControl& parent) {
  FTree.DeleteAllChildren();
  int64_t pos = parent.Begin();
  while (pos >= parent.Begin() && pos < parent.End()) {
    if (FileSeek(file, pos, TSeekOrigin::Begin) < 0) return teReadFileError;
    auto child = std::make_unique<TTagControl>();
    const TTagError result = child->LoadTagListFromFile(file);
    if (result < 1) return result;
    if (child->End() <= pos || child->End() > parent.End()) return teTagNotFound;
    pos = child->End();
    FTree.Children()->push_back(std::move(child));
  }
  return teNoError;
}
