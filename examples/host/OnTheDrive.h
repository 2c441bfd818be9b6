#pragma once

#include <string>

/// The host on the embedded cloud drive: this computer and another one ("desktop") keep the same
/// account in a directory store under `scratch`. Call on the main thread; true when every step
/// was seen.
bool runOnTheDrive(const std::string& scratch);
