// The tools whose windows carry widgets of their own beside the generated parameters; each extension is
// defined in its tool's unit of this folder and only named here.
#include "frame/Qttoolwindow.h"

void RegisterAdvancedFittingWindowExtension();
void RegisterGraphBackgroundWindowExtension();
void RegisterImageFilterWindowExtension();
void RegisterImageFourierFilterWindowExtension();
void RegisterImageRepairWindowExtension();
void RegisterPCAWindowExtension();

void RegisterToolWindowExtensions() {
  RegisterAdvancedFittingWindowExtension();
  RegisterGraphBackgroundWindowExtension();
  RegisterImageFilterWindowExtension();
  RegisterImageFourierFilterWindowExtension();
  RegisterImageRepairWindowExtension();
  RegisterPCAWindowExtension();
}
