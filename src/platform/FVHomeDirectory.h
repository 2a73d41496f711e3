#pragma once

#include <string>

namespace ferrovane {

// The user's home folder: $HOME, else the password database; "" when neither names one.
std::string homeDirectory();

}  // namespace ferrovane
