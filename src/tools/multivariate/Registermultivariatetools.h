// Registers the multivariate tools of the workbench with the tool registry.
#pragma once

class TToolRegistry;

void RegisterMultivariateTools(TToolRegistry& registry);
