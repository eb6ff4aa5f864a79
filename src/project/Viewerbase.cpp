// Viewer interface of the project: registry and the stored viewer of an unknown class.
#include "project/Viewerbase.h"

#include "common/Classregistry.h"

namespace {
TClassRegistry<TVCustomForm>& Registry() {
  static TClassRegistry<TVCustomForm> registry;
  return registry;
}
} // namespace

void TVCustomForm::RegisterViewerClass(const std::string& className, TFactory factory) {
  Registry().Register(className, std::move(factory));
}

std::unique_ptr<TVCustomForm> TVCustomForm::CreateViewerByName(const std::string& className) {
  return Registry().Create(className);
}

void TVCustomForm::DeleteRegisteredViewerList() {
  Registry().Clear();
}

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
