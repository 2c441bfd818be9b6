// An application built against the installed library: a file URL from the runtime, a path
// comparison that needs ICU (decomposed accent, other letter case), and the metadata cache from
// the library itself. The install test compares what it prints.

#include <cstdio>

#include "QNiCloud/QNiCloud.h"
#include "QNiCloud/QNiCloudCache.h"
#include "qn/URL.h"
#include "qn/util/PathNormalization.h"

int main() {
    const auto documents = qn::URL::fileURLWithPath("/Container/My Documents", true);
    const auto note = documents.URLByAppendingPathComponent("Caf\u00e9/Note.txt");

    const bool samePath =
        qn::isEqualToPath(note.path(), "/container/my documents/CAFE\u0301/note.txt");

    auto cache = QNiCloudCache::cacheWithCachedDirectoryPath(documents.path());
    cache->createEntryAtPath(note.path(), nullptr);
    const bool found =
        cache->entryForPath("/Container/My Documents/cafe\u0301/NOTE.txt") != nullptr;

    std::printf("%s\nsame path: %s\ncache entries: %llu, found: %s\nversion: %.1f\n",
                note.absoluteString().c_str(), samePath ? "yes" : "no",
                static_cast<unsigned long long>(cache->count()), found ? "yes" : "no",
                QNiCloudVersionNumber);
    return samePath && found ? 0 : 1;
}
