// Registers the spectral tools of the workbench with the tool registry.
#pragma once

class TToolRegistry;

void RegisterSpectralTools(TToolRegistry& registry);
