// Registration of every data class of the program, in the order the loader expects.
#pragma once

/// Registers all data classes with the registry of TData; a second call changes nothing.
void RegisterDataClasses();
