// Speed of the embedded drive on a directory store, two devices on this machine.
//   - BM_SmallFiles: 10,000 files of 4 KiB in one container.
//       upload_s: device A, opened over the files, until it has uploaded them all;
//       catch_up_s: device B, signed in, until it knows every item (metadata only);
//       download_s: B asked for the folder, until every file is on its disk.
//   - BM_LargeFile: one file of QN_DRIVE_BENCH_LARGE_MIB MiB (1024 unless set): upload_s and
//     download_s as above, and mib_per_s of each.
//   - BM_ChangeNoticed: device A idle with its default poll interval; a file is rewritten and
//     closed; notice_ms is the time until the store holds the new revision (median of 20).
// QN_DRIVE_BENCH_STORE chooses the store: "directory" (the default), or "apache" or "rclone" for a
// WebDAV store on that server, started on the loopback address; with a WebDAV store the small
// and large runs also time `rclone copy` of the same files to and from the same server
// (rclone_upload_s, rclone_download_s), the anchor the store is measured against.
// scripts/drive-bench.sh runs these beside `rclone copy` and `cp` on the same data.
// The working directory is QN_DRIVE_BENCH_DIR (default: a new directory in /var/tmp), so that
// the data sits on a disk, not in memory.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "qn/DirectoryStore.h"
#include "qn/DriveService.h"
#include "qn/WebDAVStore.h"
#include "support/WebDAVServer.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char* kAccount = "bench@example.com";
constexpr const char* kContainer = "iCloud.com.example.Bench";
constexpr std::size_t kSmallFiles = 10000;
constexpr std::size_t kSmallSize = 4096;

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::string workDirectory() {
    const char* set = std::getenv("QN_DRIVE_BENCH_DIR");
    std::string pattern =
        set != nullptr ? std::string(set) + "/drive-XXXXXX" : "/var/tmp/drive-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot make " + pattern);
    }
    return pattern;
}

std::size_t largeMiB() {
    const char* set = std::getenv("QN_DRIVE_BENCH_LARGE_MIB");
    return set != nullptr ? std::strtoul(set, nullptr, 10) : 1024;
}

// A store with the account, and the devices made on it.
struct Setup {
    std::string root = workDirectory();
    std::string store = root + "/store";
    std::unique_ptr<qn::test::WebDAVServer> server;
    qn::WebDAVStore::Options webDAV;

    Setup() {
        const char* kind = std::getenv("QN_DRIVE_BENCH_STORE");
        const std::string chosen = kind != nullptr ? kind : "directory";
        if (chosen == "apache" || chosen == "rclone") {
            server = qn::test::WebDAVServer::start(chosen == "apache"
                                                       ? qn::test::WebDAVServer::Kind::Apache
                                                       : qn::test::WebDAVServer::Kind::Rclone);
            webDAV.url = server->url() + "store";
            qn::WebDAVStore::create(webDAV, nullptr);
        } else if (chosen == "directory") {
            qn::DirectoryStore::create(store, nullptr);
        } else {
            throw std::runtime_error("QN_DRIVE_BENCH_STORE is directory, apache or rclone");
        }
        openStore()->addAccount(kAccount, nullptr);
    }
    ~Setup() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::shared_ptr<qn::DriveStore> openStore() const {
        if (server != nullptr) {
            return qn::WebDAVStore::open(webDAV);
        }
        return qn::DirectoryStore::open(store);
    }
    std::string documents(const std::string& device) const {
        return root + "/" + device + "/Mobile Documents/iCloud~com~example~Bench/Documents";
    }
    std::shared_ptr<qn::DriveService> open(const std::string& device,
                                           std::chrono::milliseconds poll = 20ms) const {
        qn::DriveService::Options options;
        options.deviceDirectory = root + "/" + device;
        options.store = openStore();
        options.deviceName = device;
        options.pollInterval = poll;
        qn::Error error;
        auto drive = qn::DriveService::open(options, &error);
        if (drive == nullptr || !drive->signIn(kAccount, &error)) {
            throw std::runtime_error(error.description());
        }
        drive->containerURL(kContainer);
        return drive;
    }
    // With a WebDAV store: the anchor, `rclone copy` of `folder` to the server and back, as
    // counters beside the drive's.
    void anchor(benchmark::State& state, const std::string& folder) const {
        if (server == nullptr) {
            return;
        }
        const std::string remote =
            fmt::format(":webdav:anchor --webdav-url {} --webdav-vendor other", server->url());
        const auto timed = [](const std::string& command) {
            const auto start = Clock::now();
            if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
                throw std::runtime_error("failed: " + command);
            }
            return seconds(Clock::now() - start);
        };
        ::sync();
        state.counters["rclone_upload_s"] =
            timed(fmt::format("rclone copy '{}' {}", folder, remote));
        state.counters["rclone_download_s"] =
            timed(fmt::format("rclone copy {} '{}/rclone-back'", remote, root));
    }
};

void waitIdle(const std::shared_ptr<qn::DriveService>& drive) {
    if (!drive->waitUntilIdle(600s)) {
        throw std::runtime_error("the drive did not settle");
    }
}

void BM_SmallFiles(benchmark::State& state) {
    for (auto _ : state) {
        Setup setup;
        fs::create_directories(setup.documents("A"));
        const std::string contents(kSmallSize, 's');
        for (std::size_t i = 0; i < kSmallFiles; ++i) {
            std::ofstream(setup.documents("A") + fmt::format("/f{:05}.txt", i)) << contents;
        }
        const auto start = Clock::now();
        const auto a = setup.open("A");
        waitIdle(a);
        const auto uploaded = Clock::now();
        const auto b = setup.open("B");
        waitIdle(b);
        const auto known = Clock::now();
        b->startDownloading(qn::URL::fileURLWithPath(setup.documents("B")), nullptr);
        waitIdle(b);
        const auto downloaded = Clock::now();
        std::size_t onDisk = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(setup.documents("B"))) {
            ++onDisk;
        }
        if (onDisk != kSmallFiles) {
            throw std::runtime_error(fmt::format("{} files downloaded", onDisk));
        }
        state.SetIterationTime(seconds(downloaded - start));
        state.counters["upload_s"] = seconds(uploaded - start);
        state.counters["catch_up_s"] = seconds(known - uploaded);
        state.counters["download_s"] = seconds(downloaded - known);
        setup.anchor(state, setup.documents("A"));
    }
}
BENCHMARK(BM_SmallFiles)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_LargeFile(benchmark::State& state) {
    const std::size_t mib = largeMiB();
    for (auto _ : state) {
        Setup setup;
        fs::create_directories(setup.documents("A"));
        {
            std::ofstream file(setup.documents("A") + "/large.bin", std::ios::binary);
            std::string block(1 << 20, 'L');
            for (std::size_t i = 0; i < mib; ++i) {
                block[i % block.size()] = static_cast<char>(i);
                file << block;
            }
        }
        ::sync();
        const auto start = Clock::now();
        const auto a = setup.open("A");
        waitIdle(a);
        const auto uploaded = Clock::now();
        const auto b = setup.open("B");
        waitIdle(b);
        const auto known = Clock::now();
        b->startDownloading(qn::URL::fileURLWithPath(setup.documents("B") + "/large.bin"), nullptr);
        waitIdle(b);
        const auto downloaded = Clock::now();
        if (fs::file_size(setup.documents("B") + "/large.bin") != mib << 20) {
            throw std::runtime_error("the large file did not arrive whole");
        }
        state.SetIterationTime(seconds(downloaded - start));
        state.counters["upload_s"] = seconds(uploaded - start);
        state.counters["download_s"] = seconds(downloaded - known);
        state.counters["upload_mib_per_s"] = static_cast<double>(mib) / seconds(uploaded - start);
        state.counters["download_mib_per_s"] =
            static_cast<double>(mib) / seconds(downloaded - known);
        setup.anchor(state, setup.documents("A"));
    }
}
BENCHMARK(BM_LargeFile)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

void BM_ChangeNoticed(benchmark::State& state) {
    for (auto _ : state) {
        Setup setup;
        const auto a = setup.open("A", 200ms);  // the default poll interval
        fs::create_directories(setup.documents("A"));
        const auto store = setup.openStore();
        const std::string path = "iCloud.com.example.Bench/Documents/changed.txt";
        std::vector<double> notices;
        for (int round = 0; round < 20; ++round) {
            waitIdle(a);
            std::this_thread::sleep_for(300ms);  // idle: the engine sleeps in its poll
            const auto before = store->itemAtPath(kAccount, path, nullptr);
            const auto written = Clock::now();
            std::ofstream(setup.documents("A") + "/changed.txt") << "round " << round;
            for (;;) {
                const auto now = store->itemAtPath(kAccount, path, nullptr);
                if (now && (!before || now->revision != before->revision)) {
                    break;
                }
                if (Clock::now() - written > 10s) {
                    throw std::runtime_error("the change was not uploaded");
                }
                std::this_thread::sleep_for(200us);
            }
            notices.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - written).count());
        }
        std::sort(notices.begin(), notices.end());
        state.SetIterationTime(notices[notices.size() / 2] / 1000);
        state.counters["notice_ms"] = notices[notices.size() / 2];
        state.counters["notice_ms_max"] = notices.back();
    }
}
BENCHMARK(BM_ChangeNoticed)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
