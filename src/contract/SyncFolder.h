#pragma once

#include <string>

namespace kestrine {

/// The folder that is watched below the base folder `base`: "<base>/Kestrine". Both sides read that text as a URL, and watch its path.
inline std::string syncFolderText(const std::string& base) { return base + "/Kestrine"; }

}  // namespace kestrine
