// qnicloud: the command-line companion of the embedded cloud drive. Each command opens the
// device (its engine runs while the command does), does its work through the library's public
// API and exits 0, or prints one line on standard error and exits non-zero (130 when Ctrl-C
// stopped it).

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "Commands.h"
#include "Device.h"
#include "Interruption.h"
#include "qn/Logger.h"

int main(int argc, char** argv) {
    CLI::App app("qnicloud: see and steer the documents of an embedded cloud drive", "qnicloud");
    app.require_subcommand(1);
    app.footer(
        "The device's directory defaults to $QNICLOUD_DEVICE, else\n"
        "~/.local/share/QNiCloud/device. Paths name items relative to the container's\n"
        "Documents folder, or absolutely within it. `qnicloud COMMAND --help` says more.");
    qnicloud::Device::Options device;
    app.add_option("--device", device.directory, "The device's directory (see below)");
    app.add_option("--container", device.container, "The container")->capture_default_str();
    app.add_option("--device-name", device.name, "Its name beside its revisions; remembered");
    app.add_flag("--offline", device.offline, "Send and fetch nothing this time");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Show the library's log");

    qnicloud::Run run;
    qnicloud::addAccountCommands(app, &run);
    qnicloud::addStatusCommand(app, &run);
    qnicloud::addListCommand(app, &run);
    qnicloud::addMonitorCommand(app, &run);
    qnicloud::addDownloadCommand(app, &run);
    qnicloud::addConflictCommands(app, &run);
    qnicloud::addFileCommands(app, &run);
    qnicloud::addDemoCommand(app, &run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    if (!verbose) {
        qn::setLogSink([](const qn::LogRecord&) {});
    }
    qnicloud::Interruption::install();
    try {
        qnicloud::Device target(device);
        run(target);
    } catch (const qnicloud::CommandError& e) {
        std::fflush(stdout);
        fmt::print(stderr, "qnicloud: {}\n", e.what());
        return e.status();
    } catch (const std::exception& e) {
        std::fflush(stdout);
        fmt::print(stderr, "qnicloud: {}\n", e.what());
        return 1;
    }
    return 0;
}
