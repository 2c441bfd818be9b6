// A drive device in a process of its own, for the crash tests: it syncs until it is killed. At a
// stall point it prints "stalled" and waits there forever, for the test to kill it at that very
// moment; "ready" is printed once the device is signed in.
//
// Usage: drive_device_helper STORE DEVICE ACCOUNT POINT [FILE]
//   POINT: none, upload-middle (half an upload copied), upload-committed (an upload taken by the
//   store, not yet recorded by the device) or download-middle (half a download written);
//   FILE: a local path to ask the device to download once it knows the item.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "support/ForwardingStore.h"

namespace {

[[noreturn]] void stall() {
    std::fputs("stalled\n", stdout);
    std::fflush(stdout);
    for (;;) {
        ::pause();
    }
}

class StallingStore final : public qn::test::ForwardingStore {
public:
    StallingStore(std::shared_ptr<qn::DriveStore> store, std::string point)
        : ForwardingStore(std::move(store)), point_(std::move(point)) {}

    std::optional<Item> upload(std::string_view a, std::string_view p, int fd, const Condition& c,
                               qn::Date d, std::string_view device, const Progress& progress,
                               qn::Error* e) override {
        const auto wrapped = [&](std::uint64_t done, std::uint64_t total) {
            if (point_ == "upload-middle" && done < total) {
                stall();
            }
            return !progress || progress(done, total);
        };
        auto item = ForwardingStore::upload(a, p, fd, c, d, device, wrapped, e);
        if (item && point_ == "upload-committed") {
            stall();
        }
        return item;
    }
    bool download(std::string_view a, std::string_view p, std::string_view r, int fd,
                  const Progress& progress, qn::Error* e) override {
        const auto wrapped = [&](std::uint64_t done, std::uint64_t total) {
            if (point_ == "download-middle" && done < total) {
                stall();
            }
            return !progress || progress(done, total);
        };
        return ForwardingStore::download(a, p, r, fd, wrapped, e);
    }

private:
    const std::string point_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s STORE DEVICE ACCOUNT POINT [FILE]\n", argv[0]);
        return 2;
    }
    qn::DriveService::Options options;
    options.store = std::make_shared<StallingStore>(qn::DirectoryStore::open(argv[1]), argv[4]);
    options.deviceDirectory = argv[2];
    options.deviceName = "helper";
    options.pollInterval = std::chrono::milliseconds(10);
    qn::Error error;
    const auto drive = qn::DriveService::open(options, &error);
    if (drive == nullptr || !drive->signIn(argv[3], &error)) {
        std::fprintf(stderr, "%s\n", error.description().c_str());
        return 1;
    }
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    if (argc > 5) {
        const qn::URL file = qn::URL::fileURLWithPath(argv[5]);
        while (!drive->startDownloading(file, nullptr)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));  // not known yet
        }
    }
    for (;;) {
        ::pause();
    }
}
