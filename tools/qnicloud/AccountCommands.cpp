// The device's store and account.

#include <fmt/core.h>

#include <memory>
#include <string>

#include "Commands.h"
#include "qn/DirectoryStore.h"

namespace qnicloud {

void addAccountCommands(CLI::App& app, Run* run) {
    auto* store = app.add_subcommand("store", "Drive stores")->require_subcommand(1);
    auto* init = store->add_subcommand("init", "Make a directory store (kept if it exists)");
    auto directory = std::make_shared<std::string>();
    init->add_option("DIR", *directory, "The store's directory")->required();
    init->callback([run, directory] {
        *run = [directory](Device&) {
            qn::Error error;
            if (!qn::DirectoryStore::create(*directory, &error)) {
                throw CommandError(error.localizedDescription());
            }
            fmt::print("store ready at {}\n", *directory);
        };
    });

    auto* account = app.add_subcommand("account", "The device's account")->require_subcommand(1);
    auto name = std::make_shared<std::string>();
    auto storeDirectory = std::make_shared<std::string>();
    auto* signIn = account->add_subcommand("sign-in", "Sign in (adding the account to the store)");
    signIn->add_option("NAME", *name, "The account")->required();
    signIn->add_option("--store", *storeDirectory, "The store (default: the last one)");
    signIn->callback([run, name, storeDirectory] {
        *run = [name, storeDirectory](Device& device) {
            auto& drive = device.open(*storeDirectory);
            if (!storeDirectory->empty()) {
                device.rememberStorePath(*storeDirectory);
            }
            qn::Error error;
            auto store = qn::DirectoryStore::open(device.storePath());
            if (!store->addAccount(*name, &error) || !drive.signIn(*name, &error)) {
                throw CommandError(error.localizedDescription());
            }
            fmt::print("signed in as {}\n", *name);
        };
    });
    auto* switchTo = account->add_subcommand("switch", "Sign in to another account");
    switchTo->add_option("NAME", *name, "The account")->required();
    switchTo->callback([run, name] {
        *run = [name](Device& device) {
            qn::Error error;
            if (!device.drive().signIn(*name, &error)) {
                throw CommandError(error.localizedDescription());
            }
            fmt::print("signed in as {}\n", *name);
        };
    });
    account->add_subcommand("sign-out", "Sign out; the documents are kept aside")->callback([run] {
        *run = [](Device& device) {
            device.drive().signOut();
            fmt::print("signed out\n");
        };
    });
}

}  // namespace qnicloud
