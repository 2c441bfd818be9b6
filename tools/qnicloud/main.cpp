// qnicloud: the command-line companion of the embedded cloud drive. Each command opens the
// device (its engine runs while the command does), does its work through the library's public
// API and exits 0, or prints one line on standard error and exits 1.

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "Commands.h"
#include "Device.h"
#include "qn/Logger.h"

int main(int argc, char** argv) {
    CLI::App app("qnicloud: see and steer the documents of an embedded cloud drive", "qnicloud");
    app.require_subcommand(1);
    std::string device;
    std::string container = "iCloud.com.qnicloud.Documents";
    app.add_option("--device", device,
                   "The device's directory (default $QNICLOUD_DEVICE, else "
                   "~/.local/share/QNiCloud/device)");
    app.add_option("--container", container, "The container")->capture_default_str();
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Show the library's log");

    qnicloud::Run run;
    qnicloud::addAccountCommands(app, &run);
    qnicloud::addStatusCommand(app, &run);
    qnicloud::addListCommand(app, &run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    if (!verbose) {
        qn::setLogSink([](const qn::LogRecord&) {});
    }
    try {
        qnicloud::Device target(device, container);
        run(target);
    } catch (const std::exception& e) {
        fmt::print(stderr, "qnicloud: {}\n", e.what());
        return 1;
    }
    return 0;
}
