// A device's journal opened from damaged bytes: a journal with entries is made once, then each
// input damages a copy of its file (pairs of a 16-bit offset and a byte) before it is opened and
// used. Opening may refuse, and a use may throw the journal's error, but nothing may crash, leak
// or read out of bounds.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "platform/drive/Journal.h"

namespace {

namespace fs = std::filesystem;
using qn::drive::Journal;
using qn::drive::JournalEntry;

struct Pristine {
    std::string directory;
    std::string bytes;

    Pristine() {
        std::string pattern = fs::temp_directory_path().string() + "/qn-journal-fuzz-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        directory = pattern;
        const std::string file = directory + "/pristine.sqlite";
        {
            qn::Error error;
            const auto journal = Journal::open(file, &error);
            if (journal == nullptr) {
                std::abort();
            }
            for (int i = 0; i < 20; ++i) {
                JournalEntry entry;
                entry.path = "iCloud.com.example/Documents/f" + std::to_string(i) + ".txt";
                entry.revision = std::to_string(i);
                entry.size = static_cast<std::uint64_t>(i) * 100;
                entry.local = qn::drive::LocalIdentity{static_cast<std::uint64_t>(i), 1, 2};
                journal->put(entry);
            }
            journal->setValue("token", "42");
        }
        std::ifstream in(file, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    ~Pristine() {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Pristine pristine;
    std::string damaged = pristine.bytes;
    for (std::size_t i = 0; i + 2 < size; i += 3) {
        const std::size_t offset =
            (static_cast<std::size_t>(data[i]) << 8 | data[i + 1]) % (damaged.size() + 1);
        if (offset == damaged.size()) {
            damaged.resize(damaged.size() / 2);  // a cut file
        } else {
            damaged[offset] = static_cast<char>(data[i + 2]);
        }
    }
    const std::string file = pristine.directory + "/damaged.sqlite";
    for (const char* suffix : {"", "-wal", "-shm"}) {
        ::unlink((file + suffix).c_str());
    }
    {
        std::ofstream out(file, std::ios::binary);
        out << damaged;
    }
    qn::Error error;
    const auto journal = Journal::open(file, &error);
    if (journal == nullptr) {
        return 0;
    }
    try {
        for (const auto& entry : journal->entries()) {
            journal->entry(entry.path);
        }
        journal->value("token");
        JournalEntry entry;
        entry.path = "iCloud.com.example/Documents/new.txt";
        journal->put(entry);
        journal->move("iCloud.com.example/Documents", "iCloud.com.example/Moved");
        journal->remove("iCloud.com.example/Moved/f3.txt");
    } catch (const std::runtime_error&) {
        // A damaged journal says so; the engine then stops syncing.
    }
    return 0;
}
