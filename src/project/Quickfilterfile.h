// Quick filter files: a list of graph filters stored on their own, to be applied to other graphs. The file
// is a tag file with the identification "ORX_FILT" and one list "OrvexFilterViewerFilters" holding
// "QuickFilterFileVersion", "NumberOfFilters" and the lists "Filter0", "Filter1", ... with each filter's
// tags.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class TGraphFilter;

inline constexpr const char* kQuickFilterFileIdentification = "ORX_FILT";
/// Grows with the format.
inline constexpr int32_t ThisQuickFilterFileVersion = 1;

/// The texts a failed load or save reports.
inline constexpr const char* kQuickFilterWrongIdentification =
    "Load failed: Wrong Identification - Is this a Quick Filter file ?";
inline constexpr const char* kQuickFilterWrongVersion = "Error: Wrong Quick Filter File Version !";
inline constexpr const char* kQuickFilterLoadFailed = "Load failed !";
inline constexpr const char* kQuickFilterSaveFailed = "Save failed !";

/// Writes the filters' working settings; empty on success, else kQuickFilterSaveFailed.
std::string SaveQuickFilters(const std::string& fileName, const std::vector<const TGraphFilter*>& filters);
/// Reads the filters in file order; empty on success, else one of the load texts (filters then empty).
std::string LoadQuickFilters(const std::string& fileName,
                             std::vector<std::unique_ptr<TGraphFilter>>& filters);
