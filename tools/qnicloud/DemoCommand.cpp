// `qnicloud demo`: the tool shown at work, unattended. In a directory of its own it makes a store
// and two devices, "desktop" and "laptop", and runs this very program as a person would type it:
// documents written on the desktop appear on the laptop in the cloud only, download there with
// progress, and edits made on both at once end in a conflict that is resolved. Each command is
// printed before it runs; the demo stops at the first one that fails.

#include <fcntl.h>
#include <fmt/core.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "Interruption.h"

extern char** environ;

namespace qnicloud {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kReportSize = 48 << 20;  // big enough for the bars to be seen moving

class Demo {
public:
    Demo(std::string program, std::string directory)
        : program_(std::move(program)),
          directory_(std::move(directory)),
          styled_(::isatty(STDOUT_FILENO) == 1) {}

    void say(const std::string& text) const {
        fmt::print("\n{}# {}{}\n", styled_ ? "\x1b[1m" : "", text, styled_ ? "\x1b[0m" : "");
        std::fflush(stdout);
    }

    // Runs `qnicloud ARGUMENTS` in the demo's directory, its standard input from `input` when
    // given; fails the demo when it fails.
    void run(const std::vector<std::string>& arguments, const std::string& input = {}) const {
        std::string shown = "qnicloud";
        for (const auto& argument : arguments) {
            shown +=
                " " + (argument.find(' ') == std::string::npos ? argument : "\"" + argument + "\"");
        }
        fmt::print("{}$ {}{}{}\n", styled_ ? "\x1b[2m" : "", styled_ ? "\x1b[0m" : "", shown,
                   input.empty() ? "" : " < " + input);
        std::fflush(stdout);
        std::vector<std::string> words{program_};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (auto& word : words) {
            argv.push_back(word.data());
        }
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (!input.empty()) {
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
        }
        pid_t pid = -1;
        const int spawned =
            ::posix_spawn(&pid, program_.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            throw CommandError(
                fmt::format("the demo could not run {}: {}", program_, std::strerror(spawned)));
        }
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (Interruption::requested()) {
            throw CommandError("the demo was interrupted", 130);
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            throw CommandError(fmt::format("the demo stopped: `{}` failed", shown));
        }
    }

    // A document an application on `device` saved, outside the tool.
    std::string makeFile(const std::string& name, std::size_t size, char fill) const {
        std::ofstream(directory_ + "/" + name) << std::string(size, fill);
        return name;
    }

private:
    std::string program_;
    std::string directory_;
    bool styled_;
};

void runDemo(const std::string& program, bool keep) {
    std::string pattern = (fs::temp_directory_path() / "qnicloud-demo-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw CommandError(fmt::format("the demo has no directory: {}", std::strerror(errno)));
    }
    const std::string directory = pattern;
    // Removed whatever happens, unless asked to keep it.
    const auto cleanUp = [&] {
        std::error_code ignored;
        if (!keep) {
            fs::remove_all(directory, ignored);
        }
    };
    try {
        fs::current_path(directory);
        const Demo demo(program, directory);
        fmt::print(
            "QNiCloud demo: one drive store and two devices of the same account, in {}\n"
            "(\"desktop\" and \"laptop\" stand for two computers; each command runs as you would "
            "type it)\n",
            directory);

        demo.say("A store for the account's documents; both devices sign in to it.");
        demo.run({"store", "init", "store"});
        demo.run({"--device", "desktop", "--device-name", "desktop", "account", "sign-in", "alice",
                  "--store", "store"});
        demo.run({"--device", "laptop", "--device-name", "laptop", "account", "sign-in", "alice",
                  "--store", "store"});

        demo.say("The desktop writes a note and three reports.");
        demo.run({"--device", "desktop", "write", "Notes.txt", "Meeting at ten."});
        demo.run({"--device", "desktop", "mkdir", "Reports"});
        for (const char* quarter : {"q1", "q2", "q3"}) {
            const std::string report =
                demo.makeFile(fmt::format("{}.pdf", quarter), kReportSize, quarter[1]);
            demo.run({"--device", "desktop", "write", "Reports/" + report}, report);
        }

        demo.say("The laptop sees them, in the cloud only: nothing is downloaded unasked.");
        demo.run({"--device", "laptop", "ls", "-l", "-R"});

        demo.say("The laptop downloads them, two at a time.");
        demo.run({"--device", "laptop", "download", "--max", "2", "Notes.txt", "Reports"});
        demo.run({"--device", "laptop", "ls", "-l", "-R"});

        demo.say("Both edit the note: the laptop offline, then the desktop.");
        demo.run(
            {"--device", "laptop", "--offline", "write", "Notes.txt", "Meeting at ten, room 4."});
        demo.run({"--device", "desktop", "write", "Notes.txt", "Meeting at eleven."});

        demo.say("Back online, the laptop keeps both edits: the note is in conflict.");
        demo.run({"--device", "laptop", "ls"});
        demo.run({"--device", "laptop", "versions", "Notes.txt"});

        demo.say("The laptop keeps the current note and saves the other edit as a copy.");
        demo.run({"--device", "laptop", "resolve", "Notes.txt", "--save-all", "."});
        demo.run({"--device", "laptop", "cat", "Notes.txt"});
        fmt::print("\n");
        demo.run({"--device", "desktop", "ls"});
        demo.run({"--device", "desktop", "status"});

        demo.say(keep ? fmt::format("Done; everything is kept in {}.", directory)
                      : "Done; the demo's directory is removed.");
    } catch (...) {
        cleanUp();
        throw;
    }
    cleanUp();
}

}  // namespace

void addDemoCommand(CLI::App& app, Run* run) {
    auto* demo = app.add_subcommand("demo", "Two devices of one store, shown at work");
    auto keep = std::make_shared<bool>(false);
    demo->add_flag("--keep", *keep, "Keep the demo's directory to look around afterwards");
    demo->callback([run, keep] {
        *run = [keep](Device&) {
            std::error_code error;
            const auto program = fs::read_symlink("/proc/self/exe", error);
            if (error) {
                throw CommandError(
                    fmt::format("the demo cannot find this program: {}", error.message()));
            }
            runDemo(program.string(), *keep);
        };
    });
}

}  // namespace qnicloud
