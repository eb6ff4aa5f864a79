// The viewers the tools open for their previews: graph and image viewers of the registered classes, made
// through the viewer registry, so the tool frame never names a viewer class.
#pragma once

#include "project/Projectdialogform.h"

#include <map>

class TRegisteredToolViewerFactory : public IToolViewerFactory {
public:
  std::unique_ptr<TVCustomForm> CreateGraphViewer(TProject& project, int32_t graphID,
                                                  const std::vector<int32_t>& moreIDs) override;
  std::unique_ptr<TVCustomForm> CreateImageViewer(TProject& project, int32_t imageID, bool check) override;
  void SetImageID(TVCustomForm& viewer, int32_t imageID) override;
  void SetAutoUpdate(TVCustomForm& viewer, bool hold) override;

  /// The viewer class names the factory makes ("TVMultiGraphForm", "TVImageForm").
  static constexpr const char* kGraphViewerClass = "TVMultiGraphForm";
  static constexpr const char* kImageViewerClass = "TVImageForm";

private:
  /// The image each image viewer made here shows, so that SetImageID can swap it.
  std::map<const TVCustomForm*, int32_t> FShownImages;
};

/// Makes the factory the tool frame's (once; later calls keep it).
void InstallToolViewerFactory();
