// Registers every tool of the workbench, folder by folder; the application's tool hook.
#pragma once

/// Fills the process's tool registry once; later calls do nothing.
void RegisterAllTools();
