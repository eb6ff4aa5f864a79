// Viewers on the command line: how a viewer is described in listings.
#pragma once

#include "project/Project.h"

#include <nlohmann/json.hpp>

namespace orvexcli {

/// {"index", "class", "title", "ids"}: ids are the project's objects the viewer uses.
nlohmann::ordered_json DescribeViewer(const TProject& project, size_t index);

} // namespace orvexcli
