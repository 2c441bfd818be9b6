#pragma once

// The subcommands of `qnicloud`, each added to the application with the options it takes and
// run through `Device`. Main thread only.

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>

#include "Device.h"

namespace qnicloud {

/// What a subcommand does once its options are parsed; it throws `CommandError` to fail.
using Run = std::function<void(Device& device)>;

/// `store init`, `account sign-in|sign-out|switch|show`.
void addAccountCommands(CLI::App& app, Run* run);
/// `status`.
void addStatusCommand(CLI::App& app, Run* run);
/// `ls [PATH] [-l] [-R] [--json]`.
void addListCommand(CLI::App& app, Run* run);
/// `monitor`.
void addMonitorCommand(CLI::App& app, Run* run);
/// `download PATH... [--max N]`.
void addDownloadCommand(CLI::App& app, Run* run);
/// `versions PATH`, `resolve PATH (--keep-latest | --save-all DIR)`.
void addConflictCommands(CLI::App& app, Run* run);
/// `mkdir`, `write`, `cat`, `cp`, `mv`, `rm`, `evict`.
void addFileCommands(CLI::App& app, Run* run);
/// `demo`: runs this program as two devices of a store made for the purpose.
void addDemoCommand(CLI::App& app, Run* run);

}  // namespace qnicloud
