// Registers the image tools of the workbench with the tool registry.
#pragma once

class TToolRegistry;

void RegisterImageTools(TToolRegistry& registry);
