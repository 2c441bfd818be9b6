// The device's store and account.

#include <fmt/core.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "Commands.h"
#include "qn/DirectoryStore.h"

namespace qnicloud {

void addAccountCommands(CLI::App& app, Run* run) {
    auto* store = app.add_subcommand("store", "Drive stores")->require_subcommand(1);
    auto* init = store->add_subcommand("init", "Make a directory store (kept if it exists)");
    auto webDAV = std::make_shared<qn::WebDAVStore::Options>();
    auto* add = store->add_subcommand(
        "add", "Use a WebDAV store (made at URL if missing); password from $QNICLOUD_PASSWORD");
    add->add_option("URL", webDAV->url, "The collection that holds the store")->required();
    add->add_option("--user", webDAV->user, "The user name on the server");
    add->add_option("--ca", webDAV->certificateAuthority, "A PEM file of certificates to trust");
    add->add_flag("--insecure", webDAV->allowUnverifiedCertificate,
                  "Accept a server certificate that does not verify");
    add->callback([run, webDAV] {
        *run = [webDAV](Device& device) {
            if (!Device::isURL(webDAV->url)) {
                throw CommandError(
                    fmt::format("{} is not an http:// or https:// URL", webDAV->url));
            }
            if (const char* password = std::getenv("QNICLOUD_PASSWORD")) {
                webDAV->password = password;
            }
            qn::Error error;
            if (!qn::WebDAVStore::create(*webDAV, &error)) {
                throw CommandError(error.localizedDescription());
            }
            device.rememberWebDAV(*webDAV);
            device.rememberStorePath(webDAV->url);
            fmt::print("store ready at {}\n", webDAV->url);
        };
    });
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
            auto store = device.makeStore(device.storePath());
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
