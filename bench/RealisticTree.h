#pragma once

// The container the benchmarks measure: below a root directory, top-level directories each
// holding four levels of directories (four subdirectories per directory) with 20 files each,
// mixed-case names such as "Meeting Notes 1234.docx", about a tenth of the paths outside ASCII
// (precomposed Latin, Greek, Japanese) and some of those spelled decomposed ("Re\u0301sume\u0301").
// Deterministic: the same root and size always give the same tree.

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace qn::bench {

struct RealisticTree {
    /// Parents before their children, as the file system would spell them.
    std::vector<std::string> absolute;
    std::vector<bool> isFile;
    /// A directory with 20 files and no subdirectory.
    std::string listedDirectory;
};

/// A name from a template with "#" replaced by a number.
inline std::string fillPattern(const std::string& pattern, unsigned number) {
    std::string result = pattern;
    const std::size_t at = result.find('#');
    return result.replace(at, 1, std::to_string(number));
}

/// About `target` entries below `root` (exactly `target` unless the tree runs out of levels).
inline RealisticTree makeRealisticTree(const std::string& root, std::size_t target) {
    // Files: mostly ASCII; then precomposed Latin, other scripts, and decomposed Latin.
    const std::vector<std::string> asciiFiles = {"Report #.pdf",
                                                 "IMG_#.JPG",
                                                 "Invoice-2023-#.xlsx",
                                                 "notes #.txt",
                                                 "Meeting Notes #.docx",
                                                 "Budget #.numbers",
                                                 "Screenshot 2024-03-# at 10.15.42.png",
                                                 "README#.md"};
    const std::vector<std::string> otherFiles = {
        "R\u00E9sum\u00E9 #.pdf",
        "Caf\u00E9 Men\u00FC #.pages",
        "\u00DCbersicht #.xlsx",
        "\u00C7al\u0131\u015Fma #.docx",
        "\u65E5\u672C\u8A9E\u30E1\u30E2 #.txt",
        "\u0395\u03BB\u03BB\u03B7\u03BD\u03B9\u03BA\u03AC #.txt"};
    const std::vector<std::string> decomposedFiles = {
        "Re\u0301sume\u0301 #.pdf", "Cafe\u0301 Menu\u0308 #.pages", "U\u0308bersicht #.xlsx"};
    const std::vector<std::string> asciiDirectories = {"Projects #", "Archive #", "Clients #",
                                                       "Photos #",   "Team #",    "Drafts #"};
    const std::vector<std::string> otherDirectories = {"Donn\u00E9es #", "Entw\u00FCrfe #",
                                                       "Donne\u0301es #"};
    std::mt19937 random(2024);
    auto pick = [&](const std::vector<std::string>& from) { return from[random() % from.size()]; };
    RealisticTree tree;
    struct Directory {
        std::string path;
        int depth;
    };
    std::vector<Directory> pending = {{root, 0}};
    unsigned serial = 0;
    for (std::size_t next = 0; next < pending.size() && tree.absolute.size() < target; ++next) {
        const Directory directory = pending[next];
        const int subdirectories = directory.depth == 0 ? 1 << 30 : directory.depth < 4 ? 4 : 0;
        for (int i = 0; i < subdirectories && tree.absolute.size() < target; ++i) {
            const std::string name = fillPattern(
                random() % 1000 < 15 ? pick(otherDirectories) : pick(asciiDirectories), ++serial);
            tree.absolute.push_back(directory.path + "/" + name);
            tree.isFile.push_back(false);
            pending.push_back({tree.absolute.back(), directory.depth + 1});
            // A full top-level directory holds 85 directories of 21 entries.
            if (directory.depth == 0 && tree.absolute.size() * 85 * 21 >= target) {
                break;
            }
        }
        if (directory.depth == 0) {
            continue;
        }
        for (int i = 0; i < 20 && tree.absolute.size() < target; ++i) {
            const unsigned roll = random() % 100;
            const std::string& pattern = roll < 2   ? pick(decomposedFiles)
                                         : roll < 4 ? pick(otherFiles)
                                                    : pick(asciiFiles);
            tree.absolute.push_back(directory.path + "/" + fillPattern(pattern, ++serial));
            tree.isFile.push_back(true);
        }
        if (directory.depth == 4 && tree.listedDirectory.empty()) {
            tree.listedDirectory = directory.path;
        }
    }
    return tree;
}

}  // namespace qn::bench
